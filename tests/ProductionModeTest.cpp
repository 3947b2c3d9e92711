// The controller's state and lifecycle as the host application sees it.
#include "ProductionMode.h"
#include "PMReport.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::chrono_literals;

TEST(ProductionModeTest, OneInstanceIdleUntilARunStarts)
{
    std::vector<CProductionMode*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) threads.emplace_back([&, i] { seen[i] = CProductionMode::GetInstance(); });
    for (auto& thread : threads) thread.join();
    for (CProductionMode* instance : seen) EXPECT_EQ(CProductionMode::GetInstance(), instance);

    CProductionMode* mode = CProductionMode::GetInstance();
    EXPECT_FALSE(mode->IsActive());
    EXPECT_EQ(OP_TYPE_NONE, mode->GetOperationType());
}

/// Counts the lifecycle calls the controller makes on it.
class LifecycleWorker : public IPModeWorker {
public:
    explicit LifecycleWorker(const char* group) { pszName = group; }
    int Execute(_tPM_Command*) override { return 0; }
    void Initialize() override
    {
        ++initialized;
        IPModeWorker::Initialize();
    }
    void Finalize() override
    {
        ++finalized;
        IPModeWorker::Finalize();
    }
    std::atomic<int> initialized{0};
    std::atomic<int> finalized{0};
};

TEST(ProductionModeTest, InitializeWaitsForTheFirstWorkerAndFinalizeStopsEveryWorker)
{
    TestRoot root;
    CProductionMode* mode = CProductionMode::GetInstance();
    auto initialized = std::async(std::launch::async, [&] { mode->Initialize(); });
    EXPECT_EQ(std::future_status::timeout, initialized.wait_for(300ms)) << "no worker yet";

    auto* first = new LifecycleWorker("UI");
    auto* second = new LifecycleWorker("CAP");
    CWorkerFactory::GetInstance()->AddWorker(first);
    CWorkerFactory::GetInstance()->AddWorker(second);
    ASSERT_EQ(std::future_status::ready, initialized.wait_for(3s));
    EXPECT_EQ(1, first->initialized);
    EXPECT_EQ(1, second->initialized);

    // A worker thread waiting for its own signal is released by Finalize.
    auto waiting = std::async(std::launch::async, [&] { return first->Wait(0x1); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(100ms));
    mode->Finalize();
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(2s));
    EXPECT_FALSE(waiting.get());
    EXPECT_EQ(1, first->finalized);
    EXPECT_EQ(1, second->finalized);
    EXPECT_FALSE(mode->IsActive());
}

TEST(ProductionModeTest, LifecycleCanBeRepeatedAndFinalizeIsSafeInEveryState)
{
    TestRoot root; // an empty card: the thread body finds nothing to run
    CProductionMode* mode = CProductionMode::GetInstance();
    mode->Finalize(); // never initialised
    CWorkerFactory::GetInstance()->AddWorker(new LifecycleWorker("DD"));
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        mode->Initialize();
        if (round > 0) {
            ASSERT_TRUE(mode->Start());
        }
        auto done = std::async(std::launch::async, [&] { mode->Finalize(); });
        ASSERT_EQ(std::future_status::ready, done.wait_for(5s));
        EXPECT_FALSE(mode->IsActive());
        EXPECT_FALSE(mode->IsCreatingFile());
    }
    mode->Finalize(); // twice in a row
    EXPECT_EQ(0, mode->CanPModeWorking());
}

TEST(ProductionModeTest, ProcessExitWithoutFinalizeEndsAWaitingHostLinkLoop)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            alarm(10); // a hang at exit ends the child with SIGALRM, not with code 0
            static TestRoot root; // outlives the controller, which is destroyed at exit
            root.WriteFile("/mnt/mmc/info.tgw", "");
            CWorkerFactory::GetInstance()->AddWorker(new LifecycleWorker("LENS"));
            CProductionMode* mode = CProductionMode::GetInstance();
            mode->Initialize();
            if (!mode->Start()) std::_Exit(3);
            std::this_thread::sleep_for(200ms);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
