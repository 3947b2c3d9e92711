#pragma once
// The process-wide owner of all adjust (calibration) data and of the line data.
//
// Ids below 134 address adjust items (0 to 132, see AdjustDataList.h); ids 134 to 143
// address the ten line values of preference group 1. Twelve country-dependent items
// (70 to 76, 95 to 98, 101) are not read from storage: GetData answers them from the
// shipment-country table, by the code that item 69 holds.
//
// Initialize, Finalize, GetData, SetData and ResetData hold the manager's one mutex for
// their whole run, storage writes included; any thread may call them. The header,
// re-arrangement and line-data operations below are reached only from inside those
// (the caller holds the lock); they are public so that the tests and tools of this
// project can drive the steps one by one on a single thread.
//
// Decisions of this implementation:
//  - A shipment-country code of 143 or more has no row in the table: GetData of a
//    country-derived id then answers false and leaves the buffer untouched.
//  - GetData of a country-derived id copies at most the answer's own length (4 bytes,
//    3 for id 101 with its terminating NUL), whatever length is asked for.
//  - find(id) checks the id of the entry it picks by index; when the list does not hold
//    ids 0..132 one per item (a stray record before id 0), it falls back to a search by
//    id, so it never hands out another id's item. Null entries sort last.
//  - Initialize treats a group whose area lengths are out of range (negative, past the
//    area's capacity) or whose records point past the body area as having no adjust data:
//    it reports the fact, empties both areas and builds a fresh store from the catalogue,
//    so that no store operation reaches outside the group. Only one empty area (the other
//    one holding bytes) is handled the same way.
//  - allocateID goes on with the remaining catalogue rows after a row it cannot place and
//    answers false at the end.
//  - sync stops at the first item whose write fails (a failed check) and answers false
//    without saving the group.

#include <vector>

#include "fx_os.h"

class CAdjustData;
class CAdjustPreference;

class CAdjustDataManager {
public:
    /// Whether the block stores prepare the snapshot-boot image when they change.
    enum E_OP_MODE {
        OP_MODE_SNAPSHOT = 0,
        OP_MODE_NO_SNAPSHOT = 1,
    };

    /// The single instance, built on the first call. Any thread.
    static CAdjustDataManager* GetInstance();

    /// Mounts the header and body areas of preference group 3, loads the items, matches
    /// them to the catalogue and re-lays the store when needed; builds a fresh store from
    /// the catalogue when the group holds none. Does nothing while stores exist. Locks.
    void Initialize();
    /// Drops every item and both stores; Initialize can run again afterwards. Locks.
    void Finalize();
    /// Selects snapshot making on the stores that exist now. No lock; any thread.
    void SetMode(E_OP_MODE mode);

    /// Copies up to length bytes of item or line value id into buffer (line ids: length 4
    /// only). False when the item is unknown or the read fails. Locks; any thread.
    bool GetData(int id, void* buffer, unsigned long length);
    /// Stores length bytes of buffer into item or line value id; with sync the value and
    /// every other pending change are written and the group saved at once. Locks.
    bool SetData(int id, void* buffer, unsigned long length, bool sync);
    /// Writes the default over item id (the whole adjust group when the item is missing
    /// or its reset fails); any id from 134 resets all ten line values. Locks.
    bool ResetData(int id);

    /// Saves the whole adjust group to a file of the preference store's framing, after
    /// a synced write of item 0. No lock of its own; any thread.
    bool DumpData2File(char* path);
    /// Replaces the adjust group by a file written by DumpData2File and starts the
    /// manager again on it (matched to this catalogue and saved). On a refused file the
    /// manager stays finalised. No lock of its own; any thread.
    bool LoadDataFromFile(char* path);

    /// The item of an id, or null. Caller holds the lock.
    CAdjustData* find(int id);
    /// The last item whose stored name equals name, or null. Caller holds the lock.
    CAdjustData* find(char const* name);

    /// Loads one item per stored header record. Caller holds the lock.
    bool readAdjustHeaderInfo();
    /// Gives the items their catalogue ids by name, adds missing rows at the end, marks
    /// unclaimed records for deletion. Caller holds the lock.
    bool allocateID();
    /// Offset and size of the item stored last in the body area (pass both as 0); false
    /// when no item lies beyond offset 0. Caller holds the lock.
    bool findLastOriginalOffset(unsigned long& lastOffset, unsigned long& lastSize);
    /// Builds a fresh item list from the catalogue; with sync writes it out. Caller holds
    /// the lock.
    bool makeAdjustHeaderInfo(bool sync);
    /// Re-plans positions and offsets from the first changed item on and syncs; does
    /// nothing when the store matches the catalogue. Caller holds the lock.
    void arrangeData();
    /// Recomputes record positions and body offsets from index first on. Caller holds
    /// the lock.
    void reallocateOffset(int first);
    /// Writes every changed item, in header-record order, and saves group 3. Caller holds
    /// the lock.
    bool sync();

    /// The key in preference group 1 of a line id (134 to 143). Caller holds the lock.
    unsigned long getLineDataOffset(int id);
    /// The value of a line id; loads group 1 on first use. Caller holds the lock.
    long readLineData(int id);
    /// Sets the value of a line id, saving group 1 when save is set. Caller holds the lock.
    bool writeLineData(int id, long value, bool save);

    CAdjustDataManager(const CAdjustDataManager&) = delete;
    CAdjustDataManager& operator=(const CAdjustDataManager&) = delete;

private:
    CAdjustDataManager();
    ~CAdjustDataManager();

    std::vector<CAdjustData*> items;       ///< owned; header-record order, added items last
    std::vector<CAdjustData*> sortedItems; ///< not owning; items sorted by id, built on lookup
    CAdjustPreference* headerStore;        ///< owned; header area of group 3, null while not initialised
    CAdjustPreference* bodyStore;          ///< owned; body area of group 3, null while not initialised
    bool lineLoaded;                       ///< preference group 1 has been loaded
    fx_mutex_t mutex;                      ///< the one lock of the adjust data
};
