// An example worker plug-in: the worker of group "DD" (display and sound), serving
// the script command "sound" with two sub-commands:
//   sound beep N      sounds the beeper N times (1 to 10)
//   sound volume N    sets the speaker volume (0 to 15) and records the adjust result
// The command table of the library routes "sound" to group "DD"; the worker whose
// name is "DD" serves it. The plug-in registers its worker when it is loaded.
#include "ProductionMode.h" // the library's whole public API: worker contract, registry, services

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

class ExampleSoundWorker : public IPModeWorker {
public:
    ExampleSoundWorker() { pszName = "DD"; }

    /// Runs on the controller's thread; negative when the command failed.
    int Execute(_tPM_Command* command) override
    {
        if (command == nullptr || std::strcmp(command->szWorker, "sound") != 0 || command->nParamCount < 2) return -1;
        const char* step = command->szParam[0];
        char* end = nullptr;
        const long value = std::strtol(command->szParam[1], &end, 10);
        if (end == command->szParam[1] || *end != '\0') return -1;
        if (std::strcmp(step, "beep") == 0) return beep(value);
        if (std::strcmp(step, "volume") == 0) return setVolume(value);
        return -1;
    }

private:
    static int beep(long count)
    {
        if (count < 1 || count > 10) return -1;
        std::printf("example sound worker: %ld beeps\n", count);
        return 0;
    }

    int setVolume(long volume)
    {
        const bool passed = volume >= 0 && volume <= 15;
        std::printf("example sound worker: volume %ld %s\n", volume, passed ? "set" : "out of range");
        SetAdjResult(passed ? PM_RESULT_PASS : PM_RESULT_FAIL, true);
        return passed ? 0 : -1;
    }
};

__attribute__((constructor)) void registerWorker()
{
    CWorkerFactory::GetInstance()->AddWorker(new ExampleSoundWorker);
}

} // namespace
