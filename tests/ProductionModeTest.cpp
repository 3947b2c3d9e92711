#include "ControllerTestKit.h"
#include "OperationTypeHook.h"
#include "TraceCapture.h"
#include "kernel_sim.h"

#include <cstring>
#include <filesystem>
#include <map>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Files = std::map<std::string, std::string>;
using testing::Contains;
using testing::HasSubstr;

/// In a child: 1 when the checks chose the snapshot mode (it prepares the stores Initialize changed).
int snapshotPreparedByChecks(const std::string& card, int autoEnable)
{
    TestRoot nand;
    std::filesystem::create_directories(nand.Host("/mnt/mmc"));
    std::filesystem::copy(card, nand.Host("/mnt/mmc"), std::filesystem::copy_options::recursive);
    CAdjustDataManager::GetInstance()->Initialize();
    CAdjustDataManager::GetInstance()->SetData(139, &autoEnable, sizeof autoEnable, false);
    CProductionMode::GetInstance()->CanPModeWorking();
    for (int i = 0; i < kernel_sim_record_count(); ++i) {
        char text[1024] = {};
        if (kernel_sim_record(i, text, sizeof text) >= 0 && std::strstr(text, "dirty_adj") != nullptr) return 1;
    }
    return 0;
}

class StartupChecksTest : public ::testing::Test {
protected:
    void LayOut(const Files& files, int autoEnable = 0)
    {
        std::filesystem::remove_all(root.Host("/mnt/mmc"));
        std::filesystem::create_directories(root.Host("/mnt/mmc"));
        for (const auto& file : files) root.WriteFile("/mnt/mmc/" + file.first, file.second);
        ASSERT_TRUE(CAdjustDataManager::GetInstance()->SetData(139, &autoEnable, sizeof autoEnable, false));
        mode->Finalize(); // forgets the script path of the case before
        traces.lines.clear();
    }

    TraceCapture traces; // the checks trace on the calling thread
    TestRoot root;
    CProductionMode* mode = CProductionMode::GetInstance();
};

TEST_F(StartupChecksTest, EveryKindOfCardGivesItsModeStatusAndAdjustModeAndReadErrorsOnlyForUnreadableBlocks)
{
    const std::string wifi = "adj_wifi certification 1\n" /* 25 bytes */, xy = "x y\n", a58(58, 'a');
    const struct { const char* name; Files files; int autoEnable, mode; std::string tracedReadError; bool snapshotMode; } cases[] = {
        {"named script missing, empty info.tgw", {{"info.tg", "abc.adj"}, {"info.tgw", ""}}, 0, 2, "info.tgw", true},
        {"name without .adj", {{"info.tg", "abc.txt"}, {"abc.txt", xy}, {"default.adj", xy}}, 0, 0, "", false},
        {"name with .dev", {{"info.tg", "abc.dev.adj"}, {"abc.dev.adj", xy}}, 0, 1, "", false},
        {".dev, keen_camera device", {{"info.tg", "d.dev.adj"}, {"d.dev.adj", xy}, {"tk_dev.adj", "keen_camera"}}, 0, 1, "", true},
        {".dev, other device", {{"info.tg", "d.dev.adj"}, {"d.dev.adj", xy}, {"tk_dev.adj", "other"}}, 0, 1, "", false},
        {"65 bytes unread", {{"info.tg", a58 + ".adj\n\n\n"}, {a58 + ".adj", xy}, {"tk_dev.adj", a58 + a58}}, 0, 0, "", false},
        {"empty info.tg", {{"info.tg", ""}}, 0, 0, "info.tg", false},
        {"empty tk_dev.adj", {{"info.tg", "abc.adj"}, {"abc.adj", xy}, {"tk_dev.adj", ""}}, 0, 1, "tk_dev.adj", true},
        {"line value 139 is 1", {}, 1, 2, "", true}, {"line value 139 is 2", {}, 2, 0, "", false},
        {"info.tgw naming a .dev", {{"info.tgw", "line.dev"}}, 0, 2, "", false}, {"info.tgw naming no .dev", {{"info.tgw", "line"}}, 0, 2, "", true},
        {"empty Wi-Fi script", {{"info.tg", "w.adj"}, {"w.adj", ""}}, 0, 1, "/mnt/mmc/w.adj", true},
        {"Wi-Fi script of 64 bytes", {{"info.tg", "w.adj"}, {"w.adj", wifi + std::string(39, ' ')}}, 0, 3, "", true},
        {"Wi-Fi text in 65 bytes", {{"info.tg", "w.adj"}, {"w.adj", wifi + std::string(40, ' ')}}, 0, 1, "", true},
        {"Wi-Fi script named with a newline (read untrimmed)", {{"info.tg", "w.adj\n"}, {"w.adj", wifi}}, 0, 1, "", true},
        {"Wi-Fi check reads info.tg only", {{"info.tg", "w.adj"}, {"w.adj", xy}, {"default.adj", wifi}}, 0, 1, "", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        LayOut(c.files, c.autoEnable);
        EXPECT_EXIT(std::_Exit(snapshotPreparedByChecks(root.Host("/mnt/mmc"), c.autoEnable)),
                    testing::ExitedWithCode(c.snapshotMode), "");
        const bool status = !c.files.empty() || c.autoEnable == 1; // every card here holds info.tg or info.tgw
        EXPECT_EQ(status, mode->isProductionStatus()) << "changes nothing for the checks after it";
        EXPECT_EQ(c.mode, mode->CanPModeWorking());
        const std::string readError = "\x1b[m" + c.tracedReadError + " File Read error!!!\x1b[m\n";
        EXPECT_THAT(traces.lines, Contains(HasSubstr("File Read error")).Times(c.tracedReadError.empty() ? 0 : 1));
        EXPECT_THAT(traces.lines, Contains(readError).Times(c.tracedReadError.empty() ? 0 : 1));
    }
    LayOut({{"info.tg", "abc.adj"}, {"abc.adj", xy}});
    EXPECT_EQ(1, mode->CanPModeWorking());
    std::filesystem::rename(root.Host("/mnt/mmc/abc.adj"), root.Host("/mnt/mmc/other.adj"));
    root.WriteFile("/mnt/mmc/info.tg", "other.adj");
    EXPECT_EQ(0, mode->CanPModeWorking()) << "the script name is read once; only its file is looked for again";
}

using Calls = std::vector<std::string>;
Calls g_calls; // "init:<name>" per worker initialised, in order
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
};

