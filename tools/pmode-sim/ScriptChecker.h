#pragma once
// The production-script checker: reads a script the way the camera's script
// reader does and reports what an author gets wrong, without running anything.
//
// Findings (each with the 1-based line it concerns):
//  - errors: binary data (a NUL or another control byte than tab, CR and LF: the
//    file is no script, and nothing else is checked), words over 49 bytes, commands without a parameter (they end the run),
//    commands no worker group serves, goto without a label or a count, goto counts
//    that loop forever (0, negative, not a number), counted loops that nest or
//    overlap (one counter for the whole script), unknown goto labels, labels
//    without a name or defined twice, labels the reader never registers (last line
//    without a newline), gaps in the ADJ_00.. resume labels;
//  - warnings: lines the reader passes over that look like commands (no space,
//    words separated only by tabs), words after the 11th, lines over 509 bytes,
//    goto counts with trailing text, forward gotos, a goto right after a label,
//    ADJ labels no resume step can reach (ADJ_5 instead of ADJ_05).
// Then it resolves the run: the commands in the order the reader hands them out,
// loops carried out, each with the worker group that serves it, up to a bound.
//
// The worker group of a command is asked of the registry (CWorkerFactory) through
// a resolver, so the routing tables are never copied here.

#include <functional>
#include <string>
#include <vector>

struct CheckFinding {
    int line = 0;       ///< 1-based line number; 0 for the file as a whole
    bool error = false; ///< error (true) or warning
    std::string message;
};

struct ResolvedCommand {
    std::string text;  ///< the command's words joined by single spaces
    std::string group; ///< the worker group that serves it, "" when none
};

struct CheckResult {
    std::vector<CheckFinding> findings; ///< in line order
    std::vector<ResolvedCommand> run;   ///< the resolved run
    bool runResolved = false;           ///< false when errors keep the run from being resolved
    bool runTruncated = false;          ///< the bound stopped the resolved run (a loop that never ends?)
    std::string runEnd;                 ///< how the resolved run ends, in words
    int Errors() const;
    int Warnings() const;
};

/// The worker group ("UI", "CAP", ...) that serves a command name with its
/// sub-command; "" when no worker does.
using GroupResolver = std::function<std::string(const char* name, const char* subCommand)>;

class ScriptChecker {
public:
    /// probing: the registry holds a probe for every group (RegisterGroupProbes), so
    /// an unserved command is in no group; otherwise it is served by no loaded worker.
    ScriptChecker(GroupResolver resolver, bool probing, int runBound = 100);

    /// Checks the script text; scriptPath is where the camera's reader finds the
    /// same file (a device path under PMODE_ROOT, or a host path when PMODE_ROOT
    /// is unset), used to resolve the run with the reader itself.
    CheckResult Check(const std::string& text, const std::string& scriptPath) const;

    /// Prints "file:line: error|warning: message" lines, then the resolved run
    /// (unless quiet) and a one-line summary.
    static void Print(const CheckResult& result, const std::string& displayName, bool showRun, FILE* out);

private:
    GroupResolver m_resolver;
    bool m_probing;
    int m_runBound;
};

/// Registers one inert worker for each worker group ("UI", "CAP", "LENS", "MENU",
/// "WIFI", "DD", "ETC", and "PENDING" for sub-commands no group takes), so that the
/// registry answers which group serves a command. Only for a process that loads no
/// real workers (the checker).
void RegisterGroupProbes();

/// Reads a script file of this machine whole. False, the reason in error, when it
/// is missing, not a regular file (a directory, say) or cannot be read.
bool ReadScriptFile(const std::string& path, std::string& text, std::string& error);

/// A resolver that asks CWorkerFactory::GetWorker and gives the worker's name.
GroupResolver RegistryResolver();
