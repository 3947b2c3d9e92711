// The adjust data manager on a store that matches the catalogue, each operation beside
// its floor: a start from NAND beside one read() of the group file, a synced write
// beside one atomic save of the group, a read beside a mutex round trip and the copy.
#include "AdjustDataList.h"
#include "BenchSupport.h"
#include "CAdjustDataManager.h"
#include "pref.h"
#include "pref_sim.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

using pmbench::Root;

constexpr size_t kGroupFileBytes = 20 + 5294098; // head and image

CAdjustDataManager* startedManager()
{
    static CAdjustDataManager* manager = [] {
        Root();
        CAdjustDataManager* started = CAdjustDataManager::GetInstance();
        started->Initialize();
        return started;
    }();
    return manager;
}

std::string groupFile()
{
    char path[256];
    if (pref_sim_nand_path(3, path, sizeof path) < 0) std::abort();
    return Root().Host(path);
}

void BM_InitializeFromNand(benchmark::State& state)
{
    CAdjustDataManager* manager = startedManager();
    std::vector<unsigned char> buffer(kGroupFileBytes + 1);
    const std::string file = groupFile();
    pmbench::AgainstFloor(
        state,
        [&] {
            manager->Finalize();
            pref_sim_forget_images();
            manager->Initialize();
        },
        [&] { benchmark::DoNotOptimize(pmbench::ReadWhole(file, buffer)); });
}
BENCHMARK(BM_InitializeFromNand)->UseManualTime()->Unit(benchmark::kMillisecond);

// Restart on the image already in memory: only the headers are read and matched.
void BM_InitializeInMemory(benchmark::State& state)
{
    CAdjustDataManager* manager = startedManager();
    for (auto _ : state) {
        manager->Finalize();
        manager->Initialize();
    }
}
BENCHMARK(BM_InitializeInMemory)->Unit(benchmark::kMicrosecond);

void BM_GetData4Bytes(benchmark::State& state)
{
    CAdjustDataManager* manager = startedManager();
    std::mutex mutex;
    uint32_t value = 0, source = 7;
    pmbench::AgainstFloor(
        state, [&] { benchmark::DoNotOptimize(manager->GetData(ADJUST_CIS_SN, &value, sizeof value)); },
        [&] {
            std::lock_guard<std::mutex> lock(mutex);
            std::memcpy(&value, &source, sizeof value);
            benchmark::DoNotOptimize(value);
        },
        1000);
}
BENCHMARK(BM_GetData4Bytes)->UseManualTime();

void BM_SetData4BytesDeferred(benchmark::State& state)
{
    CAdjustDataManager* manager = startedManager();
    uint32_t value = 0;
    for (auto _ : state) {
        ++value;
        benchmark::DoNotOptimize(manager->SetData(ADJUST_CIS_SN, &value, sizeof value, false));
    }
    // The pending value goes out with a synced write of another item, so that later
    // benchmarks start from a store without pending data.
    unsigned char mark = 0;
    manager->SetData(ADJUST_CHECKSUM2, &mark, 1, true);
}
BENCHMARK(BM_SetData4BytesDeferred)->Unit(benchmark::kMicrosecond);

// A synced write: the item, its write-log entry, then the save of the whole group.
void BM_SetData4BytesSynced(benchmark::State& state)
{
    CAdjustDataManager* manager = startedManager();
    const std::vector<unsigned char> group(kGroupFileBytes, 0x5A);
    const std::string floorFile = Root().Host("/mnt/ubi1/pref/floor.bin");
    uint32_t value = 0;
    pmbench::AgainstFloor(
        state,
        [&] {
            ++value;
            if (!manager->SetData(ADJUST_CIS_SN, &value, sizeof value, true)) state.SkipWithError("SetData failed");
        },
        [&] { pmbench::AtomicSave(floorFile, group); });
}
BENCHMARK(BM_SetData4BytesSynced)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
