// Demo plug-in "DD": delays, the clock, the battery check, display and sound, and
// the recording of host-link script lines to a file on the card ("create_file").
// Registers its worker when the library is loaded.
#include "AdjustDataList.h"
#include "CProductionMode.h"
#include "CWorkerFactory.h"
#include "DemoWorker.h"
#include "PmodeSimHost.h"

#include <chrono>
#include <ctime>
#include <thread>

namespace {

constexpr long kLongestDelayMs = 60000;

class CDDWorker : public DemoWorker {
public:
    CDDWorker() : DemoWorker("DD") {}

protected:
    int Run(_tPM_Command& command) override
    {
        const std::string name = command.szWorker;
        const std::string step = Param(command, 0);
        if (name == "delay") return delay(command);
        if (step == "create_file") return createFile(command);
        if (step == "rtc") return setClock(std::time(nullptr));
        if (step == "rtc2") return setClock(static_cast<std::time_t>(command.nArg[0]));
        if (step == "battery_level") return checkBattery();
        if (name == "display" || name == "sound" || name == "audio" || name == "osd" || name == "sys_param") {
            PmodeSimNote("%s: %s", DemoWorker::Text(command).c_str(), Provoked() ? "no signal" : "OK");
            return Provoked() ? -1 : 0;
        }
        return Unknown(command);
    }

private:
    /// delay N [ms|s]: waits; the line gives the unit time to settle.
    int delay(const _tPM_Command& command)
    {
        long amount = Number(command, 0, -1);
        if (amount < 0) {
            PmodeSimNote("delay: '%s' is not a duration", Param(command, 0).c_str());
            return -1;
        }
        long ms = Param(command, 1) == "s" ? amount * 1000 : amount;
        if (ms > kLongestDelayMs) ms = kLongestDelayMs;
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        PmodeSimNote("waited %ld ms", ms);
        return 0;
    }

    /// data create_file NAME: from now on the PC's script lines are written to
    /// /mnt/mmc/NAME instead of being run; data create_file off ends that (the
    /// controller stops recording before it runs the line).
    int createFile(const _tPM_Command& command)
    {
        std::string target = Param(command, 1);
        if (target == "off") {
            PmodeSimNote("recording of script lines stopped");
            return 0;
        }
        if (target.empty()) {
            PmodeSimNote("create_file: name the record file (or off)");
            return -1;
        }
        if (!HostLink()) {
            PmodeSimNote("create_file %s: recording applies to the host link only", target.c_str());
            return 0;
        }
        if (!CProductionMode::GetInstance()->StartCreateFile(target.c_str())) {
            PmodeSimNote("create_file %s: the controller refused the record file", target.c_str());
            return -1;
        }
        PmodeSimNote("recording script lines to /mnt/mmc/%s", target.c_str());
        return 0;
    }

    /// rtc / rtc2: sets the body's clock (from the PC's time for rtc2).
    int setClock(std::time_t when)
    {
        std::tm local{};
        localtime_r(&when, &local);
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
        bool passed = when > 0 && !Provoked();
        SetProcessMark(ADJUST_RTC_TIME_PROCESS_MARK, passed);
        PmodeSimNote("clock set to %s", text);
        return passed ? 0 : -1;
    }

    int checkBattery()
    {
        uint16_t millivolts = Provoked() ? 2870 : 3152;
        bool passed = millivolts >= 3000;
        SetValue16(ADJUST_BATTERY_CHECK_LEVEL, millivolts, false);
        PmodeSimNote("battery: %u mV at 1.2 A load (limit 3000 mV)", millivolts);
        return FinishAdjustment(ADJUST_BATTERY_PROCESS_MARK, passed, true);
    }
};

__attribute__((constructor)) void registerWorker()
{
    CWorkerFactory::GetInstance()->AddWorker(new CDDWorker);
}

} // namespace
