// The worker registry (routing, registration, threads, deletion at exit) and the worker base class.
#include "CPTPAdjInterface.h"
#include "CEventFlag.h"
#include "CWorkerFactory.h"
#include "IPModeWorker.h"
#include "OperationTypeHook.h"
#include "PMReport.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;
Calls g_calls; // "<event>:<name>", in order
std::atomic<int> g_deleted{0};

class NamedWorker : public IPModeWorker {
public:
    explicit NamedWorker(const char* name) { pszName = name; }
    ~NamedWorker() override { ++g_deleted; }
    int Execute(_tPM_Command*) override { return 0; }
    void Initialize() override
    {
        IPModeWorker::Initialize();
        g_calls.push_back(std::string("init:") + pszName);
    }
    void Finalize() override
    {
        IPModeWorker::Finalize();
        g_calls.push_back(std::string("fini:") + pszName);
    }
};

TEST(WorkerFactoryTest, CommandsAndPendingSubCommandsReachTheWorkerOfTheirGroup)
{
    CWorkerFactory* factory = CWorkerFactory::GetInstance();
    for (const char* name : {"UI", "CAP", "LENS", "WIFI", "DD", "ETC", "PENDING"}) factory->AddWorker(new NamedWorker(name));
    // The sub-command counts only for a "PENDING" command; an unknown one keeps the group "PENDING".
    const struct { const char* command; const char* sub; const char* worker; } cases[] = {
        {"gold_model", "strobe", "UI"}, {"lens", "strobe", "LENS"}, {"efs", "rtc", "CAP"}, {"port", nullptr, "PENDING"},
        {"port", "main_function", "ETC"}, {"capture", "gyroscope", "DD"}, {"port", "wifi", "WIFI"},
        {"capture", "still", "UI"}, {"capture", "Strobe", "PENDING"}, {"KEY", "strobe", nullptr},
        {"shutter ", nullptr, nullptr}, {"", "strobe", nullptr}, {nullptr, "strobe", nullptr},
    };
    for (const auto& c : cases) {
        IPModeWorker* worker = factory->GetWorker(c.command, c.sub);
        EXPECT_STREQ(c.worker, worker == nullptr ? nullptr : worker->GetName())
            << (c.command ? c.command : "-") << " " << (c.sub ? c.sub : "-");
    }
}

TEST(WorkerFactoryTest, RegistrationRefusesNamelessAndDuplicateWorkersAndKeepsTheOrder)
{
    CWorkerFactory* factory = CWorkerFactory::GetInstance();
    NamedWorker nameless(nullptr), ui("UI"), cap("CAP"), cap2("CAP"), dd("DD");
    const unsigned long before = pm::AssertionCount();
    factory->AddWorker(&nameless);
    EXPECT_EQ(before + 1, pm::AssertionCount());
    EXPECT_FALSE(factory->IsWorkerAllReady());
    for (IPModeWorker* worker : {&ui, &cap, &cap2, &dd, static_cast<NamedWorker*>(nullptr)}) factory->AddWorker(worker);
    EXPECT_TRUE(factory->IsWorkerAllReady());
    EXPECT_EQ(&cap, factory->GetWorker("shutter", nullptr)) << "the first of a name serves";
    factory->SubtractWorker(&cap);
    EXPECT_EQ(nullptr, factory->GetWorker("shutter", nullptr)) << "the refused duplicate never got in";
    factory->SubtractWorker(&cap2); // never registered: nothing changes
    factory->InitializeAllWorker();
    factory->FinalizeAllWorker();
    factory->AddWorker(&cap);
    factory->InitializeAllWorker();
    EXPECT_EQ((Calls{"init:UI", "init:DD", "fini:UI", "fini:DD", "init:UI", "init:DD", "init:CAP"}), g_calls)
        << "a removed worker comes back at the end";
    for (IPModeWorker* worker : {&ui, &cap, &dd}) factory->SubtractWorker(worker);
    EXPECT_FALSE(factory->IsWorkerAllReady());
}

