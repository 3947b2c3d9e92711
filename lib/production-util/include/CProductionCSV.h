#pragma once
// A result table of a production run, written as comma-separated lines:
//
//   Index,CIS S/N,<caller's header>\r\n          first line of a new file
//   <index>,<CIS serial>,<caller's text>\r\n      one data line
//
// The index runs from 0 and, in an existing file, continues after the index of
// its last line; the CIS serial number is adjust item 27 (ADJUST_CIS_SN), read
// for every data line. In script mode the table is a file under a directory
// ("/mnt/mmc/" unless SetFilePath changes it), appended to across runs. While
// the factory PC drives the run (OP_TYPE_PTP) no file is written: the table
// ("<file name>\r\n" then the lines) is collected in memory and Close hands it to
// CPTPAdjInterface, which sends it with the answer to the PC's request.
//
// An object is used by one thread at a time (a worker's); it holds no lock.
//
// Decisions of this implementation:
//  - The file is written unbuffered, so a full or failing card shows at once: the
//    line gets 18, whatever part of it reached the card is cut off again and the
//    file size does not grow. A header
//    that cannot be written makes Create return 18 and close the file.
//  - A line whose end-of-file seek fails (a file that cannot seek, such as a
//    pipe) is not written, keeps its index and answers 0, with an error log; the
//    file size counts only bytes that reached the file.
//  - A stream whose position cannot be taken in Create is closed before 18 is
//    returned; a second Create closes the stream of the first, and the destructor
//    closes a file left open, so no stream leaks.
//  - When the index cannot be taken from an existing file (it cannot be read, it
//    holds 2 bytes or fewer, or its last index field is empty or longer than 11
//    characters) the failed check is reported and numbering starts at 0. A last
//    line without any comma counts as index 0, so the next line gets 1.
//  - The index is a signed 32-bit number. A table whose last index leaves no
//    next one (2147483647, or an 11-digit field beyond the range) is refused:
//    Create answers 18 with an error log and writes nothing, so the operator sees
//    the station fail and starts a new table, rather than getting wrapped or
//    repeated indices that no longer tell the lines apart. Once index 2147483647
//    has been used, further lines get 18 the same way.
//  - Write's length estimate walks the format as the camera always has: only the
//    one character after each '%' counts (d i o u x X c, e f g E G, s, and "l"
//    before f e g E G; anything else advances nothing), so "%.3s" adds no string
//    and "l" before anything else is a failed check (19). Where that walk would
//    take a number for the last string (a format with widths or other
//    modifiers), the argument it names counts only if it really is a string, so
//    no number is ever read as an address. The text itself is formatted bounded
//    to 4095 characters; a longer result is a failed check (19). A null string
//    argument counts as empty.
//  - An unreadable CIS serial number (adjust data not initialised) is a failed
//    check: the data line is not written and gets 18 (its index is used up).

#include "ProductionModeExport.h"

#include <cstdint>
#include <cstdio>
#include <string>

/// Result codes of Create, Write and write.
enum {
    PM_CSV_OK = 0,            ///< done (also when a host-link line was dropped)
    PM_CSV_FILE_ERROR = 18,   ///< no file open, or it could not be opened, measured or written
    PM_CSV_LENGTH_ERROR = 19, ///< Write: the estimated text length is not 1 to 4095
};

class PM_EXPORT CProductionCSV {
public:
    CProductionCSV();
    /// Closes a file left open and releases the strings.
    virtual ~CProductionCSV();
    CProductionCSV(const CProductionCSV&) = delete;
    CProductionCSV& operator=(const CProductionCSV&) = delete;

    /// Replaces the directory put before file names (must end with "/"). Always true.
    bool SetFilePath(std::string directory);
    /// Starts a table: opens or creates directory + name (a new file gets the header
    /// line) and positions the index; in host-link mode starts the collected text.
    int Create(std::string name, std::string header);
    /// Formats one data line's text (at most 4095 characters) and writes it.
    int Write(const char* format, ...) __attribute__((format(printf, 2, 3)));
    /// Writes one header line (header true) or one data line.
    int write(std::string text, bool header);
    /// The index of the next data line, taken from the open file's last line; -1
    /// (reported) when it does not fit 32 bits.
    int32_t getLineIndex();
    /// Closes the file; in host-link mode hands the collected table to the PC.
    void Close();
    /// A copy of the table collected in host-link mode.
    std::string GetCSVData4PTPTrans();

private:
    /// The end of the open file from the start of its last line (or more), so the
    /// last index is found without reading a long table whole.
    PM_HIDDEN bool readTail(std::string& tail);
    /// The index after the open file's last line, not limited to 32 bits.
    PM_HIDDEN int64_t nextLineIndex();

    int64_t nLineIndex;      ///< index of the next data line; past INT32_MAX when none is left
    std::string strPTPData;  ///< the table collected in host-link mode
    FILE* fpCSV;             ///< the open table file (script mode); null when none
    int32_t nFileSize;       ///< bytes in the file
    std::string strFilePath; ///< directory put before file names
};
