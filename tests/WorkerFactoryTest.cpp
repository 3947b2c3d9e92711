// The worker registry: routing through the two tables, registration rules,
// thread safety, initialisation and deletion of the registered workers.
#include "CWorkerFactory.h"
#include "IPModeWorker.h"
#include "PMReport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> g_calls; // "<event>:<name>", in order

class NamedWorker : public IPModeWorker {
public:
    explicit NamedWorker(const char* name, std::atomic<int>* deleted = nullptr) : m_deleted(deleted)
    {
        pszName = name;
    }
    ~NamedWorker() override
    {
        if (m_deleted != nullptr) ++*m_deleted;
    }
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

private:
    std::atomic<int>* m_deleted;
};

/// Registers one worker for each group name and unregisters them at the end, so
/// the registry's exit-time deletion does not touch these stack objects.
class RoutingTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (NamedWorker* w : all()) factory->AddWorker(w);
    }
    void TearDown() override
    {
        for (NamedWorker* w : all()) factory->SubtractWorker(w);
    }
    std::vector<NamedWorker*> all() { return {&ui, &cap, &lens, &menu, &wifi, &dd, &etc, &pending}; }

    /// Name of the worker a command reaches, "null" for none.
    std::string Route(const char* command, const char* sub)
    {
        IPModeWorker* worker = factory->GetWorker(command, sub);
        return worker == nullptr ? "null" : worker->GetName();
    }

    CWorkerFactory* factory = CWorkerFactory::GetInstance();
    NamedWorker ui{"UI"}, cap{"CAP"}, lens{"LENS"}, menu{"MENU"}, wifi{"WIFI"}, dd{"DD"}, etc{"ETC"},
        pending{"PENDING"};
};

struct RouteCase {
    const char* command;
    const char* sub;
    const char* worker;
};

TEST_F(RoutingTest, EveryGroupOfTheCommandTableIsReached)
{
    // First and last rows, and rows of every group; the sub-command of a group
    // other than "PENDING" plays no part.
    const RouteCase cases[] = {
        {"key", nullptr, "UI"}, {"gold_model", "strobe", "UI"}, {"exposure", "x", "UI"},
        {"lens", "strobe", "LENS"}, {"shutter", nullptr, "CAP"}, {"efs", "rtc", "CAP"},
        {"display", "strobe", "DD"}, {"sys_param", nullptr, "DD"}, {"menu_capture", nullptr, "MENU"},
        {"menu_setup4", "rtc", "MENU"}, {"menu_etc", nullptr, "MENU"}, {"sys_serial", nullptr, "WIFI"},
        {"model_name", "strobe", "WIFI"}, {"port", nullptr, "PENDING"}, {"capture", nullptr, "PENDING"},
        {"line_process", nullptr, "PENDING"},
    };
    for (const RouteCase& c : cases) {
        EXPECT_EQ(c.worker, Route(c.command, c.sub)) << "case " << c.command << " " << (c.sub ? c.sub : "null");
    }
}

TEST_F(RoutingTest, PendingCommandsAreRoutedBySubCommand)
{
    // First and last rows, both "acceleration" rows, every group; unknown
    // sub-commands keep the group "PENDING".
    const RouteCase cases[] = {
        {nullptr, "main_function", "ETC"}, {nullptr, "gyroscope", "DD"}, {nullptr, "acceleration", "DD"},
        {nullptr, "strobe", "CAP"}, {nullptr, "rtc", "DD"}, {nullptr, "lens_mount", "LENS"},
        {nullptr, "wifi", "WIFI"}, {nullptr, "still", "UI"}, {nullptr, "continuous", "UI"},
        {nullptr, "efs", "CAP"}, {nullptr, "snapshot", "ETC"}, {nullptr, "card_lock", "ETC"},
        {nullptr, "unknown_sub", "PENDING"}, {nullptr, "Strobe", "PENDING"}, {nullptr, "", "PENDING"},
    };
    for (const char* command : {"port", "capture", "line_process"}) {
        for (const RouteCase& c : cases) {
            EXPECT_EQ(c.worker, Route(command, c.sub)) << "case " << command << " " << c.sub;
        }
    }
}

TEST_F(RoutingTest, UnknownNamesAndMissingWorkersGiveNull)
{
    const char* refused[] = {"strobe", "rtc", "acceleration", "KEY", "shutter ", "", "menu_setup5"};
    for (const char* command : refused) {
        EXPECT_EQ("null", Route(command, nullptr)) << "case " << command;
        EXPECT_EQ("null", Route(command, "strobe")) << "case " << command;
    }
    EXPECT_EQ(nullptr, factory->GetWorker(nullptr, "strobe"));

    factory->SubtractWorker(&pending);
    EXPECT_EQ("null", Route("capture", nullptr)) << "no worker named PENDING";
    EXPECT_EQ("null", Route("line_process", "no_such_step"));
    factory->SubtractWorker(&dd);
    EXPECT_EQ("null", Route("line_process", "acceleration")) << "group DD without a worker";
    EXPECT_EQ("CAP", Route("line_process", "strobe"));
}

