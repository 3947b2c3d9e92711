// Demo plug-in "MENU": walks the camera's menu pages and checks that an item can
// be reached and set. Registers its worker when the library is loaded.
#include "CWorkerFactory.h"
#include "DemoWorker.h"
#include "PmodeSimHost.h"

namespace {

class CMENUWorker : public DemoWorker {
public:
    CMENUWorker() : DemoWorker("MENU") {}

protected:
    /// menu_PAGE check ITEM: the item is reached on that page and set.
    int Run(_tPM_Command& command) override
    {
        if (Param(command, 0) != "check") return Unknown(command);
        std::string page = command.szWorker;
        std::string item = Param(command, 1).empty() ? "first" : Param(command, 1);
        bool passed = !Provoked();
        int presses = 2 + static_cast<int>((page.size() + item.size()) % 6);
        PmodeSimNote("%s: '%s' %s after %d key presses", page.c_str(), item.c_str(), passed ? "reached" : "not found",
                     presses);
        WriteResult("menu_result.csv", "PAGE,ITEM,PRESSES,RESULT",
                    {page + "," + item + "," + std::to_string(presses) + (passed ? ",OK" : ",NG")}, passed);
        return passed ? 0 : -1;
    }
};

__attribute__((constructor)) void registerWorker()
{
    CWorkerFactory::GetInstance()->AddWorker(new CMENUWorker);
}

} // namespace
