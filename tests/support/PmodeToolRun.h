#pragma once
// Runs the built tools (pmode-sim, pmode-pc, pmode-kv, adjtool) by their names and checks their status and output.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace pmtool {

inline std::string Source(const std::string& path) { return std::string(std::getenv("PM_SOURCE_DIR")) + "/" + path; }

/// Puts the built tools first on a shell command's PATH (in a cross build, emulated-tools runs them under the emulator).
inline const std::string kToolsFirst = "PATH=$PM_TEST_BINARY_DIR/emulated-tools:$PM_TEST_BINARY_DIR/tools/pmode-sim:"
                                       "$PM_TEST_BINARY_DIR/tools/pmode-pc:$PM_TEST_BINARY_DIR/tools/pmode-kv:"
                                       "$PM_TEST_BINARY_DIR/tools/adjtool:$PM_TEST_BINARY_DIR/tools/pmode-station:$PATH ";

struct Result { int status = -1; std::string output; }; // status: the exit status, -1 when it did not end by itself

/// Runs a command line (words without shell meaning), killed after 60 s; output through a pipe, which no file size limit cuts.
inline Result Run(const std::string& commandLine)
{
    Result result;
    FILE* pipe = popen((kToolsFirst + "timeout -s KILL 60 " + commandLine + " 2>&1").c_str(), "r");
    char chunk[4096];
    for (size_t got; pipe != nullptr && (got = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) result.output.append(chunk, got);
    const int status = pipe != nullptr ? pclose(pipe) : -1;
    result.status = status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

/// A run (its command line also names it in failures), its exit status, texts its output holds and does not hold.
struct Expected { std::string commandLine; int status; std::vector<std::string> output, absent = {}; };

inline void Check(const Expected& expected, const Result& result)
{
    SCOPED_TRACE(expected.commandLine);
    EXPECT_EQ(result.status, expected.status) << result.output;
    for (const std::string& text : expected.output) EXPECT_NE(result.output.find(text), std::string::npos) << text << "\n" << result.output;
    for (const std::string& text : expected.absent) EXPECT_EQ(result.output.find(text), std::string::npos) << text << "\n" << result.output;
}

/// Runs the command lines in turn, each checked; the output of the last.
inline std::string ExpectRuns(const std::vector<Expected>& runs)
{
    Result result;
    for (const Expected& run : runs) Check(run, result = Run(run.commandLine));
    return result.output;
}

/// How often needle occurs in text.
inline int Count(const std::string& text, const std::string& needle)
{
    int count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size())) ++count;
    return count;
}

} // namespace pmtool
