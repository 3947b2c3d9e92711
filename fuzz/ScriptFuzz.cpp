// The script reader on arbitrary card scripts: the input is the script file.
// It is mounted, then read command by command as the script-mode loop does
// (Parsing, then Read) until the run ends; every command's line also goes
// through the host-line parser and the word joiner. Counted loops may run a
// script for ever, so the number of commands taken is bounded; and a counted loop
// holding no command runs inside one Read for as many passes as its count says,
// so scripts with counts above kMaxCount are passed over.

#include "CProductionScript.h"
#include "FuzzSupport.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr const char* kScriptPath = "/mnt/mmc/fuzz_script.txt";
constexpr int kMaxCommands = 2000;
constexpr int kMaxCount = 1000;

/// True when a line reads "goto NAME COUNT..." (words split at spaces and tabs,
/// as the reader splits them) with a count above kMaxCount.
bool hasLargeGotoCount(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::vector<std::string> words;
        size_t at = start;
        while (at < end && words.size() < 3) {
            while (at < end && (text[at] == ' ' || text[at] == '\t')) ++at;
            const size_t from = at;
            while (at < end && text[at] != ' ' && text[at] != '\t') ++at;
            if (at > from) words.push_back(text.substr(from, at - from));
        }
        if (words.size() == 3 && words[0] == "goto" && std::atoi(words[2].c_str()) > kMaxCount) return true;
        start = end + 1;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (hasLargeGotoCount(data, size)) return 0;
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
    while (script.prevLine()) {}
    script.Mount(kScriptPath);
    script.Mount("/mnt/mmc/missing.txt");
    script.Parsing();
    script.Read();
    script.Unmount();
    return 0;
}
