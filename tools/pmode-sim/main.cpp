// pmode-sim: the simulated camera body.
//
//   pmode-sim check [--max N] [--quiet] SCRIPT
//       checks a production script without running anything (see ScriptChecker.h);
//       exit status 1 when it finds an error, 0 otherwise, 2 for bad usage.
//   pmode-sim [run] [options]
//       runs the card as the camera would (see SimRun.h).
#include "ScriptChecker.h"
#include "SimRun.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace {

int checkUsage()
{
    std::fprintf(stderr, "usage: pmode-sim check [--max N] [--quiet] SCRIPT\n");
    return 2;
}

int runCheck(int argc, char** argv)
{
    long bound = 100;
    bool quiet = false;
    const char* path = nullptr;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--max") == 0 && i + 1 < argc) bound = std::strtol(argv[++i], nullptr, 10);
        else if (std::strcmp(argv[i], "--quiet") == 0) quiet = true;
        else if (argv[i][0] == '-' || path != nullptr) return checkUsage();
        else path = argv[i];
    }
    if (path == nullptr || bound < 1) return checkUsage();

    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "%s: error: cannot open the script\n", path);
        return 1;
    }
    std::stringstream text;
    text << file.rdbuf();

    // The script is a file of this machine: the reader opens it without the device-root mapping.
    unsetenv("PMODE_ROOT");
    RegisterGroupProbes();
    ScriptChecker checker(RegistryResolver(), true, static_cast<int>(bound));
    CheckResult result = checker.Check(text.str(), path);
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
