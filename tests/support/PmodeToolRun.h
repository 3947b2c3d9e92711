#pragma once
// Runs the built command-line tools (pmode-sim, pmode-pc, pmode-kv, adjtool), which
// including this puts first on the PATH, and checks their exit status and output.

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace pmtool {

/// A path in the build tree, and one in the source tree.
inline std::string Built(const std::string& path) { return std::string(std::getenv("PM_TEST_BINARY_DIR")) + "/" + path; }
inline std::string Source(const std::string& path) { return std::string(std::getenv("PM_SOURCE_DIR")) + "/" + path; }

inline const bool kToolsOnPath = [] {
    std::string path = std::getenv("PATH") != nullptr ? std::getenv("PATH") : "/usr/bin:/bin";
    for (const char* tool : {"pmode-sim", "pmode-pc", "pmode-kv", "adjtool"}) path = Built("tools/") + tool + ":" + path;
    return setenv("PATH", path.c_str(), 1) == 0;
}();

struct Result {
    int status = -1;    ///< exit status; -1 when it did not end by itself
    std::string output; ///< standard output and error
};

/// Runs a command line (words without shell meaning) to its end, killed after 60 s.
/// The output comes through a pipe, so a file size limit of the test does not cut it.
inline Result Run(const std::string& commandLine)
{
    Result result;
    FILE* pipe = popen(("timeout -s KILL 60 " + commandLine + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return result;
    char chunk[4096];
    for (size_t got; (got = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) result.output.append(chunk, got);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

/// Expects every part in the text; a missing one is named with the whole text.
inline void ExpectHas(const std::string& text, const std::vector<std::string>& parts)
{
    for (const std::string& part : parts) EXPECT_NE(text.find(part), std::string::npos) << "missing: " << part << "\n" << text;
}

/// A command line, the exit status it ends with and texts its output holds.
struct Expected {
    std::string commandLine;
    int status;
    std::vector<std::string> output;
};

/// Runs the command lines in turn, each checked; their results.
inline std::vector<Result> ExpectRuns(const std::vector<Expected>& runs)
{
    std::vector<Result> results;
    for (const Expected& run : runs) {
        SCOPED_TRACE(run.commandLine);
        results.push_back(Run(run.commandLine));
        EXPECT_EQ(results.back().status, run.status) << results.back().output;
        ExpectHas(results.back().output, run.output);
    }
    return results;
}

/// Counts the lines of text that contain needle.
inline int CountLines(const std::string& text, const std::string& needle)
{
    std::istringstream lines(text);
    int count = 0;
    for (std::string line; std::getline(lines, line);) count += line.find(needle) != std::string::npos ? 1 : 0;
    return count;
}

} // namespace pmtool
