// Insert and Remove of one 140-byte record in front of a 2.4 MB tail: the cost of
// growing or shrinking an adjust item near the start of the body area; and the save
// of group 3 beside its floor, one atomic save of a file of the same size.
#include "AdjustGroupLayout.h"
#include "BenchSupport.h"
#include "CAdjustFile.h"
#include "CAdjustPreference.h"
#include "pref.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using pmbench::Root;

constexpr unsigned long kBodyData = pm::adjust::BODY_DATA_OFFSET;
constexpr unsigned long kBodyLength = pm::adjust::BODY_SIZE_OFFSET;
constexpr unsigned long kTail = 2400 * 1024;
constexpr unsigned long kRecord = 140;

/// A body store of kTail bytes in group 3.
void mountBody(CAdjustPreference& store)
{
    Root();
    std::vector<unsigned char> body(kTail);
    for (unsigned long i = 0; i < kTail; ++i) body[i] = static_cast<unsigned char>(i * 13);
    if (pref_set_long(3, kBodyLength, static_cast<long>(kTail)) != 4) std::abort();
    if (pref_set_bytes(3, kBodyData, body.data(), kTail) != static_cast<int>(kTail)) std::abort();
    if (!store.Mount(kBodyData, kBodyLength, static_cast<long>(kTail))) std::abort();
}

void BM_PreferenceInsertRemove(benchmark::State& state)
{
    CAdjustPreference store;
    mountBody(store);
    for (auto _ : state) {
        if (store.Insert(kRecord, kRecord) != 0) state.SkipWithError("Insert failed");
        if (store.Remove(kRecord, kRecord) != 0) state.SkipWithError("Remove failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * static_cast<int64_t>(kTail));
    store.Umount();
}
BENCHMARK(BM_PreferenceInsertRemove)->Unit(benchmark::kMillisecond);

void BM_PreferenceInsertRemoveAndSave(benchmark::State& state)
{
    CAdjustPreference store;
    mountBody(store);
    for (auto _ : state) {
        if (store.Insert(kRecord, kRecord) != 0) state.SkipWithError("Insert failed");
        if (pref_save(3) != 0) state.SkipWithError("pref_save failed");
        if (store.Remove(kRecord, kRecord) != 0) state.SkipWithError("Remove failed");
        if (pref_save(3) != 0) state.SkipWithError("pref_save failed");
    }
    store.Umount();
}
BENCHMARK(BM_PreferenceInsertRemoveAndSave)->Unit(benchmark::kMillisecond);

void BM_FileInsertRemove(benchmark::State& state)
{
    const std::string path = Root().Dir() + "/mnt/ubi1/pref/adj_bench.dat";
    {
        std::vector<char> body(kTail, 'x');
        FILE* file = std::fopen(path.c_str(), "wb");
        if (file == nullptr || std::fwrite(body.data(), 1, kTail, file) != kTail) std::abort();
        std::fclose(file);
    }
    CAdjustFile store;
    if (!store.Mount("adj_bench.dat")) std::abort();
    for (auto _ : state) {
        if (store.Insert(kRecord, kRecord) != 0) state.SkipWithError("Insert failed");
        if (store.Remove(kRecord, kRecord) != 0) state.SkipWithError("Remove failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 4 * static_cast<int64_t>(kTail));
}
BENCHMARK(BM_FileInsertRemove)->Unit(benchmark::kMillisecond);

void BM_PreferenceSave(benchmark::State& state)
{
    Root();
    if (pref_reset(3) != 0) std::abort();
    const std::vector<unsigned char> group(20 + 5294098, 0x5A);
    const std::string floorFile = Root().Host("/mnt/ubi1/pref/floor.bin");
    pmbench::AgainstFloor(
        state,
        [&] {
            if (pref_save(3) != 0) state.SkipWithError("pref_save failed");
        },
        [&] { pmbench::AtomicSave(floorFile, group); });
}
BENCHMARK(BM_PreferenceSave)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