TEST(WorkerFactoryTest, ConcurrentRegistrationLosesNoWorkerWhileLookupsRun)
{
    CWorkerFactory* factory = CWorkerFactory::GetInstance();
    std::vector<std::string> names;
    for (int i = 0; i < 8000; ++i) names.push_back("W" + std::to_string(i));
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (size_t i = t; i < names.size(); i += 4) factory->AddWorker(new NamedWorker(names[i].c_str()));
        });
    }
    threads.emplace_back([&] {
        for (size_t i = 0; i < names.size(); ++i) factory->GetWorker("shutter", nullptr);
    });
    for (std::thread& t : threads) t.join();
    factory->InitializeAllWorker();
    EXPECT_EQ(names.size(), g_calls.size()) << "every registration must survive";
}

/// A worker that unregisters itself when deleted, as plug-ins commonly do.
class SelfRemovingWorker : public NamedWorker {
public:
    using NamedWorker::NamedWorker;
    ~SelfRemovingWorker() override { pFactory->SubtractWorker(this); }
};

TEST(WorkerFactoryTest, RegisteredWorkersAreDeletedAtExitAndRemovedOnesAreNot)
{
    // The registry is destroyed at process exit, so the check runs in a child.
    EXPECT_EXIT(
        {
            // Registered before the registry exists, so it runs after the registry's destructor.
            std::atexit([] { std::_Exit(g_deleted == 2 ? 7 : 8); });
            CWorkerFactory* factory = CWorkerFactory::GetInstance();
            factory->AddWorker(new NamedWorker("UI"));
            factory->AddWorker(new SelfRemovingWorker("CAP"));
            auto* removed = new NamedWorker("DD");
            factory->AddWorker(removed);
            factory->SubtractWorker(removed);
            std::exit(0);
        },
        testing::ExitedWithCode(7), "");
}

TEST(PModeWorkerTest, WaitBlocksUntilARequestedBitAndClearsOnlyTheRequestedBits)
{
    NamedWorker worker("UI");
    EXPECT_FALSE(worker.Wait(0x1)) << "a fresh worker is stopped until Initialize";
    worker.Initialize();
    auto waiting = std::async(std::launch::async, [&] { return worker.Wait(0x3); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(50ms)) << "nothing set yet: Wait must block";
    worker.Resume(0x1);
    EXPECT_TRUE(waiting.get());
    waiting = std::async(std::launch::async, [&] { return worker.Wait(0x3); });
    worker.Resume(0x4);
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(50ms)) << "bit 0 was cleared; bit 2 was not asked for";
    worker.Resume(0x2);
    EXPECT_TRUE(waiting.get());
    EXPECT_TRUE(worker.Wait(0x4)) << "bit 2 stayed set";
    worker.Finalize();
    worker.Resume(0x1);
    EXPECT_FALSE(worker.Wait(0x1)) << "after Finalize, Wait fails without blocking";
    worker.Initialize();
    EXPECT_TRUE(worker.Wait(0x1)) << "the failed Wait cleared nothing";
}

TEST(PModeWorkerTest, AdjustResultIsKeptAndAnsweredOverTheHostLinkOnlyWhenAsked)
{
    NamedWorker worker("UI");
    CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();
    EXPECT_EQ(PM_RESULT_NONE, worker.GetAdjResult());
    pm_test::SetOperationType(OP_TYPE_PTP);
    worker.SetAdjResult(PM_RESULT_FAIL, false);
    EXPECT_EQ(PM_RESULT_FAIL, worker.GetAdjResult());
    EXPECT_EQ(0u, transfer->GetTransferDataType()) << "no answer asked for";
    worker.SetAdjResult(PM_RESULT_NONE, true);
    unsigned int code = 0, value2 = 9, value3 = 9;
    transfer->GetRespond(code, value2, value3);
    EXPECT_EQ((std::vector<unsigned>{0x10000002u, 1u, 0u}), (std::vector<unsigned>{code, value2, value3}))
        << "anything but a pass answers 1";
}

} // namespace
