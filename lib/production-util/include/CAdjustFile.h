#pragma once
// CAdjustFile: a block store kept in one plain file in "/mnt/ubi1/pref/".
//
// A block store is a growable run of bytes addressed from 0: a range can be read,
// overwritten, opened up (Insert) or closed (Remove), everything behind it moving
// along. CAdjustPreference offers the same operations over an area of preference
// group 3; the two classes share no base class.
//
// Every operation opens the backing file afresh and closes it before it returns.
// Insert and Remove rebuild the file through two temporaries with fixed names,
// "/mnt/ubi1/pref/adj_front.dat" and "/mnt/ubi1/pref/adj_back.dat", shared by all
// instances: the class takes no lock, so at most one Insert or Remove of any
// file-backed store may run at a time (callers serialise). Failures are reported
// only through the results; nothing is printed.
//
// Choices made where the store's contract leaves room:
//  - Insert and Remove stop before emptying the backing file once a step of the
//    first phase has failed (a copy into a temporary, the run of zeros, or
//    flushing a temporary): the backing file keeps its old content, the
//    temporaries are deleted and the result is -3 (-4 when a deletion fails).
//    So an offset past the end of the file, or a full disk while the temporaries
//    are written, changes nothing.
//  - The second phase opens the two temporaries before it empties the backing
//    file; when writing the backing file back fails, the temporaries, which hold
//    its complete new content, stay on disk and the result is -3.
//  - copy() flushes the destination at its end; a failed flush counts as a failed
//    write (-1), so a full disk is seen even when the stream buffered the data.
//    A failure to position the source counts as a failed positioning (-2).
//  - Read and Write of 0 bytes succeed when the file opens and the position is
//    reachable.
//  - Mount refuses (false, empty path) a null name, a name longer than 240
//    characters and the names of the two temporaries.

#include "ProductionModeExport.h"

#include <cstdint>
#include <cstdio>

class PM_EXPORT CAdjustFile {
public:
    /// Empty path, no items.
    CAdjustFile();
    /// Holds no stream: nothing to release.
    ~CAdjustFile();

    /// Attaches "/mnt/ubi1/pref/" + name; true when the file opens, crcCheck holds
    /// and it is not empty (the item count becomes size / 140). The path stays set
    /// even when the result is false. Callers serialise all store calls.
    bool Mount(const char* name);
    /// Detaches the store; nothing to do for a file.
    void Umount();
    /// Whole 140-byte records found by the last successful Mount (0 before any).
    unsigned long GetItemNum();
    /// Always true: plain files carry no validity mark.
    bool crcCheck();

    /// Copies size bytes from offset into buffer; true only when all were read.
    bool Read(unsigned long offset, void* buffer, unsigned long size);
    /// Overwrites size bytes at offset (creating the file, growing it past its end,
    /// a gap reads as zeros); true only when all were written.
    bool Write(unsigned long offset, void* buffer, unsigned long size);
    /// Opens a run of size zero bytes at offset. 0, or -1 (a file could not be
    /// opened), -3 (a copy step failed), -4 (a temporary could not be deleted).
    int Insert(unsigned long offset, unsigned long size);
    /// Deletes size bytes at offset (a range passing the end cuts the file at
    /// offset). Result codes as Insert.
    int Remove(unsigned long offset, unsigned long size);

protected:
    /// Repositions the stream; false when it is null or repositioning fails.
    bool seek(FILE* stream, unsigned long offset, int origin);
    /// The stream's length (it is left at its end); -1 when null or unseekable.
    long getFileSize(FILE* stream);
    /// Copies size bytes from `from` in source to `to` in destination, 1024 at a
    /// time. 0, -1 writing (or flushing) failed, -2 positioning failed, -3 reading
    /// failed, -4 the source is shorter than from + size.
    int copy(FILE* source, FILE* destination, unsigned long from, unsigned long to, unsigned long size);

private:
    /// Second phase of Insert and Remove: the backing file rebuilt from the two
    /// temporaries (device paths). Result codes as Insert.
    PM_HIDDEN int rebuildFrom(const char* frontPath, const char* backPath);

    char m_path[256];
    uint32_t m_itemNum;
};
