// Result tables: opening a table that already holds many lines (the index is
// taken from its last line, which reads the whole file once) and appending one
// data line (CIS serial read from the adjust data, one unbuffered write).
#include "CAdjustDataManager.h"
#include "CProductionCSV.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

/// A simulated device root for the whole program, removed at exit.
class BenchRoot {
public:
    BenchRoot()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "pmode-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        m_dir = pattern;
        setenv("PMODE_ROOT", m_dir.c_str(), 1);
        std::filesystem::create_directories(m_dir + "/mnt/mmc");
        CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
        adjust->Initialize();
        int serial = 777;
        if (!adjust->SetData(27, &serial, sizeof serial, true)) std::abort();
    }
    ~BenchRoot()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }
    std::string Host(const std::string& devicePath) const { return m_dir + devicePath; }

private:
    std::string m_dir;
};

BenchRoot& benchRoot()
{
    static BenchRoot root;
    return root;
}

void writeTable(const std::string& devicePath, int lines)
{
    std::ofstream out(benchRoot().Host(devicePath), std::ios::binary | std::ios::trunc);
    out << "Index,CIS S/N,ITEM,VALUE\r\n";
    for (int i = 0; i < lines; ++i) out << i << ",777,shutter_speed_" << i << ",OK\r\n";
}

void BM_CreateOnExistingTable(benchmark::State& state)
{
    const int lines = static_cast<int>(state.range(0));
    writeTable("/mnt/mmc/big.csv", lines);
    for (auto _ : state) {
        CProductionCSV table;
        if (table.Create("big.csv", "ITEM,VALUE") != 0) state.SkipWithError("Create failed");
        benchmark::DoNotOptimize(table.getLineIndex());
        table.Close();
    }
    state.SetBytesProcessed(state.iterations() *
                            static_cast<int64_t>(std::filesystem::file_size(benchRoot().Host("/mnt/mmc/big.csv"))));
}
BENCHMARK(BM_CreateOnExistingTable)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

void BM_WriteDataLine(benchmark::State& state)
{
    benchRoot();
    std::remove(benchRoot().Host("/mnt/mmc/lines.csv").c_str());
    CProductionCSV table;
    if (table.Create("lines.csv", "ITEM,VALUE") != 0) state.SkipWithError("Create failed");
    int i = 0;
    for (auto _ : state) {
        if (table.Write("%s,%d", "shutter_speed", i++) != 0) state.SkipWithError("Write failed");
    }
    table.Close();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WriteDataLine)->Unit(benchmark::kMicrosecond);

} // namespace
