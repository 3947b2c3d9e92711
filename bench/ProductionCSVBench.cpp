// Result tables: opening a table that already holds many lines (the next index comes
// from its last line) beside one read of the file, and appending one data line.
#include "BenchSupport.h"
#include "CAdjustDataManager.h"
#include "CProductionCSV.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using pmbench::Root;

/// The device root with a started adjust store that holds a CIS serial number.
void prepareDevice()
{
    static const bool prepared = [] {
        Root();
        CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
        adjust->Initialize();
        int serial = 777;
        if (!adjust->SetData(27, &serial, sizeof serial, true)) std::abort();
        return true;
    }();
    (void)prepared;
}

void writeTable(const std::string& hostPath, int lines)
{
    std::ofstream out(hostPath, std::ios::binary | std::ios::trunc);
    out << "Index,CIS S/N,ITEM,VALUE\r\n";
    for (int i = 0; i < lines; ++i) out << i << ",777,shutter_speed_" << i << ",OK\r\n";
}

void BM_CreateOnExistingTable(benchmark::State& state)
{
    prepareDevice();
    const std::string file = Root().Host("/mnt/mmc/big.csv");
    writeTable(file, static_cast<int>(state.range(0)));
    std::vector<unsigned char> buffer(std::filesystem::file_size(file) + 1);
    pmbench::AgainstFloor(
        state,
        [&] {
            CProductionCSV table;
            if (table.Create("big.csv", "ITEM,VALUE") != 0) state.SkipWithError("Create failed");
            table.Close();
        },
        [&] { benchmark::DoNotOptimize(pmbench::ReadWhole(file, buffer)); });
}
BENCHMARK(BM_CreateOnExistingTable)->Arg(1000)->Arg(100000)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_WriteDataLine(benchmark::State& state)
{
    prepareDevice();
    std::remove(Root().Host("/mnt/mmc/lines.csv").c_str());
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
