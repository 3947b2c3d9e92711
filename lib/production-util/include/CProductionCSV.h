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
//  - A line whose end-of-file seek fails is not written and gets 18 (never a
//    silent loss).
//  - A stream whose position cannot be taken in Create is closed before 18 is
//    returned; a second Create closes the stream of the first, and the destructor
//    closes a file left open, so no stream leaks.
//  - When the index cannot be taken from an existing file (it cannot be read, it
//    holds 2 bytes or fewer, or its last index field is empty or longer than 11
//    characters) the failed check is reported and numbering starts at 0. A last
//    line without any comma counts as index 0, so the next line gets 1.
//  - Write's length estimate understands flags, field width, precision and the
//    h, hh, z, j, t and L length modifiers of the format, so that a format such
//    as "%5d %s" never makes it take a number for a string; "l" must still be
//    followed by f, e, g, E or G (anything else is a failed check and gives 19).
//    A null string argument counts as empty.
//  - An unreadable CIS serial number (adjust data not initialised) is a failed
//    check: the data line is not written and gets 18 (its index is used up).

#include <cstdint>
#include <cstdio>
#include <string>

/// Result codes of Create, Write and write.
enum {
    PM_CSV_OK = 0,         ///< done (also when a host-link line was dropped)
    PM_CSV_FILE_ERROR = 18,///< no file open, or it could not be opened, measured or written
    PM_CSV_LENGTH_ERROR = 19, ///< Write: the estimated text length is not 1 to 4095
};

class CProductionCSV {
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
    /// The index of the next data line, taken from the open file's last line.
    int32_t getLineIndex();
    /// Closes the file; in host-link mode hands the collected table to the PC.
    void Close();
    /// A copy of the table collected in host-link mode.
    std::string GetCSVData4PTPTrans();

private:
    bool readWholeFile(std::string& content);

    int32_t nLineIndex;      ///< index of the next data line
    std::string strPTPData;  ///< the table collected in host-link mode
    FILE* fpCSV;             ///< the open table file (script mode); null when none
    int32_t nFileSize;       ///< bytes in the file
    std::string strFilePath; ///< directory put before file names
};
