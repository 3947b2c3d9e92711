#pragma once
// Runs the built command-line programs (pmode-sim, pmode-pc, pmode-kv) from the tests:
// their path below $PM_TEST_BINARY_DIR, a bounded run capturing output and exit
// status, and a program started in the background.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace pmtool {

inline std::string BinaryDir()
{
    const char* dir = std::getenv("PM_TEST_BINARY_DIR");
    return dir != nullptr ? dir : ".";
}

inline std::string ReadAll(const std::string& path);

/// The source tree: $PM_SOURCE_DIR, else the one the build directory was made from.
inline std::string SourceDir()
{
    if (const char* dir = std::getenv("PM_SOURCE_DIR")) return dir;
    std::string cache = ReadAll(BinaryDir() + "/CMakeCache.txt");
    const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
    size_t at = cache.find(key);
    if (at == std::string::npos) return ".";
    at += key.size();
    return cache.substr(at, cache.find('\n', at) - at);
}

inline std::string Sim()
{
    return BinaryDir() + "/tools/pmode-sim/pmode-sim";
}

inline std::string Pc()
{
    return BinaryDir() + "/tools/pmode-pc/pmode-pc";
}

inline std::string Kv()
{
    return BinaryDir() + "/tools/pmode-kv/pmode-kv";
}

inline std::string ReadAll(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void WriteAll(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

struct Result {
    int status = -1;    ///< exit status; -1 when killed or not run
    std::string output; ///< standard output and error
};

/// Starts argv[0] with arguments, output to a file; the process id (or -1).
inline pid_t Start(const std::vector<std::string>& args, const std::string& outputFile)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

/// Waits up to seconds for the process; kills it (SIGKILL) past that. Its exit status, or -1.
inline int Wait(pid_t pid, double seconds)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "process " << pid << " did not end within " << seconds << " s";
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Runs a program to its end (at most seconds) and returns its status and output.
inline Result Run(const std::vector<std::string>& args, const std::string& scratchDir, double seconds = 60)
{
    static int counter = 0;
    std::string outputFile = scratchDir + "/run-output-" + std::to_string(++counter) + ".txt";
    Result result;
    pid_t pid = Start(args, outputFile);
    if (pid < 0) {
        ADD_FAILURE() << "cannot start " << args[0];
        return result;
    }
    result.status = Wait(pid, seconds);
    result.output = ReadAll(outputFile);
    return result;
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
