// Loading and reading a production script of realistic size.
#include "CProductionScript.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

std::string MakeScript(int steps)
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

std::string WriteTemp(const std::string& text)
{
    char path[] = "/tmp/pmode-bench-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) std::abort();
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
    close(fd);
    return path;
}

void BM_MountAndIndex(benchmark::State& state)
{
    unsetenv("PMODE_ROOT");
    const std::string path = WriteTemp(MakeScript(static_cast<int>(state.range(0))));
    for (auto _ : state) {
        CProductionScript script;
        benchmark::DoNotOptimize(script.Mount(path.c_str()));
    }
    unlink(path.c_str());
    state.SetItemsProcessed(state.iterations() * state.range(0) * 4);
}
BENCHMARK(BM_MountAndIndex)->Arg(100)->Arg(1000);

void BM_ReadWholeScript(benchmark::State& state)
{
    unsetenv("PMODE_ROOT");
    const std::string path = WriteTemp(MakeScript(static_cast<int>(state.range(0))));
    CProductionScript script;
    for (auto _ : state) {
        script.Mount(path.c_str());
        int commands = 0;
        for (;;) {
            script.Parsing();
            if (script.Read() == -1) break;
            ++commands;
        }
        benchmark::DoNotOptimize(commands);
    }
    unlink(path.c_str());
    state.SetItemsProcessed(state.iterations() * state.range(0) * 2);
}
BENCHMARK(BM_ReadWholeScript)->Arg(100)->Arg(1000);

} // namespace
