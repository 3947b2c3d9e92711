// Demo plug-in "UI": keys, touch panel, switches, LEDs and the capture-mode
// checks of the body. Registers its worker when the library is loaded.
#include "AdjustDataList.h"
#include "CWorkerFactory.h"
#include "DemoWorker.h"
#include "PmodeSimHost.h"

#include <chrono>
#include <thread>

namespace {

class CUIWorker : public DemoWorker {
public:
    CUIWorker() : DemoWorker("UI") {}

protected:
    int Run(_tPM_Command& command) override
    {
        const std::string name = command.szWorker;
        const std::string step = Param(command, 0);
        if (name == "key" || name == "switch") return checkControl(command, name, step);
        if (name == "touch" && step == "calibrate") return calibrateTouch(command);
        if (name == "led" || name == "mode" || name == "sensor" || name == "exposure" || name == "proxy"
            || name == "gold_model")
            return checkPart(command);
        if (name == "line_process") return captureFrames(command, step);
        return Unknown(command);
    }

private:
    /// key/switch check NAME: press and release (or each switch position) seen by the body.
    int checkControl(const _tPM_Command& command, const std::string& kind, const std::string& step)
    {
        if (step != "check") return Unknown(command);
        std::string part = Param(command, 1).empty() ? "any" : Param(command, 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        bool passed = !Provoked();
        int latency = 18 + static_cast<int>(part.size() % 7);
        PmodeSimNote("%s %s: %s, %d ms", kind.c_str(), part.c_str(),
                     passed ? "press and release seen" : "no release seen", latency);
        WriteResult(kind + "_result.csv", "PART,PRESS,RELEASE,LATENCY_MS",
                    {part + ",OK," + (passed ? "OK," : "NG,") + std::to_string(latency)}, passed);
        return passed ? 0 : -1;
    }

    /// touch calibrate N: N reference points; the largest error decides.
    int calibrateTouch(const _tPM_Command& command)
    {
        long points = Number(command, 1, 5);
        double worst = 0.0;
        for (long i = 0; i < points; ++i) {
            double error = 0.2 + 0.13 * static_cast<double>((i * 7) % 5);
            if (error > worst) worst = error;
        }
        if (Provoked()) worst = 4.6;
        bool passed = worst < 1.5;
        PmodeSimNote("touch panel: %ld points, largest error %.2f px (limit 1.50)", points, worst);
        return FinishAdjustment(ADJUST_TOUCH_PROCESS_MARK, passed, true);
    }

    int checkPart(const _tPM_Command& command)
    {
        PmodeSimNote("%s: %s", command.szWorker, Provoked() ? "no response" : "OK");
        return Provoked() ? -1 : 0;
    }

    /// line_process still|movie|continuous N: captures N frames in that mode.
    int captureFrames(const _tPM_Command& command, const std::string& mode)
    {
        if (mode != "still" && mode != "movie" && mode != "continuous") return Unknown(command);
        long frames = Number(command, 1, 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(2 * (frames > 20 ? 20 : frames)));
        PmodeSimNote("%s: %ld frame%s captured", mode.c_str(), frames, frames == 1 ? "" : "s");
        return 0;
    }
};

__attribute__((constructor)) void registerWorker()
{
    CWorkerFactory::GetInstance()->AddWorker(new CUIWorker);
}

} // namespace
