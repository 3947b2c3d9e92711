// The controller as the host application sees it: the start-up checks that choose the
// mode from cards laid out by the tests, and the lifecycle of the controller and its workers.
#include "CAdjustDataManager.h"
#include "ControllerTestKit.h"
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

/// In a child: 1 when the checks on this card chose the snapshot mode, which at once prepares the
/// snapshot boot for the stores that Initialize leaves changed on a new NAND.
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
    /// A card holding exactly these files, and line value 139.
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
    // readError: the file whose read error is traced ("" when none is); snapshot: the adjust mode chosen.
    const std::string wifi = "adj_wifi certification 1\n" /* 25 bytes */, xy = "x y\n", a58(58, 'a');
    const Files dev{{"info.tg", "abc.dev.adj"}, {"abc.dev.adj", xy}};
    Files keen = dev, other = dev;
    keen["tk_dev.adj"] = "model keen_camera";
    other["tk_dev.adj"] = "other";
    const struct { const char* name; Files files; int autoEnable; int mode; std::string readError; bool snapshot; } cases[] = {
        {"named script missing, host link on", {{"info.tg", "abc.adj"}, {"info.tgw", ""}}, 0, 2, "info.tgw", true},
        {"name without .adj", {{"info.tg", "abc.txt"}, {"abc.txt", xy}, {"default.adj", xy}}, 0, 0, "", false},
        {"name with .dev", dev, 0, 1, "", false},
        {".dev name, keen_camera device", keen, 0, 1, "", true},
        {".dev name, other device", other, 0, 1, "", false},
        {"65 bytes unread", {{"info.tg", a58 + ".adj\n\n\n"}, {a58 + ".adj", xy}, {"tk_dev.adj", a58 + a58}}, 0, 0, "", false},
        {"empty info.tg", {{"info.tg", ""}}, 0, 0, "info.tg", false},
        {"empty tk_dev.adj", {{"info.tg", "abc.adj"}, {"abc.adj", xy}, {"tk_dev.adj", ""}}, 0, 1, "tk_dev.adj", true},
        {"line value 139 is 1", {}, 1, 2, "", true},
        {"line value 139 is 2", {}, 2, 0, "", false},
        {"empty info.tgw", {{"info.tgw", ""}}, 0, 2, "info.tgw", true},
        {"info.tgw naming a .dev", {{"info.tgw", "line.dev"}}, 0, 2, "", false},
        {"info.tgw naming no .dev", {{"info.tgw", "line"}}, 0, 2, "", true},
        {"empty Wi-Fi script", {{"info.tg", "w.adj"}, {"w.adj", ""}}, 0, 1, "/mnt/mmc/w.adj", true},
        {"Wi-Fi script of 64 bytes", {{"info.tg", "w.adj"}, {"w.adj", wifi + std::string(39, ' ')}}, 0, 3, "", true},
        {"Wi-Fi text in 65 bytes", {{"info.tg", "w.adj"}, {"w.adj", wifi + std::string(40, ' ')}}, 0, 1, "", true},
        // The certification check reads the name untrimmed: with a newline it finds no file.
        {"Wi-Fi script named with a newline", {{"info.tg", "w.adj\n"}, {"w.adj", wifi}}, 0, 1, "", true},
        {"Wi-Fi check reads info.tg only", {{"info.tg", "w.adj"}, {"w.adj", xy}, {"default.adj", wifi}}, 0, 1, "", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        LayOut(c.files, c.autoEnable);
        // In a child: the snapshot boot is prepared at most once per process.
        EXPECT_EXIT(std::_Exit(snapshotPreparedByChecks(root.Host("/mnt/mmc"), c.autoEnable)),
                    testing::ExitedWithCode(c.snapshot), "");
        const bool status = !c.files.empty() || c.autoEnable == 1; // every card here holds info.tg or info.tgw
        EXPECT_EQ(status, mode->isProductionStatus()) << "changes nothing for the checks after it";
        EXPECT_THAT(traces.lines, Contains(HasSubstr(std::string("isProductionStatus() blRetVal = ") + (status ? "1" : "0"))));
        EXPECT_THAT(traces.lines, Contains(HasSubstr("LINE_PTP_AUTO_ENABLE = 1")).Times(c.autoEnable == 1 ? 1 : 0));
        EXPECT_EQ(c.mode, mode->CanPModeWorking());
        const std::string readError = "\x1b[m" + c.readError + " File Read error!!!\x1b[m\n";
        EXPECT_THAT(traces.lines, Contains(HasSubstr("File Read error")).Times(c.readError.empty() ? 0 : 1));
        EXPECT_THAT(traces.lines, Contains(readError).Times(c.readError.empty() ? 0 : 1));
    }
}

TEST_F(StartupChecksTest, ScriptPathIsKeptOnceFoundAndOnlyTheFileTestIsRedone)
{
    LayOut({{"info.tg", "abc.adj\n"}, {"abc.adj", "x y\n"}});
    EXPECT_TRUE(mode->checkScriptFile());
    std::filesystem::remove(root.Host("/mnt/mmc/abc.adj"));
    root.WriteFile("/mnt/mmc/info.tg", "other.adj");
    root.WriteFile("/mnt/mmc/other.adj", "x y\n");
    EXPECT_FALSE(mode->checkScriptFile()) << "the name is not read again";
    root.WriteFile("/mnt/mmc/default.adj", "x y\n");
    EXPECT_TRUE(mode->checkScriptFile());
    std::filesystem::remove(root.Host("/mnt/mmc/default.adj"));
    root.WriteFile("/mnt/mmc/abc.adj", "x y\n");
    EXPECT_FALSE(mode->checkScriptFile()) << "the default path has replaced the name";
}

TEST(ProductionModeTest, InitializeWaitsForAWorkerAndFinalizeWorksInEveryStateAndReleasesWaitingWorkers)
{
    TestRoot root; // an empty card: the started thread finds nothing to run
    CProductionMode* mode = CProductionMode::GetInstance();
    EXPECT_EQ(OP_TYPE_NONE, mode->GetOperationType());
    mode->Finalize(); // never initialised
    auto initialized = std::async(std::launch::async, [&] { mode->Initialize(); });
    EXPECT_EQ(std::future_status::timeout, initialized.wait_for(300ms)) << "no worker yet";
    auto* worker = new controller_test::TestWorker("UI", nullptr);
    CWorkerFactory::GetInstance()->AddWorker(worker);
    ASSERT_EQ(std::future_status::ready, initialized.wait_for(3s));
    mode->Finalize(); // initialised, never started
    mode->Initialize();
    ASSERT_TRUE(mode->Start());
    auto waiting = std::async(std::launch::async, [&] { return worker->Wait(0x1); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(100ms)) << "Initialize readied the worker";
    mode->Finalize();
    EXPECT_FALSE(waiting.get()) << "Finalize releases a worker thread waiting for its signal";
    EXPECT_FALSE(mode->IsActive());
    EXPECT_FALSE(mode->IsCreatingFile());
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
            CWorkerFactory::GetInstance()->AddWorker(new controller_test::TestWorker("LENS", nullptr));
            CProductionMode* mode = CProductionMode::GetInstance();
            mode->Initialize();
            if (!mode->Start()) std::_Exit(3);
            std::this_thread::sleep_for(200ms);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
