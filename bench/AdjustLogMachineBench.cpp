// Cost of one change-log record once the file holds its 256 lines: every record then
// removes the oldest line (a read and rewrite of the whole file) and appends one flushed
// line. Turned on, the file is read once; turned off, every record reads it afresh.
#include "CAdjustLogMachine.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

/// A temporary device root holding "/adj/AdjLog.txt" with 256 lines.
class LogRoot {
public:
    LogRoot()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "pmode-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) m_dir = pattern;
        setenv("PMODE_ROOT", m_dir.c_str(), 1);
        std::filesystem::create_directories(m_dir + "/adj");
        std::ofstream out(m_dir + "/adj/AdjLog.txt", std::ios::trunc);
        for (int i = 1; i <= 256; ++i)
            out << i << "#Body Insert Fail old size:4, new off: " << i * 4 << ", new size: 8\n";
    }
    ~LogRoot()
    {
        unsetenv("PMODE_ROOT");
        std::error_code ignored;
        if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ignored);
    }

private:
    std::string m_dir;
};

void BM_RecordAtFullWindow(benchmark::State& state)
{
    LogRoot root;
    CAdjustLogMachine* log = CAdjustLogMachine::GetInstance();
    const bool turnedOn = state.range(0) != 0;
    if (turnedOn) log->TurnOn();
    for (auto _ : state) {
        if (!log->Log("Header Write Fail %d, %d", 280, 140)) state.SkipWithError("record not written");
    }
    log->TurnOff();
    state.SetLabel(turnedOn ? "turned on" : "turned off");
}
BENCHMARK(BM_RecordAtFullWindow)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

} // namespace
