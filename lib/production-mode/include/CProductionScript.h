#pragma once
// A production script held in memory: its lines, labels and counted goto loops,
// read out one command at a time.
//
// Text model: lines end with "\n" (a "\r" before it is dropped); at most the
// first 509 bytes of a line are seen; words are separated by runs of spaces and
// tabs, but a line has words only if it holds at least one space; a word is at
// most 49 bytes (a longer one counts as missing). Lines whose first word starts
// with "//" (more exactly: begins with "/" and contains "//"), blank lines and
// lines without a space are passed over.
//
// The object has no lock: one thread at a time (the controller's thread while a
// script runs). Parsing(const char*) touches no state and may be called anywhere.

#include "ProductionModeExport.h"

#include "_tPM_Command.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Kinds of script line, kept in nLogicType.
enum {
    LOGIC_NONE = 0,  ///< an ordinary command, or no command
    LOGIC_LABEL = 1, ///< "label NAME"
    LOGIC_GOTO = 5,  ///< "goto NAME COUNT"
};

class PM_EXPORT CProductionScript {
public:
    CProductionScript();
    ~CProductionScript();
    CProductionScript(const CProductionScript&) = delete;
    CProductionScript& operator=(const CProductionScript&) = delete;

    // --- Text model -------------------------------------------------------

    /// Loads and indexes the script file at a device path and moves to its first
    /// command line. An unreadable path keeps (and re-indexes) the text loaded
    /// earlier; an empty file changes nothing. True when a text is loaded and indexed.
    bool Mount(const char* path);
    /// Forgets the text and its indexes. Always true.
    bool Unmount();
    /// Builds the line table and the label map of the loaded text.
    bool setLineOffset();
    /// Copies line `line` (at most 509 bytes, without its line end) into out
    /// (510 bytes, zeroed by the caller); out is left alone for an empty last line
    /// or an index out of range. Always true.
    bool get1LineString(char* out, int line);
    /// Copies word `index` (0 = first) of `line` into out (50 bytes, zeroed by the
    /// caller, no NUL written). False when the word is missing or over 49 bytes.
    bool getParam(const char* line, int index, char* out);
    /// Joins words first..last of `line` with single spaces into out (510 bytes).
    /// False when first >= last or nothing (or over 509 bytes) was joined.
    bool sumRemainString(int first, int last, const char* line, char* out);
    /// Moves forward (direction > 0) or backward (< 0) until the current line is a
    /// command line. True when it stopped on one.
    bool skipComment(int direction);
    /// Moves to the next command line. False at the end.
    bool nextLine();
    /// Moves to the previous command line (line 0 is not examined). False at the start.
    bool prevLine();
    /// True when the current line is at or past the line count.
    bool isEOF();

    // --- Commands and control flow ----------------------------------------

    /// Parses the current line into tCommand and sets nLogicType.
    void Parsing();
    /// Parses a line given from outside (a host message); touches no state.
    _tPM_Command Parsing(const char* line);
    /// True when the current line's first word is a keyword.
    bool isLogicOperation();
    /// The next command to run (an empty command at the end of the script), with
    /// labels passed over and goto lines carried out. Call Parsing() before it.
    /// A goto that cannot be carried out (unknown label, no count), and a loop of
    /// gotos that would run for ever without reaching a command, are reported as a failed check and Read gives the
    /// empty command, which ends the run.
    _tPM_Command Read();
    /// Jumps to a label, counting down a running goto loop. True when the jump was
    /// made or the loop has ended.
    bool GotoLabel(const char* label);
    /// The line index of a label, -1 when unknown.
    int findLabel(const char* label);

private:
    PM_HIDDEN bool isCommandLine(int line);
    /// Where a line starts in the text ("" for a line out of range or no text).
    PM_HIDDEN const char* lineText(int line) const;
    /// Spots a repeated state among the jumps of one Read (Brent's cycle search:
    /// the state saved at power-of-two steps is compared with every later one).
    struct LoopWatch {
        int savedLine = -1;
        int savedCount = 0;
        uint64_t steps = 0;
        uint64_t limit = 1;
        /// True when (line, count) equals the saved state.
        PM_HIDDEN bool Repeats(int line, int count);
    };
    /// GotoLabel for the goto just parsed; false also when it closes an endless
    /// loop that holds no command.
    PM_HIDDEN bool carryOutGoto(LoopWatch& watch);
    int lineCount() const { return static_cast<int>(vecLineOffset.size()); }

    int nCurLine;
    char* pBuffer;
    int nLoopCount;
    std::vector<unsigned int> vecLineOffset;
    std::map<std::string, unsigned int> mapLabel;
    _tPM_Command tCommand;
    int nLogicType;
};
