// Start-up of the adjust data manager on a store that matches the catalogue, and
// GetData/SetData of a small item. Every SetData appends to the adjust write log, which
// flushes each entry to the medium, so its cost is mostly that flush.
#include "AdjustDataList.h"
#include "CAdjustDataManager.h"
#include "pref.h"
#include "pref_sim.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

// One simulated device for the whole program, with a store built from the catalogue.
class BenchRoot {
public:
    BenchRoot()
    {
        char pattern[] = "/tmp/pmode-bench-XXXXXX";
        if (mkdtemp(pattern) != nullptr) m_dir = pattern;
        setenv("PMODE_ROOT", m_dir.c_str(), 1);
        CAdjustDataManager::GetInstance()->Initialize();
    }
    ~BenchRoot()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }

private:
    std::string m_dir;
};

void EnsureRoot()
{
    static BenchRoot root;
}

// Restart from NAND: the group image is read again, then headers are read and matched.
void BM_InitializeMatchingStoreFromNand(benchmark::State& state)
{
    EnsureRoot();
    CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
    for (auto _ : state) {
        manager->Finalize();
        pref_sim_forget_images();
        manager->Initialize();
    }
}
BENCHMARK(BM_InitializeMatchingStoreFromNand)->Unit(benchmark::kMillisecond);

// Restart on the image already in memory: only the headers are read and matched.
void BM_InitializeMatchingStoreInMemory(benchmark::State& state)
{
    EnsureRoot();
    CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
    for (auto _ : state) {
        manager->Finalize();
        manager->Initialize();
    }
}
BENCHMARK(BM_InitializeMatchingStoreInMemory)->Unit(benchmark::kMicrosecond);

void BM_GetDataSmallItem(benchmark::State& state)
{
    EnsureRoot();
    CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
    uint32_t value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(manager->GetData(ADJUST_CIS_SN, &value, sizeof(value)));
    }
}
BENCHMARK(BM_GetDataSmallItem);

void BM_SetDataSmallItemDeferred(benchmark::State& state)
{
    EnsureRoot();
    CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
    uint32_t value = 0;
    for (auto _ : state) {
        ++value;
        benchmark::DoNotOptimize(manager->SetData(ADJUST_CIS_SN, &value, sizeof(value), false));
    }
    // The pending value goes out with a synced write of another item, so that later
    // benchmarks start from a store without pending data.
    unsigned char mark = 0;
    manager->SetData(ADJUST_CHECKSUM2, &mark, 1, true);
}
BENCHMARK(BM_SetDataSmallItemDeferred);

// A synced write: the item, then the save of the whole group to NAND.
void BM_SetDataSmallItemSynced(benchmark::State& state)
{
    EnsureRoot();
    CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
    uint32_t value = 0;
    for (auto _ : state) {
        ++value;
        benchmark::DoNotOptimize(manager->SetData(ADJUST_CIS_SN, &value, sizeof(value), true));
    }
}
BENCHMARK(BM_SetDataSmallItemSynced)->Unit(benchmark::kMillisecond);

} // namespace
