#pragma once
// The answer to the factory PC's current request: one response of three
// values, one data block or one file path. Workers, the result CSV and the
// controller leave it here while the request is served; the host message channel
// sends it and clears the interface with Dispatch().
//
// The setters act only while the PC drives the run (operation type OP_TYPE_PTP);
// otherwise they return at once, so workers may call them unconditionally.
// Misuse (a second answer before Dispatch, a null or empty block, a null or
// over-long path) is a failed check: it is reported on standard error in the
// form of the C library's assertion report, naming the method, and the setter
// changes nothing more. The process goes on.
//
// No lock: the setters, the getters and Dispatch run on the controller's thread
// (or a worker's thread while the controller waits for it).

#include "ProductionModeExport.h"

#include <cstdint>

/// Transfer data types: what is pending.
enum {
    PTP_TRANSFER_NONE = 0,    ///< nothing; the response values still held are sent
    PTP_TRANSFER_RESPOND = 1, ///< a response of three values
    PTP_TRANSFER_DATA = 2,    ///< a data block
    PTP_TRANSFER_FILE = 3,    ///< a file path
};

class PM_EXPORT CPTPAdjInterface {
public:
    /// The interface, built on the first call. Any thread.
    static CPTPAdjInterface* GetInstance();

    /// Host link only: the pending answer becomes this response.
    void SetRespond(unsigned long code, unsigned long value2, unsigned long value3);
    /// Host link only: the pending answer becomes a private copy of size bytes.
    void SetData(unsigned char* data, int size);
    /// Host link only: the pending answer becomes the path (shorter than 128 characters).
    void SetFile(const char* path);

    /// PTP_TRANSFER_NONE, _RESPOND, _DATA or _FILE.
    uint32_t GetTransferDataType();
    /// The three response values, in order (kept across Dispatch).
    void GetRespond(unsigned int& code, unsigned int& value2, unsigned int& value3);
    /// The pending data block, or null.
    unsigned char* GetData();
    /// Bytes in the data block.
    int32_t GetDataSize();
    /// The file name field.
    char* GetFileName();
    /// Releases the data block; nothing is pending afterwards. Response values
    /// and file name stay.
    void Dispatch();

    ~CPTPAdjInterface();
    CPTPAdjInterface(const CPTPAdjInterface&) = delete;
    CPTPAdjInterface& operator=(const CPTPAdjInterface&) = delete;

private:
    PM_HIDDEN CPTPAdjInterface();

    unsigned char* pData;    ///< owned copy of the pending block; null when none
    int32_t nDataSize;       ///< bytes in pData
    uint32_t nRespondCode;   ///< first response value
    uint32_t nRespondValue2; ///< second response value
    uint32_t nRespondValue3; ///< third response value
    char szFileName[128];    ///< pending file path, NUL-terminated
    uint32_t nTransferDataType;
};
