// The script-mode run loop of CProductionMode: runs the production script from
// the card, command by command, until it ends or a command fails.
#include "CProductionMode.h"

#include "CAdjustDataManager.h"
#include "CProductionOSD.h"
#include "CProductionScript.h"
#include "CWorkerFactory.h"
#include "IPModeWorker.h"
#include "PMReport.h"

#include <cstdio>

namespace {

constexpr int kLineControlNextStep = 135;
constexpr short kFailTextArea = 7;

} // namespace

void CProductionMode::gotoResumeLabel()
{
    int step = 0;
    if (!CAdjustDataManager::GetInstance()->GetData(kLineControlNextStep, &step, sizeof step)) return;
    char label[32] = {};
    std::snprintf(label, sizeof label, step <= 9 ? "ADJ_0%1d" : "ADJ_%2d", step);
    // An unknown label leaves the script at its first command line.
    if (pScript != nullptr) pScript->GotoLabel(label);
}

int CProductionMode::runScriptMode()
{
    gotoResumeLabel();
    for (;;) {
        if (pScript == nullptr) {
            PM_ASSERT_FAILED();
            nOperationType = OP_TYPE_NONE;
            return -1;
        }
        pScript->Parsing();
        _tPM_Command command = pScript->Read();
        // A stop asked for by Finalize ends the run here, as the end of the script would.
        if (command == -1 || isStopRequested()) {
            nOperationType = OP_TYPE_NONE;
            return 0;
        }
        if (pWorkerFactory == nullptr) continue;

        IPModeWorker* worker = pWorkerFactory->GetWorker(command.szWorker, command.szParam[0]);
        if (worker == nullptr) continue;
        if (worker->Execute(&command) >= 0) continue;

        CProductionOSD::GetInstance()->Text(kFailTextArea, "CMD FAIL: %s, %s, %s", command.szWorker, command.szParam[0],
                                            command.szParam[1]);
        PM_TRACE_RED("CMD FAIL: %s, %s, %s", command.szWorker, command.szParam[0], command.szParam[1]);
        nOperationType = OP_TYPE_NONE;
        return -1;
    }
}
