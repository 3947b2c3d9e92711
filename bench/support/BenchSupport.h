#pragma once
// What the benchmark programs share: a simulated device root with the folders the
// library expects, the floors that the library's operations are measured against,
// and the measurement of an operation side by side with its floor.

#include <benchmark/benchmark.h>

#include <chrono>
#include <string>
#include <vector>

namespace pmbench {

/// The simulated device of the whole program (PMODE_ROOT), removed at exit.
class BenchRoot {
public:
    BenchRoot();
    ~BenchRoot();
    BenchRoot(const BenchRoot&) = delete;
    BenchRoot& operator=(const BenchRoot&) = delete;
    const std::string& Dir() const { return m_dir; }
    /// The host path of a device path.
    std::string Host(const std::string& devicePath) const { return m_dir + devicePath; }

private:
    std::string m_dir;
};

/// The program's device root, made at first use.
BenchRoot& Root();

/// The floor of a save: `bytes` written to a temporary file, fsync, rename over
/// `path`, fsync of the directory. Aborts when the file system refuses.
void AtomicSave(const std::string& path, const std::vector<unsigned char>& bytes);
/// The floor of a load: one open and read() of the whole file. Its size.
size_t ReadWhole(const std::string& path, std::vector<unsigned char>& into);

/// Times `operation` and `floor` alternately, each `batch` times per iteration and
/// in turns of order, so that both meet the same machine. The benchmark's time is the operation's, per
/// iteration (use UseManualTime); the counters are the times per call of the
/// operation ("op_ns") and of the floor ("floor_ns"), and their ratio ("ratio").
/// Gives the operation's mean time per call, in seconds.
template <class Operation, class Floor>
double AgainstFloor(benchmark::State& state, Operation operation, Floor floor, int batch = 1)
{
    using Clock = std::chrono::steady_clock;
    double operationSeconds = 0, floorSeconds = 0;
    const auto timed = [](auto& what, int times) {
        const auto start = Clock::now();
        for (int i = 0; i < times; ++i) what();
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    bool floorFirst = false;
    for (auto _ : state) {
        // Turn about, so that neither always runs in the wake of the other.
        const double floorBefore = floorFirst ? timed(floor, batch) : 0;
        const double seconds = timed(operation, batch);
        const double floorAfter = floorFirst ? 0 : timed(floor, batch);
        floorFirst = !floorFirst;
        operationSeconds += seconds;
        floorSeconds += floorBefore + floorAfter;
        state.SetIterationTime(seconds);
    }
    const double calls = static_cast<double>(state.iterations()) * batch;
    state.counters["op_ns"] = calls > 0 ? operationSeconds * 1e9 / calls : 0;
    state.counters["floor_ns"] = calls > 0 ? floorSeconds * 1e9 / calls : 0;
    state.counters["ratio"] = floorSeconds > 0 ? operationSeconds / floorSeconds : 0;
    return calls > 0 ? operationSeconds / calls : 0;
}

} // namespace pmbench
