#pragma once
// CAdjustPreference: the block store over an area of preference group 3, on which
// all adjust data rests, and the preparation of the snapshot boot.
//
// Group 3 as the stores see it: the first marker 0x11 at offset 8, the header
// area's length (signed 32-bit) at 9 and its 140-byte records from 13, the body
// area's length at 51213 and its bytes from 51217, the second marker 0x26 at
// 5,294,097. The adjust data manager mounts the header store with
// Mount(13, 9, pref_get_long(3, 9)) and the body store with
// Mount(51217, 51213, pref_get_long(3, 51213)).
//
// The area is read and written in place in the preference store's image of the
// group (the store owns that memory; Umount and destruction only forget it).
// Insert and Remove move the tail through the temporary file "/tmp/adj_back.dat",
// then store the new length and the area through the preference store's setters.
// Saving the group to NAND is the caller's business (pref_save(3)), except in
// Reset.
//
// Snapshot boot: the first change of a store that has snapshot making selected
// makes the flash partition "/mnt/ubi2" writable (remount when "/proc/mounts"
// lists it as ubifs, otherwise "ubiattach -p /dev/mtd2 -d 2" and mount) and marks
// the adjust data dirty ("echo 1 > /pref/dirty_adj; sync; "). A process-wide flag
// records success, so this happens at most once per process; a failed mount
// leaves the flag clear and a later change, selection or Reset tries again.
//
// No lock is taken here: every caller reaches the stores through the adjust data
// manager, which serialises them with its mutex. Messages go to the debug trace.
//
// Choices made where the store's contract leaves room:
//  - A copy step that fails in Insert or Remove (the tail could not be written to
//    the temporary file, e.g. a full disk) stops the operation before any byte of
//    the area moves: the area, its length and the snapshot state stay as they
//    were, the temporary is deleted, the result is -1.
//  - When the temporary file cannot be created, the failed check is reported and
//    the operation stops with -1, changing nothing.
//  - Insert and Remove on an unmounted store change nothing and return -7.
//  - An Insert whose zero run or grown area would pass the end of group 3's image
//    changes nothing and returns -3 (the setter could not store it). The areas'
//    own capacities (51200 and 5242880 bytes) are the caller's business.
//  - Range checks are made on the exact (64-bit) sum of offset and size, so huge
//    offsets never reach memory outside the area.
//  - A negative stored length counts as an empty area in Insert and GetItemNum.
//  - A second Mount of a mounted store is reported as a failed check and refused
//    (false); the store keeps its first mount.

#include "ProductionModeExport.h"

#include <cstdint>
#include <cstdio>

class PM_EXPORT CAdjustPreference {
public:
    /// Unmounted: no area, length 0, snapshot making off, not modified.
    CAdjustPreference();
    /// Forgets the area; the memory belongs to the preference store.
    ~CAdjustPreference();

    /// Attaches the area of group 3 starting at dataOffset whose length word is at
    /// sizeOffset, of `size` bytes. True when size > 0; mounted all the same when
    /// it is 0 or negative. A store is mounted once.
    bool Mount(unsigned long dataOffset, unsigned long sizeOffset, long size);
    /// Forgets the area.
    void Umount();
    /// Whole 140-byte records in the area (0 for a length of 0 or below).
    unsigned long GetItemNum();
    /// True when group 3's two marker bytes are 0x11 (offset 8) and 0x26 (offset 5,294,097).
    bool crcCheck();

    /// Copies size bytes from offset; false when unmounted or the range passes the area's end.
    bool Read(unsigned long offset, void* buffer, unsigned long size);
    /// Overwrites size bytes at offset in the group's image (never grows the
    /// area); false when unmounted or the range passes the end. A mounted store
    /// counts the call as a change for the snapshot boot even when it fails.
    bool Write(unsigned long offset, void* buffer, unsigned long size);
    /// Opens a run of size zero bytes at offset. 0, or -1 (moving the tail out
    /// failed), -2 (moving it back failed), -3 (pref_set_bytes), -4
    /// (pref_set_long), -6 (the temporary could not be deleted), -7 (unmounted).
    int Insert(unsigned long offset, unsigned long size);
    /// Deletes size bytes at offset. Codes as Insert, and -5 when offset + size
    /// passes the area's end (nothing changes).
    int Remove(unsigned long offset, unsigned long size);

    /// Runs the snapshot-boot command (whatever the selection), then resets group
    /// 3 to its defaults and saves it. Needs no Mount; the store's own fields are
    /// not refreshed.
    void Reset();
    /// Selects whether changes prepare the snapshot boot; selecting it on a
    /// modified store runs the command at once.
    void SelectSnapshotMaking(bool making);
    /// Whether snapshot making is selected.
    bool SnapshotMaking() const { return m_snapshotMaking; }

    /// Called after every change: the first change of the store runs the
    /// snapshot-boot command when snapshot making is selected.
    void prepareSnapshotBoot();
    /// 1 when "/proc/mounts" lists fileSystemType at mountPoint, 0 when not, -1
    /// when "/proc/mounts" cannot be opened.
    int checkMountState(const char* fileSystemType, const char* mountPoint);
    /// Makes "/mnt/ubi2" writable and marks the adjust data dirty, once per
    /// process (until it has succeeded). Blocks while the commands run.
    void prepareSnapshotBootCommand();

protected:
    /// Repositions the stream; false when null or failing ("msg = <error>" is printed then).
    bool seek(FILE* stream, unsigned long offset, int origin);
    /// The stream's length (it is left at its end); -1 when null or unseekable.
    long getFileSize(FILE* stream);
    /// Area bytes [from, from + size) to the file at `to`. 0, -1 writing failed,
    /// -2 positioning failed, -4 the range passes the area, -5 no area.
    int copy(unsigned char* area, FILE* file, unsigned long from, unsigned long to, unsigned long size);
    /// File bytes [from, from + size) into the area at `to`. 0, -1 reading failed,
    /// -2 positioning failed, -4 the range passes the area, -5 no area.
    int copy(FILE* file, unsigned char* area, unsigned long from, unsigned long to, unsigned long size);

private:
    /// Bytes of group 3's image from the area's start to the image's end.
    PM_HIDDEN unsigned long roomInImage() const;
    /// The new length and the area back through the preference store's setters.
    PM_HIDDEN int storeArea(int result);

    int32_t m_size;
    uint32_t m_dataOffset;
    uint32_t m_sizeOffset;
    unsigned char* m_area;
    bool m_snapshotMaking;
    bool m_modified;
};