TEST(WorkerFactoryTest, DuplicateNamesAreRefusedAndTheFirstKeepsServing)
{
    CWorkerFactory* factory = CWorkerFactory::GetInstance();
    NamedWorker first("CAP"), second("CAP"), other("DD");
    EXPECT_FALSE(factory->IsWorkerAllReady());
    factory->AddWorker(&first);
    EXPECT_TRUE(factory->IsWorkerAllReady());
    factory->AddWorker(&second);
    factory->AddWorker(&other);
    factory->AddWorker(nullptr);
    EXPECT_EQ(&first, factory->GetWorker("shutter", nullptr));

    factory->SubtractWorker(&second); // not registered: nothing changes
    EXPECT_EQ(&first, factory->GetWorker("shutter", nullptr));
    factory->SubtractWorker(&first);
    EXPECT_EQ(nullptr, factory->GetWorker("shutter", nullptr)) << "the refused duplicate never got in";
    EXPECT_EQ(&other, factory->GetWorker("sound", nullptr));
    factory->SubtractWorker(&other);
    EXPECT_FALSE(factory->IsWorkerAllReady());
}

TEST(WorkerFactoryTest, WorkerWithoutNameIsAFailedCheckAndNotRegistered)
{
    CWorkerFactory* factory = CWorkerFactory::GetInstance();
    NamedWorker nameless(nullptr);
    testing::internal::CaptureStdout();
    const unsigned long before = pm::AssertionCount();
    factory->AddWorker(&nameless);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(before + 1, pm::AssertionCount());
    EXPECT_NE(std::string::npos, out.find("Assertion Failed! --- File lib/production-plugin/src/CWorkerFactory.cpp"))
        << out;
    EXPECT_FALSE(factory->IsWorkerAllReady());
}

TEST(WorkerFactoryTest, SubtractKeepsTheOrderOfTheOthers)
{
    CWorkerFactory* factory = CWorkerFactory::GetInstance();
    NamedWorker a("UI"), b("CAP"), c("DD");
    for (NamedWorker* w : {&a, &b, &c}) factory->AddWorker(w);
    factory->SubtractWorker(&b);
    g_calls.clear();
    factory->InitializeAllWorker();
    factory->FinalizeAllWorker();
    EXPECT_EQ((std::vector<std::string>{"init:UI", "init:DD", "fini:UI", "fini:DD"}), g_calls);
    // The removed worker can come back, at the end.
    factory->AddWorker(&b);
    g_calls.clear();
    factory->InitializeAllWorker();
    EXPECT_EQ((std::vector<std::string>{"init:UI", "init:DD", "init:CAP"}), g_calls);
    for (NamedWorker* w : {&a, &b, &c}) factory->SubtractWorker(w);
    g_calls.clear();
    factory->InitializeAllWorker();
    EXPECT_TRUE(g_calls.empty()) << "empty registry: nothing called";
}

TEST(WorkerFactoryTest, ConcurrentRegistrationLosesNoWorkerWhileLookupsRun)
{
    CWorkerFactory* factory = CWorkerFactory::GetInstance();
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2000;
    std::vector<std::string> names;
    for (int i = 0; i < kThreads * kPerThread; ++i) names.push_back("W" + std::to_string(i));
    std::vector<std::unique_ptr<NamedWorker>> workers;
    for (const std::string& name : names) workers.push_back(std::make_unique<NamedWorker>(name.c_str()));

    std::atomic<bool> done{false};
    std::thread lookup([&] {
        while (!done) factory->GetWorker("shutter", nullptr);
    });
    std::vector<std::thread> adders;
    for (int t = 0; t < kThreads; ++t) {
        adders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) factory->AddWorker(workers[t * kPerThread + i].get());
        });
    }
    for (std::thread& t : adders) t.join();
    done = true;
    lookup.join();

    g_calls.clear();
    factory->InitializeAllWorker();
    EXPECT_EQ(names.size(), g_calls.size()) << "every registration must survive";
    for (auto& w : workers) factory->SubtractWorker(w.get());
    EXPECT_FALSE(factory->IsWorkerAllReady());
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
            static std::atomic<int> deleted{0};
            // Registered before the registry exists, so it runs after the registry's destructor.
            std::atexit([] { std::_Exit(deleted == 2 ? 7 : 8); });
            CWorkerFactory* factory = CWorkerFactory::GetInstance();
            factory->AddWorker(new NamedWorker("UI", &deleted));
            factory->AddWorker(new SelfRemovingWorker("CAP", &deleted));
            auto* removed = new NamedWorker("DD", &deleted);
            factory->AddWorker(removed);
            factory->SubtractWorker(removed);
            std::exit(0);
        },
        testing::ExitedWithCode(7), "");
}

} // namespace
