// pmode-sim: the simulated camera body.
//
//   pmode-sim check [--max N] [--quiet] SCRIPT
//       checks a production script without running anything (see ScriptChecker.h);
//       N (1 to 1000000, default 100) bounds the resolved run; exit status 1 when it
//       finds an error (a directory, an unreadable or a binary file is one), 0
//       otherwise, 2 for bad usage.
//   pmode-sim [run] [options]
//       runs the card as the camera would (see SimRun.h).
#include "ScriptChecker.h"
#include "SimRun.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr long kMaxBound = 1000000;

int checkUsage()
{
    std::fprintf(stderr, "usage: pmode-sim check [--max N] [--quiet] SCRIPT   (N: 1 to %ld)\n", kMaxBound);
    return 2;
}

/// A whole decimal number from low to high; false for anything else.
bool parseBound(const char* text, long& value)
{
    errno = 0;
    char* end = nullptr;
    value = std::strtol(text, &end, 10);
    return end != text && *end == '\0' && errno == 0 && value >= 1 && value <= kMaxBound;
}

int runCheck(int argc, char** argv)
{
    long bound = 100;
    bool quiet = false;
    const char* path = nullptr;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--max") == 0 && i + 1 < argc) {
            if (!parseBound(argv[++i], bound)) return checkUsage();
        }
        else if (std::strcmp(argv[i], "--quiet") == 0) quiet = true;
        else if (argv[i][0] == '-' || path != nullptr) return checkUsage();
        else path = argv[i];
    }
    if (path == nullptr) return checkUsage();

    std::string text, error;
    if (!ReadScriptFile(path, text, error)) {
        std::fprintf(stderr, "%s: error: %s\n", path, error.c_str());
        return 1;
    }

    // The script is a file of this machine: the reader opens it without the device-root mapping.
    unsetenv("PMODE_ROOT");
    RegisterGroupProbes();
    ScriptChecker checker(RegistryResolver(), true, static_cast<int>(bound));
    CheckResult result = checker.Check(text, path);
    ScriptChecker::Print(result, path, !quiet, stdout);
    return result.Errors() > 0 ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc >= 2 && std::strcmp(argv[1], "check") == 0) return runCheck(argc - 2, argv + 2);
    if (argc >= 2 && std::strcmp(argv[1], "run") == 0) return RunSimulator(argc - 2, argv + 2);
    return RunSimulator(argc - 1, argv + 1);
}
