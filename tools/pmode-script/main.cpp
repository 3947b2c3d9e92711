// pmode-script: reads a production script the way the camera does and prints the
// commands in the order they would run, loops carried out (up to a bound).
//
//   pmode-script [--max N] SCRIPT
//
// SCRIPT is a host path (no root mapping). Exit status 0 when the script loads.
#include "ProductionMode.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int usage()
{
    std::fprintf(stderr, "usage: pmode-script [--max N] SCRIPT\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    long limit = 1000;
    const char* path = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--max") == 0 && i + 1 < argc) {
            limit = std::strtol(argv[++i], nullptr, 10);
        } else if (argv[i][0] == '-') {
            return usage();
        } else {
            path = argv[i];
        }
    }
    if (path == nullptr || limit < 1) return usage();

    // The script is a file of this machine: read it without the device-root mapping.
    unsetenv("PMODE_ROOT");
    CProductionScript script;
    if (!script.Mount(path)) {
        std::fprintf(stderr, "pmode-script: cannot load %s (missing, empty or unreadable)\n", path);
        return 1;
    }
    long count = 0;
    for (; count < limit; ++count) {
        script.Parsing();
        _tPM_Command command = script.Read();
        if (command == -1) break;
        std::string line = command.szWorker;
        for (int p = 0; p < command.nParamCount; ++p) line += std::string(" ") + command.szParam[p];
        std::printf("%4ld  %s\n", count + 1, line.c_str());
    }
    if (count == limit) std::printf("... stopped after %ld commands (a loop that does not end?)\n", limit);
    else std::printf("%ld commands\n", count);
    return 0;
}
