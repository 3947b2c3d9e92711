#pragma once
// One adjust (calibration) item: its header record as stored (old offset and size)
// beside the offset and size it shall have (new offset and size), an optional pending
// data buffer, and the order of block-store operations that carries any difference to
// storage (WriteToNAND: header record first, then body; grow before write).
//
// Storage layout: header records of 140 bytes in the header store (record i at position
// 140 x i) and the items' raw bytes back to back in the body store. The item uses both
// stores and owns neither. Failures of WriteToNAND are recorded in the adjust change log;
// failures of Get and Set go to the error log (and Get's to the operator display).
//
// Threads: an item has no lock; it is reached only by the adjust data manager while the
// manager holds its mutex.
//
// Choices of this implementation:
//  - a new item larger than 4 bytes and Reset of an item larger than 4 bytes: the bytes
//    after the fourth are zero; Reset of a 3-byte item writes 3 bytes from a 4-byte buffer;
//  - a deferred Set shorter than the item keeps the stored bytes after `length` (what the
//    body store answers for the item's range; zero where it has none);
//  - the read-back of an item without pending data reads only the bytes still present
//    (the smaller of old and new size); a read that fails is recorded in the change log
//    ("Body Read Fail off: %u, size: %u") and nothing is written;
//  - a body write that fails is recorded in the change log ("Body Write Fail off: %u,
//    size: %u"); once the header record and the body size are changed on storage the item
//    takes the new offset and size over even if its value cannot be written, and keeps
//    `changed` and an owned cache;
//  - a WriteToNAND that fails may leave part of its steps done in the stores (say the
//    header record inserted, the body not grown), which the item does not record: such an
//    item must not be written again. Its owner drops the items and reloads the group from
//    NAND (the adjust data manager does, see CAdjustDataManager.h);
//  - an item marked for deletion whose stored size is 0 (a blank record no catalogue row
//    claims) has its record removed like any other deleted item, so it never stops a sync;
//  - a borrowed cache (immediate Set) is dropped whenever WriteToNAND fails, so the
//    caller's buffer is never used after Set returns;
//  - Get of an item whose resize is not yet written reads the smaller of old and new
//    size, but never more than `length` bytes;
//  - Get or Set with a null buffer and a length above 0 is a failed check (false);
//    an immediate Set of length 0 writes nothing and answers true;
//  - the destructor frees an owned cache still pending.

#include "ProductionModeExport.h"

#include "AdjustDataTypes.h"

#include <cstdint>

class CAdjustPreference;

class PM_EXPORT CAdjustData {
public:
    /// The item's record as stored, and the byte position of that record in the header area.
    struct _tAdjDataExtHeader : _TAdjDataHeader {
        int32_t position = -1;

        _tAdjDataExtHeader() = default;
        /// Copies that item's whole extended header (record and position).
        _tAdjDataExtHeader& operator=(const CAdjustData& item);
        _tAdjDataExtHeader(const _tAdjDataExtHeader&) = default;
        _tAdjDataExtHeader& operator=(const _tAdjDataExtHeader&) = default;
    };

    /// Selector of Infomation.
    enum ADJ_INFO {
        ADJ_INFO_ID = 0,
        ADJ_INFO_NAME = 1,
        ADJ_INFO_NEW_SIZE = 2,
        ADJ_INFO_OLD_SIZE = 3,
        ADJ_INFO_OLD_OFFSET = 4,
        ADJ_INFO_NEW_OFFSET = 5,
        ADJ_INFO_CHANGED = 6,
        ADJ_INFO_SIZE_STATE = 7,
    };

    /// An unbound item (id -1, everything zero) on the header store and the body store.
    CAdjustData(CAdjustPreference* headerStore, CAdjustPreference* bodyStore);
    /// Frees an owned cache still pending; the stores are not touched.
    ~CAdjustData();
    CAdjustData(const CAdjustData&) = delete;
    CAdjustData& operator=(const CAdjustData&) = delete;

    /// Replaces the stored record and its position as a whole.
    CAdjustData& operator=(const _tAdjDataExtHeader& extHeader);
    /// Gives the item a new body offset and marks it changed.
    CAdjustData& operator=(const _TArrangeInfo& arrange);

    /// Binds the item to a catalogue row: id, new size, name, file and default value;
    /// changed when the stored size differs from the row's.
    void Setup(int id, _TDATAINFO info);
    /// Marks a stored record that no catalogue row claims for deletion (id ITEM_DELETE_ID).
    void Setup4Delete();

    /// One fact about the item (see ADJ_INFO); ADJ_INFO_NAME answers the name's address.
    intptr_t Infomation(ADJ_INFO which) const;

    /// Reads up to `length` bytes of the item's value into buffer (pending data first).
    /// False, with error-log and display messages, when more is asked than the item holds
    /// or the item is removed.
    bool Get(void* buffer, unsigned long length);
    /// Stores the first `length` bytes of a new value: deferred (write false, kept in an
    /// owned cache until the next WriteToNAND) or at once (write true, only those bytes
    /// are written). False when `length` exceeds the item's size.
    bool Set(void* buffer, unsigned long length, bool write);
    /// Writes the default value over the item at once. False for an item of size 0.
    bool Reset();
    /// Carries pending changes (header record, size, offset, value) to the stores in a
    /// fixed order; maxLength 0 means the whole item. True when nothing is pending.
    bool WriteToNAND(unsigned long maxLength);
    /// Consulted first by Get; always true.
    bool checkDataValidity();

private:
    PM_HIDDEN bool readBody(unsigned long offset, void* buffer, unsigned long size);
    PM_HIDDEN bool fail(const char* format, ...) __attribute__((format(printf, 2, 3)));
    PM_HIDDEN void dropCache();
    PM_HIDDEN unsigned char* dataToWrite(bool& ownsData, bool& ok);
    PM_HIDDEN bool writeValue(unsigned long maxLength);

    int32_t id;
    uint32_t newSize;
    uint32_t newOffset;
    unsigned char* cache;
    bool changed;
    bool cacheBorrowed;
    _tAdjDataExtHeader header;
    CAdjustPreference* headerStore;
    CAdjustPreference* bodyStore;
};
