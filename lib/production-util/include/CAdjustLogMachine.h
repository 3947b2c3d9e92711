#pragma once
// The adjust change log: a rolling text log of what happens to the adjust data
// (failures of items while they write themselves to the store, the before and after
// picture of a re-arrangement), kept in "/adj/AdjLog.txt".
//
// Every line is "<index>#<text>\n"; all lines written by one Log call carry the same
// index, and indexes continue from the file's last line across restarts. Once more
// than 255 lines are counted, every record first removes as many of the oldest lines
// as it adds, so the file stays near 256 lines. Each line is written with one write
// and flushed to the medium (fdatasync) before Log returns.
//
// Turned off (the initial state), every Log reads the file afresh and forgets the
// counters afterwards; turned on, the file is read once and the counters are kept.
// File errors are printed to standard output ("write1line[O]: %d, %s", ...) and make
// the call return false; a corrupt log file never stops a record from being written.
//
// Threads: no lock. Records are made under the adjust data manager's mutex; TurnOn and
// TurnOff must not run at the same time as a record.
//
// Choices of this implementation:
//  - a log file created by a record gets the permission bits 0600 (owner read/write);
//  - the item form of Log answers true when every line it wrote was written;
//  - an index that does not fit 32 bits in the last line counts as 0, like any other
//    unreadable index (the next record is numbered 1);
//  - remove1line keeps everything behind the first line feed byte for byte, NUL bytes
//    included.

#include "ProductionModeExport.h"

#include <cstdint>

class CAdjustData;

class PM_EXPORT CAdjustLogMachine {
public:
    /// The log file's device path, "/adj/AdjLog.txt" (mapped below PMODE_ROOT when set).
    static const char* FILE_NAME;

    /// The single instance, built on the first call.
    static CAdjustLogMachine* GetInstance();

    ~CAdjustLogMachine();
    CAdjustLogMachine(const CAdjustLogMachine&) = delete;
    CAdjustLogMachine& operator=(const CAdjustLogMachine&) = delete;

    /// Reads the file once and keeps line count and last index in memory from now on.
    void TurnOn();
    /// Forgets the counters; every later record reads the file afresh.
    void TurnOff();

    /// Writes one record formatted like printf (at most 511 characters, one trailing
    /// line feed dropped). True if the line was written.
    bool Log(const char* format, ...) __attribute__((format(printf, 2, 3)));
    /// Writes one "[BASE1]".."[BASE3]" record per non-null base item, then the "[MAIN]"
    /// record, all with one index. True if every line was written.
    bool Log(CAdjustData* main, CAdjustData* base1, CAdjustData* base2, CAdjustData* base3);
    /// Does nothing.
    void AdjustAssert(const char* format, ...);

    // The steps of a record; public so that their rules can be checked one by one.

    /// Reads the file and sets line count and last index (0 and 0 when it is missing,
    /// empty or unreadable). Always true.
    bool create();
    /// Releases the file content and sets line count and last index to 0.
    void destroy();
    /// Deletes the file's first line; does nothing (false) while the line count is below 1.
    bool remove1line();
    /// Appends "<index>#<text>\n" and flushes it to the medium; counts the line.
    bool write1line(unsigned long index, const char* text);
    /// Index of the last line of the content held (0 when none can be read).
    unsigned long getLastIndex();
    /// Number of line feeds in the content held.
    unsigned long getLastLine();
    /// Size in bytes of the file at a device path, -1 if it cannot be had.
    long getFileSize(const char* path);

private:
    PM_HIDDEN CAdjustLogMachine();

    PM_HIDDEN bool writeItemRecord(unsigned long index, const char* tag, CAdjustData* item);

    int32_t nLineCount;  // lines counted when the file was last read, plus lines written since
    uint32_t nLastIndex; // index of the newest record
    char* pFileContent;  // owned copy of the file while it is parsed; null otherwise
    bool blTurnedOn;     // set by TurnOn, cleared by TurnOff
};
