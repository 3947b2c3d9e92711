// The worker base class: event flag protocol across threads and the adjustment result.
#include "CPTPAdjInterface.h"
#include "IPModeWorker.h"
#include "OperationTypeHook.h"

#include "CEventFlag.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

namespace {

using namespace std::chrono_literals;

class TestWorker : public IPModeWorker {
public:
    TestWorker() { pszName = "UI"; }
    int Execute(_tPM_Command*) override { return 0; }
    void DropEventFlag()
    {
        delete pEventFlag;
        pEventFlag = nullptr;
    }
};

TEST(PModeWorkerTest, WaitBlocksUntilResumeFromAnotherThreadAndClearsTheRequestedBits)
{
    TestWorker worker;
    worker.Initialize();
    auto waiting = std::async(std::launch::async, [&] { return worker.Wait(0x3); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(50ms)) << "nothing set yet: Wait must block";
    worker.Resume(0x1);
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(5s));
    EXPECT_TRUE(waiting.get());

    // Both requested bits are clear now: a Wait on bit 1 blocks although only bit 0 was set.
    auto second = std::async(std::launch::async, [&] { return worker.Wait(0x2); });
    EXPECT_EQ(std::future_status::timeout, second.wait_for(50ms));
    worker.Resume(0);
    EXPECT_EQ(std::future_status::timeout, second.wait_for(50ms)) << "Resume(0) changes nothing";
    worker.Resume(0x4);
    EXPECT_EQ(std::future_status::timeout, second.wait_for(50ms)) << "an unrequested bit does not wake it";
    worker.Resume(0x2);
    ASSERT_EQ(std::future_status::ready, second.wait_for(5s));
    EXPECT_TRUE(second.get());

    // Bit 2 stayed set: Wait(0x4) returns at once.
    EXPECT_TRUE(worker.Wait(0x4));
}

TEST(PModeWorkerTest, FinalizeWakesAWaiterAndLaterWaitsFailAtOnceUntilInitialize)
{
    TestWorker worker;
    EXPECT_FALSE(worker.Wait(0x1)) << "a fresh worker is stopped until Initialize";
    worker.Initialize();
    auto waiting = std::async(std::launch::async, [&] { return worker.Wait(0x1); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(50ms));
    worker.Finalize();
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(5s));
    EXPECT_FALSE(waiting.get());

    worker.Resume(0x1);
    EXPECT_FALSE(worker.Wait(0x1)) << "after Finalize, Wait fails without blocking";
    worker.Initialize();
    EXPECT_TRUE(worker.Wait(0x1)) << "Finalize's Wait cleared nothing: bit 0 is still set";
}

TEST(PModeWorkerTest, WorkerWithoutEventFlagNeverBlocks)
{
    TestWorker worker;
    worker.DropEventFlag();
    worker.Initialize();
    worker.Resume(0x1);
    EXPECT_FALSE(worker.Wait(0x1));
}

TEST(PModeWorkerTest, AdjustResultIsKeptAndAnsweredOnlyOverTheHostLink)
{
    TestWorker worker;
    CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();
    EXPECT_EQ(PM_RESULT_NONE, worker.GetAdjResult());

    // Script mode: the result is kept, nothing is prepared for the PC.
    pm_test::SetOperationType(OP_TYPE_SCRIPT);
    worker.SetAdjResult(PM_RESULT_PASS, true);
    EXPECT_EQ(PM_RESULT_PASS, worker.GetAdjResult());
    EXPECT_EQ(0u, transfer->GetTransferDataType());

    pm_test::SetOperationType(OP_TYPE_PTP);
    worker.SetAdjResult(PM_RESULT_FAIL, false);
    EXPECT_EQ(PM_RESULT_FAIL, worker.GetAdjResult());
    EXPECT_EQ(0u, transfer->GetTransferDataType()) << "respond flag false: no response";

    struct Case {
        EPMResult result;
        unsigned int value2;
    };
    for (const Case& c : {Case{PM_RESULT_PASS, 0}, Case{PM_RESULT_FAIL, 1}, Case{PM_RESULT_NONE, 1},
                          Case{static_cast<EPMResult>(7), 1}}) {
        worker.SetAdjResult(c.result, true);
        unsigned int code = 0, value2 = 9, value3 = 9;
        transfer->GetRespond(code, value2, value3);
        EXPECT_EQ(1u, transfer->GetTransferDataType()) << "case " << c.result;
        EXPECT_EQ(0x10000002u, code) << "case " << c.result;
        EXPECT_EQ(c.value2, value2) << "case " << c.result;
        EXPECT_EQ(0u, value3) << "case " << c.result;
        EXPECT_EQ(c.result, worker.GetAdjResult());
        transfer->Dispatch();
    }
    pm_test::SetOperationType(OP_TYPE_NONE);
}

} // namespace
