// One change-log record once the file holds its 256 lines, beside its floor, one
// appended line flushed with fdatasync: every record also removes the oldest line (a
// rewrite of the file). Turned on, the log keeps the file's text between records;
// turned off, every record reads the file afresh. The ratio shows what that costs
// above the flush that both must make.
#include "BenchSupport.h"
#include "CAdjustLogMachine.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

using pmbench::Root;

void writeFullLog()
{
    std::ofstream out(Root().Host("/adj/AdjLog.txt"), std::ios::trunc);
    for (int i = 1; i <= 256; ++i) out << i << "#Body Insert Fail old size:4, new off: " << i * 4 << ", new size: 8\n";
}

void BM_RecordAtFullWindow(benchmark::State& state)
{
    writeFullLog();
    CAdjustLogMachine* log = CAdjustLogMachine::GetInstance();
    const bool turnedOn = state.range(0) != 0;
    if (turnedOn) log->TurnOn();
    const int floorFile =
        open(Root().Host("/adj/floor.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (floorFile < 0) std::abort();
    const std::string line = "257#Header Write Fail 280, 140\n";
    pmbench::AgainstFloor(
        state,
        [&] {
            if (!log->Log("Header Write Fail %d, %d", 280, 140)) state.SkipWithError("record not written");
        },
        [&] {
            if (write(floorFile, line.data(), line.size()) != static_cast<ssize_t>(line.size())
                || fdatasync(floorFile) != 0)
                std::abort();
        });
    close(floorFile);
    log->TurnOff();
    state.SetLabel(turnedOn ? "turned on" : "turned off");
}
BENCHMARK(BM_RecordAtFullWindow)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
