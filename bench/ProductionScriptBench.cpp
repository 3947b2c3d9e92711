// A production script of 10,000 commands loaded and read out command by command,
// beside its floor: one read of the same file and one split of it into lines and words.
#include "BenchSupport.h"
#include "CProductionScript.h"

#include <fstream>
#include <string>
#include <vector>

namespace {

using pmbench::Root;

constexpr int kCommands = 10000;

/// Two commands per step, with a label and a comment line between them.
std::string makeScript(int steps)
{
    std::string text = "// generated production script\n";
    for (int i = 0; i < steps; ++i) {
        text += "label ADJ_" + std::to_string(i) + "\n";
        text += "lens init " + std::to_string(i) + "\n";
        text += "// comment line\n";
        text += "shutter speed 1 2 3 4\n";
    }
    return text;
}

/// The floor: the words of every line, found in one pass over text read in one go.
size_t splitLinesAndWords(const std::vector<unsigned char>& text, size_t size,
                          std::vector<std::pair<size_t, size_t>>& words)
{
    words.clear();
    size_t lines = 0;
    for (size_t i = 0; i < size;) {
        const unsigned char c = text[i];
        if (c == '\n') {
            ++lines;
            ++i;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            ++i;
        } else {
            const size_t start = i;
            while (i < size && text[i] != ' ' && text[i] != '\t' && text[i] != '\r' && text[i] != '\n') ++i;
            words.emplace_back(start, i - start);
        }
    }
    return lines + words.size();
}

void BM_MountAndReadEveryCommand(benchmark::State& state)
{
    const std::string path = Root().Host("/mnt/mmc/production.adj");
    const std::string script = makeScript(kCommands / 2);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << script;
    std::vector<unsigned char> buffer(script.size() + 1);
    std::vector<std::pair<size_t, size_t>> words;
    int commands = 0;
    const double seconds = pmbench::AgainstFloor(
        state,
        [&] {
            CProductionScript reader;
            reader.Mount("/mnt/mmc/production.adj");
            commands = 0;
            for (;;) {
                reader.Parsing();
                if (reader.Read() == -1) break;
                ++commands;
            }
        },
        [&] { benchmark::DoNotOptimize(splitLinesAndWords(buffer, pmbench::ReadWhole(path, buffer), words)); });
    if (commands != kCommands) state.SkipWithError("not every command was read");
    state.counters["ns_per_command"] = seconds * 1e9 / kCommands;
}
BENCHMARK(BM_MountAndReadEveryCommand)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
