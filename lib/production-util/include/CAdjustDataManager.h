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
//  - Initialize builds a fresh store from the catalogue when an area cannot be mounted:
//    its length is 0 or negative, or past the area's capacity (it would overlap the next
//    area); only one empty area (the other holding bytes) counts the same. A record that
//    reaches past the body area is followed all the same: every other item keeps its
//    value, that item's reads fail, and nothing is written while the sizes match the
//    catalogue.
//  - A re-arrangement is carried out only on a layout it can move safely: the stored
//    items lie back to back in record order inside the body area, and neither area
//    outgrows its capacity at any step. Otherwise the start fails (see the recovery rule)
//    and nothing is written.
//  - Every stored record that no catalogue row claims is deleted, a blank one (no name,
//    size 0) too, so no record is left with id -1.
//  - allocateID goes on with the remaining catalogue rows after a row it cannot place and
//    answers false at the end.
//  - sync stops at the first item whose write fails (a failed check) and answers false
//    without saving the group.
//  - GetData of a line value whose group cannot be loaded, or of an id past 143, answers
//    false and leaves the buffer untouched.
//
// Recovery rule. After any failed store step (an item write, a block-store Insert or
// Remove, the save of group 3), the group image in memory may be half-done, and it is
// never saved: the manager drops every item and both stores, reloads group 3 from NAND
// (pref_load) and starts again on that image, within the call that failed, which answers
// false (a failed check is reported). When that start fails too (NAND still refuses, or
// the stored layout cannot be used), the manager stays without items and tries the same
// before each later item call, which answers false until it succeeds; Finalize ends the
// attempts. So a synced SetData that answers true has its value on NAND, NAND always holds
// a whole image the manager wrote or started from, and values set without sync that were
// not yet written are dropped by such a recovery. A start that fails in Initialize or in
// LoadDataFromFile comes back the same way: a loaded file that cannot be started leaves
// the camera's own data in place.

#include "ProductionModeExport.h"

#include <vector>

#include "fx_os.h"

class CAdjustData;
class CAdjustPreference;

class PM_EXPORT CAdjustDataManager {
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
    /// nothing when the store matches the catalogue. False when the layout cannot be
    /// re-arranged or the sync failed. Caller holds the lock.
    bool arrangeData();
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
    PM_HIDDEN CAdjustDataManager();
    PM_HIDDEN ~CAdjustDataManager();

    PM_HIDDEN bool startOnImageInMemory();
    PM_HIDDEN bool start();
    PM_HIDDEN void dropItemsAndStores();
    PM_HIDDEN bool restartFromNand();
    PM_HIDDEN bool readyForItems();
    PM_HIDDEN bool arrangementIsSafe();
    PM_HIDDEN bool syncOrRestart();

    std::vector<CAdjustData*> items;       ///< owned; header-record order, added items last
    std::vector<CAdjustData*> sortedItems; ///< not owning; items sorted by id, built on lookup
    CAdjustPreference* headerStore;        ///< owned; header area of group 3, null while not initialised
    CAdjustPreference* bodyStore;          ///< owned; body area of group 3, null while not initialised
    bool lineLoaded;                       ///< preference group 1 has been loaded
    fx_mutex_t mutex;                      ///< the one lock of the adjust data
};
