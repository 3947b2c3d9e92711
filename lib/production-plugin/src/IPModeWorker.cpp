#include "IPModeWorker.h"

#include "CAdjustDataManager.h"
#include "CEventFlag.h"
#include "CPTPAdjInterface.h"
#include "CProductionMode.h"
#include "CWorkerFactory.h"
#include "PMReport.h"

#include <new>

namespace {

constexpr unsigned long kStopBits = 0xF0000000UL;
constexpr unsigned long kFinalizeBit = 0x80000000UL;

constexpr unsigned long kRespondAdjust = 0x10000002UL;
constexpr int kLineAdjResult = 137; // line value: the adjust result of the current step

} // namespace

IPModeWorker::IPModeWorker()
    : pszName(nullptr), pFactory(CWorkerFactory::GetInstance()), eAdjResult(PM_RESULT_NONE),
      pEventFlag(new (std::nothrow) CEventFlag)
{
    if (pEventFlag != nullptr) pEventFlag->Create(kStopBits);
}

IPModeWorker::~IPModeWorker()
{
    if (pEventFlag != nullptr) {
        pEventFlag->Delete();
        delete pEventFlag;
        pEventFlag = nullptr;
    }
}

void IPModeWorker::Initialize()
{
    if (pEventFlag != nullptr) pEventFlag->Clear(kStopBits);
}

void IPModeWorker::Finalize()
{
    if (pEventFlag != nullptr) pEventFlag->Set(kStopBits);
}

bool IPModeWorker::Wait(unsigned long bits)
{
    if (pEventFlag == nullptr) return false;
    unsigned long pattern = 0;
    if (pEventFlag->WaitOr(bits | kFinalizeBit, &pattern, -1) != 0) return false;
    if ((pattern & kFinalizeBit) != 0) return false;
    pEventFlag->Clear(bits);
    return true;
}

void IPModeWorker::Resume(unsigned long bits)
{
    if (pEventFlag != nullptr) pEventFlag->Set(bits);
}

void IPModeWorker::SetAdjResult(EPMResult result, bool respond)
{
    eAdjResult = result;
    // Kept in the line data too, so the result outlives the run. Line data that
    // cannot take it is a failed check: the worker keeps the result, no answer for
    // the PC is prepared.
    EPMResult stored = result;
    PM_CHECK(CAdjustDataManager::GetInstance()->SetData(kLineAdjResult, &stored, sizeof stored, false));
    if (CProductionMode::GetInstance()->GetOperationType() == OP_TYPE_PTP && respond) {
        CPTPAdjInterface::GetInstance()->SetRespond(kRespondAdjust, result == PM_RESULT_PASS ? 0 : 1, 0);
    }
}

EPMResult IPModeWorker::GetAdjResult()
{
    return eAdjResult;
}
