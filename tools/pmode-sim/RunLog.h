#pragma once
// What a person and a machine see of a run of pmode-sim: every command run by a
// worker (group, words, result, time taken, the worker's notes), shown as it ends,
// a summary at the end, and the same as a JSON report.
//
// Begin/End are called by the observing workers on the controller's thread; Note
// may come from any thread (it is exported to the plug-ins as pmode_sim_note).

#include "_tPM_Command.h"

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

struct CommandRecord {
    int index = 0;         ///< 1-based, in the order run
    std::string group;     ///< the worker that ran it
    std::string text;      ///< the command's words
    bool protocol = false; ///< a protocol operation of the host link (nArg/pData set)
    uint32_t args[4] = {0, 0, 0, 0};
    int result = 0;  ///< Execute's result; negative: failed
    double ms = 0.0; ///< time taken
    std::vector<std::string> notes;
    bool Passed() const { return result >= 0; }
};

/// Facts about the run that go into the summary and the report.
struct RunFacts {
    std::string mode;     ///< "script", "host-link" or "none"
    std::string root;     ///< the device root directory
    std::string script;   ///< device path of the script (script mode)
    int resumeStep = 0;   ///< line value 135 at the start
    std::string ending;   ///< how the run ended ("end of the script", "stopped", "timed out", ...)
    bool aborted = false; ///< timed out or interrupted: the run did not come to its end
    double seconds = 0.0;
    int exitStatus = 0;
    std::vector<std::string> preflight; ///< the checker's findings on the card's script
    unsigned long failedChecks = 0;     ///< "Assertion Failed!" reports of the run (not the pre-flight's)
    std::vector<std::string> faults;    ///< why the run is no pass, besides a failing command
};

class RunLog {
public:
    static RunLog& Get();

    /// Where the command lines go (stdout by default; null: nowhere).
    void SetOutput(FILE* out) { m_out = out; }

    void Begin(const std::string& group, const _tPM_Command& command);
    void End(int result, double ms);
    void Note(const char* text);

    std::vector<CommandRecord> Records();
    int Failed();
    /// The first failing command into out; false when none failed.
    bool FirstFailure(CommandRecord& out);

    /// "run PASSED|FAILED: ...", the failing command and the faults, to out.
    void PrintSummary(const RunFacts& facts, FILE* out);
    /// The JSON report; false when the file cannot be written.
    bool WriteJson(const RunFacts& facts, const std::string& path);

private:
    RunLog() = default;

    std::mutex m_mutex;
    std::vector<CommandRecord> m_records;
    CommandRecord m_current;
    bool m_running = false;
    FILE* m_out = stdout;
};
