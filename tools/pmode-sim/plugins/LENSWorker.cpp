// Demo plug-in "LENS": lens communication, AF focus position and the lens mount
// interface. Registers its worker when the library is loaded.
#include "AdjustDataList.h"
#include "CWorkerFactory.h"
#include "DemoWorker.h"
#include "PmodeSimHost.h"

#include <chrono>
#include <thread>

namespace {

class CLENSWorker : public DemoWorker {
public:
    CLENSWorker() : DemoWorker("LENS") {}

protected:
    int Run(_tPM_Command& command) override
    {
        const std::string name = command.szWorker;
        const std::string step = Param(command, 0);
        if (name == "lens" && step == "init") return initLens();
        if (name == "lens" && step == "focus_check") return checkFocus(command);
        if (name == "line_process" && step == "lens_mount") return checkMount();
        return Unknown(command);
    }

private:
    int initLens()
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (Provoked()) {
            PmodeSimNote("lens: no answer on the mount contacts");
            return -1;
        }
        m_ready = true;
        PmodeSimNote("lens: ID 0x3A21, firmware 1.02, 18-55 mm");
        return 0;
    }

    /// lens focus_check N: N AF passes on the chart; the punt focus position is kept.
    int checkFocus(const _tPM_Command& command)
    {
        if (!m_ready) {
            PmodeSimNote("lens focus_check before lens init");
            return -1;
        }
        long passes = Number(command, 1, 1);
        uint32_t position = 1200 + static_cast<uint32_t>(passes * 3);
        int spread = Provoked() ? 41 : 4;
        bool passed = spread <= 10;
        SetValue32(ADJUST_AF_PUNT_FOCUS_POSITION, position, false);
        PmodeSimNote("AF: %ld pass%s, focus position %u, spread %d steps (limit 10)", passes, passes == 1 ? "" : "es",
                     position, spread);
        return FinishAdjustment(ADJUST_AF_FOCUS_PROCESS_MARK, passed, true);
    }

    int checkMount()
    {
        bool passed = !Provoked();
        SetValue16(ADJUST_LENS_MOUNT_INTERFACE_CHECK_STATUS, passed ? 1 : 0, false);
        PmodeSimNote("lens mount: 8 contacts, %s", passed ? "all closed" : "contact 5 open");
        return FinishAdjustment(ADJUST_LENS_MOUNT_PROCESS_MARK, passed, true);
    }

    bool m_ready = false;
};

__attribute__((constructor)) void registerWorker()
{
    CWorkerFactory::GetInstance()->AddWorker(new CLENSWorker);
}

} // namespace