TEST(WorkerFactoryTest, RegistrationRefusesNamelessAndDuplicatesKeepsTheOrderAndCommandsReachTheirGroup)
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
    factory->AddWorker(&cap);
    factory->InitializeAllWorker();
    EXPECT_EQ((Calls{"init:UI", "init:DD", "init:CAP"}), g_calls) << "a removed worker comes back at the end";
    for (IPModeWorker* worker : {&ui, &cap, &dd}) factory->SubtractWorker(worker);
    for (const char* name : {"UI", "CAP", "LENS", "WIFI", "DD", "ETC", "MENU", "PENDING"}) factory->AddWorker(new NamedWorker(name));
    const struct { const char* command; const char* sub; const char* worker; } cases[] = {
        {"gold_model", "strobe", "UI"}, {"lens", "strobe", "LENS"}, {"efs", "rtc", "CAP"}, {"port", nullptr, "PENDING"},
        {"port", "main_function", "ETC"}, {"capture", "gyroscope", "DD"}, {"port", "wifi", "WIFI"},
        {"capture", "still", "UI"}, {"capture", "Strobe", "PENDING"}, {"KEY", "strobe", nullptr},
        {"exposure", nullptr, "UI"}, {"sys_param", nullptr, "DD"}, {"model_name", nullptr, "WIFI"}, {"menu_etc", nullptr, "MENU"},
        {"capture", "continuous", "UI"}, {"port", "card_lock", "ETC"}, {"capture", "snapshot", "ETC"}, {"port", "acceleration", "DD"},
        {"shutter ", nullptr, nullptr}, {"", "strobe", nullptr}, {nullptr, "strobe", nullptr},
    };
    for (const auto& c : cases) {
        IPModeWorker* worker = factory->GetWorker(c.command, c.sub);
        EXPECT_STREQ(c.worker, worker == nullptr ? nullptr : worker->GetName())
            << (c.command ? c.command : "-") << " " << (c.sub ? c.sub : "-");
    }
}

TEST(WorkerFactoryTest, ConcurrentRegistrationLosesNoWorkerWhileLookupsRun)
{
    std::vector<std::string> names(8000);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&names, t] {
            for (size_t i = t; i < names.size(); i += 4) {
                names[i] = "W" + std::to_string(i);
                CWorkerFactory::GetInstance()->AddWorker(new NamedWorker(names[i].c_str()));
                CWorkerFactory::GetInstance()->GetWorker("shutter", nullptr);
            }
        });
    }
    for (std::thread& t : threads) t.join();
    CWorkerFactory::GetInstance()->InitializeAllWorker();
    EXPECT_EQ(names.size(), g_calls.size()) << "every registration must survive";
}

class SelfRemovingWorker : public NamedWorker {
public:
    using NamedWorker::NamedWorker;
    ~SelfRemovingWorker() override { pFactory->SubtractWorker(this); }
};

TEST(WorkerFactoryTest, RegisteredWorkersAreDeletedAtExitAndRemovedOnesAreNot)
{
    EXPECT_EXIT(
        {
            // Registered before the registry exists, so it runs after the registry's destructor at exit.
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

TEST(PModeWorkerTest, WaitClearsOnlyRequestedBitsAndAnAdjustResultIsKeptButNotAnsweredUnlessAsked)
{
    NamedWorker worker("UI");
    EXPECT_EQ(PM_RESULT_NONE, worker.GetAdjResult());
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
    pm_test::SetOperationType(OP_TYPE_PTP);
    worker.SetAdjResult(PM_RESULT_FAIL, false);
    EXPECT_EQ(PM_RESULT_FAIL, worker.GetAdjResult());
    EXPECT_EQ(static_cast<uint32_t>(PTP_TRANSFER_NONE), CPTPAdjInterface::GetInstance()->GetTransferDataType());
}

TEST(ProductionModeTest, InitializeWaitsForAWorkerAndFinalizeEndsAnInitialisedModeNeverStarted)
{
    TestRoot root;
    CProductionMode* mode = CProductionMode::GetInstance();
    auto initialized = std::async(std::launch::async, [&] { mode->Initialize(); });
    EXPECT_EQ(std::future_status::timeout, initialized.wait_for(300ms)) << "no worker yet";
    CWorkerFactory::GetInstance()->AddWorker(new NamedWorker("UI"));
    ASSERT_EQ(std::future_status::ready, initialized.wait_for(3s));
    mode->Finalize();
    EXPECT_FALSE(mode->IsActive());
}

TEST(ProductionModeTest, ProcessExitWithoutFinalizeEndsAWaitingHostLinkLoop)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            alarm(10); // a hang at exit ends the child with SIGALRM, not with code 0
            static TestRoot root; // outlives the controller, which is destroyed at exit
            root.WriteFile("/mnt/mmc/info.tgw", "");
            CWorkerFactory::GetInstance()->AddWorker(new NamedWorker("LENS"));
            CProductionMode* mode = CProductionMode::GetInstance();
            mode->Initialize();
            if (!mode->Start()) std::_Exit(3);
            std::this_thread::sleep_for(200ms);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
