// The script reader on arbitrary card scripts: the input is the script file.
// It is mounted, then read command by command as the script-mode loop does
// (Parsing, then Read) until the run ends; every command's line also goes
// through the host-line parser and the word joiner. Counted loops may run a
// script for ever, so the number of commands taken is bounded.

#include "CProductionScript.h"
#include "FuzzSupport.h"

#include <cstring>

namespace {

constexpr const char* kScriptPath = "/mnt/mmc/fuzz_script.txt";
constexpr int kMaxCommands = 2000;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    pmfuzz::DeviceRoot& root = pmfuzz::DeviceRoot::Get();
    root.Clear();
    root.Write(kScriptPath, data, size);

    CProductionScript script;
    if (!script.Mount(kScriptPath)) return 0;
    for (int taken = 0; taken < kMaxCommands; ++taken) {
        script.Parsing();
        const _tPM_Command command = script.Read();
        if (command == -1) break;
        char line[PM_LINE_SIZE] = {};
        script.get1LineString(line, taken);
        const _tPM_Command parsed = script.Parsing(line);
        char joined[PM_LINE_SIZE] = {};
        script.sumRemainString(1, parsed.nParamCount, line, joined);
    }
    // Back over the script, then a second mount of the same file and one of a
    // missing file, which keeps the text loaded.
    while (script.prevLine()) {
    }
    script.Mount(kScriptPath);
    script.Mount("/mnt/mmc/missing.txt");
    script.Parsing();
    script.Read();
    script.Unmount();
    return 0;
}
