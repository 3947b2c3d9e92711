#pragma once
// The common ground of the demo worker plug-ins of pmode-sim: one worker per
// group, each doing believable simulated device work with the library's services
// (adjust data, result CSV, transfer interface, adjust results).
//
// A failure can be provoked from the script: any parameter "fail" makes the step
// fail the way a real one would (an out-of-tolerance measurement writes a failed
// process mark and result; other steps just report the failure).
//
// Answers to the factory PC: in host-link mode a command leaves at most one answer
// (a result table, an adjust result, a response, a data block or a file); when it
// leaves none the controller answers for it.

#include "IPModeWorker.h"
#include "_tPM_Command.h"

#include <cstdint>
#include <string>
#include <vector>

/// Line values (adjust data ids 134 to 143) that the demo workers use.
enum DemoLineId {
    LINE_CONTROL_FINISHED_STEP = 134, ///< the last adjust step finished
    LINE_CONTROL_NEXT_STEP = 135,     ///< the step a production script resumes at
    LINE_ADJ_RESULT = 137,            ///< the adjust result of the current worker
    LINE_PTP_AUTO_ENABLE = 139,       ///< 1: the host link starts by itself
};

class DemoWorker : public IPModeWorker {
public:
    /// group: the worker group served ("UI", "CAP", ...), a string literal.
    explicit DemoWorker(const char* group);

    /// Runs the command through Run(); reports a provoked failure.
    int Execute(_tPM_Command* command) final;

protected:
    /// The worker's own command routine; negative for a failed command.
    virtual int Run(_tPM_Command& command) = 0;

    /// True while the command being run carries the parameter "fail".
    bool Provoked() const { return m_provoked; }
    /// True when the factory PC drives the run.
    static bool HostLink();

    /// Parameter i of the command ("" past the last one).
    static std::string Param(const _tPM_Command& command, int i);
    /// The command's words joined by spaces, for messages.
    static std::string Text(const _tPM_Command& command);
    /// Parameter i as a number (default when missing or not a number).
    static long Number(const _tPM_Command& command, int i, long fallback);

    /// Writes a one-byte process mark: '&' passed, '^' failed; saved at once.
    static bool SetProcessMark(int id, bool passed);
    /// True when the process mark holds '&'.
    static bool ProcessMarkPassed(int id);
    static bool SetValue16(int id, uint16_t value, bool sync);
    static bool SetValue32(int id, uint32_t value, bool sync);
    static uint32_t GetValue32(int id);
    static uint16_t GetValue16(int id);

    /// Appends lines to a result table on the card (name.csv, created with its
    /// header when new). In host-link mode the table goes to the PC as this
    /// command's answer, so it is sent only for a passing step. 0 or the CSV's code.
    static int WriteResult(const std::string& file, const std::string& header, const std::vector<std::string>& rows,
                           bool passed);

    /// Ends an adjustment step: process mark, adjust result (answered to the PC in
    /// host-link mode when respond is set), and the step's result for Execute.
    int FinishAdjustment(int markId, bool passed, bool respond);

    /// Unused parameter words, e.g. a sub-command no branch serves.
    int Unknown(const _tPM_Command& command);

private:
    bool m_provoked = false;
};
