// Script-mode runs from a simulated memory card, driven through the public API
// as the host application drives them: Initialize, Start, Finalize.
#include "ProductionMode.h"
#include "ControllerTestKit.h"
#include "CAdjustDataManager.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "pref_sim.h"
#include "vconf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

using namespace controller_test;

class ScriptRunTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        startLog();
        mode = CProductionMode::GetInstance();
    }
    void TearDown() override { pm::SetTraceSink(nullptr); }

    void PutScript(const std::string& name, const std::string& text)
    {
        root.WriteFile("/mnt/mmc/info.tg", name);
        root.WriteFile("/mnt/mmc/" + name, text);
    }

    /// Starts a run and waits until it has ended (operation type back to 0 after
    /// the thread body ran), then finalizes. False when the run did not end.
    bool RunToEnd(std::chrono::milliseconds limit = 5s)
    {
        mode->Initialize();
        if (!mode->Start()) return false;
        const auto deadline = std::chrono::steady_clock::now() + limit;
        // The body is over once the thread can be joined; Finalize joins it, so
        // wait for the loop to leave its type first and give it the time to get there.
        bool ended = false;
        while (std::chrono::steady_clock::now() < deadline) {
            if (!mode->IsActive() && bodyFinished()) {
                ended = true;
                break;
            }
            std::this_thread::sleep_for(5ms);
        }
        mode->Finalize();
        return ended;
    }

    /// The last command of every script here is "delay end 1" (worker DD), so the
    /// run is over when it was called, or when CMD FAIL was traced.
    bool bodyFinished()
    {
        const std::vector<std::string> made = calls();
        return std::find(made.begin(), made.end(), "DD: delay end 1") != made.end() || traced("CMD FAIL");
    }

    TestRoot root;
    CProductionMode* mode = nullptr;
};

TEST_F(ScriptRunTest, CommandsReachTheirWorkersInOrderWithGotoLoopsAndUnknownCommandsPassedOver)
{
    std::vector<int> typesSeen;
    addWorker("LENS", [&](_tPM_Command*) {
        typesSeen.push_back(mode->GetOperationType());
        return 0;
    });
    addWorker("CAP");
    addWorker("UI");
    addWorker("DD");
    // info.tg ends with a newline: the script path is cut after ".adj".
    root.WriteFile("/mnt/mmc/info.tg", "run.adj\n");
    root.WriteFile("/mnt/mmc/run.adj", "// lens and shutter check\n"
                                       "label ADJ_00\n"
                                       "lens init 1\n"
                                       "label LOOP1\n"
                                       "shutter speed 1 2\n"
                                       "goto LOOP1 2\n"
                                       "no_such_command x 1\n"
                                       "line_process strobe flash_write\n"
                                       "key press 1\n"
                                       "delay end 1\n");
    ASSERT_TRUE(RunToEnd());

    const std::vector<std::string> expected = {
        "LENS: lens init 1",      "CAP: shutter speed 1 2", "CAP: shutter speed 1 2",
        "CAP: shutter speed 1 2", "CAP: line_process strobe flash_write",
        "UI: key press 1",        "DD: delay end 1",
    };
    EXPECT_EQ(expected, calls());
    EXPECT_EQ(std::vector<int>{OP_TYPE_SCRIPT}, typesSeen) << "IsActive during the run";
    EXPECT_FALSE(mode->IsActive());
    EXPECT_FALSE(traced("CMD FAIL"));
    // The script ran, so the host channel was never subscribed.
    EXPECT_EQ(nullptr, vconf_get_str("memory/private/pmode"));
}

TEST_F(ScriptRunTest, AFailingCommandStopsTheRunAndShowsCmdFail)
{
    addWorker("UI", [](_tPM_Command* command) { return std::string(command->szParam[1]) == "2" ? -1 : 0; });
    addWorker("DD");
    PutScript("fail.adj", "key press 1\nkey press 2\nkey press 3\ndelay end 1\n");
    ASSERT_TRUE(RunToEnd());

    EXPECT_EQ((std::vector<std::string>{"UI: key press 1", "UI: key press 2"}), calls());
    EXPECT_TRUE(traced("CMD FAIL: key, press, 2"));
    EXPECT_FALSE(mode->IsActive());
}

TEST_F(ScriptRunTest, ResumesAtTheLabelOfTheRecordedStep)
{
    addWorker("UI");
    addWorker("DD");
    const std::string script = "key step 0\n"
                               "label ADJ_03\n"
                               "key step 3\n"
                               "label ADJ_12\n"
                               "key step 12\n"
                               "delay end 1\n";
    struct Case {
        int step;
        std::vector<std::string> calls;
    } cases[] = {
        {3, {"UI: key step 3", "UI: key step 12", "DD: delay end 1"}},
        {12, {"UI: key step 12", "DD: delay end 1"}},
        // No label ADJ_07: the run starts at the first command line.
        {7, {"UI: key step 0", "UI: key step 3", "UI: key step 12", "DD: delay end 1"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("step " + std::to_string(c.step));
        takeCalls();
        int step = c.step;
        ASSERT_TRUE(CAdjustDataManager::GetInstance()->SetData(135, &step, sizeof step, true));
        PutScript("resume.adj", script);
        ASSERT_TRUE(RunToEnd());
        EXPECT_EQ(c.calls, calls());
    }
}

TEST_F(ScriptRunTest, DefaultScriptRunsInsteadOfTheNamedOne)
{
    addWorker("UI");
    addWorker("DD");
    root.WriteFile("/mnt/mmc/info.tg", "named.adj");
    root.WriteFile("/mnt/mmc/named.adj", "key named 1\ndelay end 1\n");
    root.WriteFile("/mnt/mmc/default.adj", "key default 1\ndelay end 1\n");
    // Host-link mode is enabled as well: the script wins.
    root.WriteFile("/mnt/mmc/info.tgw", "");
    ASSERT_TRUE(RunToEnd());
    EXPECT_EQ((std::vector<std::string>{"UI: key default 1", "DD: delay end 1"}), calls());
    EXPECT_EQ(nullptr, vconf_get_str("memory/private/pmode"));
}

TEST_F(ScriptRunTest, EmptyScriptsAndParameterlessCommandsEndTheRunWithoutCallingAWorker)
{
    addWorker("UI");
    addWorker("DD");
    // A name followed by a space has no parameters: it reads as the end of the script.
    const char* scripts[] = {"", "key \nkey press 1\n", "// only a comment\n"};
    for (const char* text : scripts) {
        SCOPED_TRACE(std::string("script \"") + text + "\"");
        PutScript("short.adj", text);
        mode->Initialize();
        ASSERT_TRUE(mode->Start());
        // Time for the run to reach the commands after the parameterless one, were it to go on.
        std::this_thread::sleep_for(300ms);
        auto done = std::async(std::launch::async, [&] { mode->Finalize(); });
        ASSERT_EQ(std::future_status::ready, done.wait_for(5s));
        EXPECT_TRUE(calls().empty());
        EXPECT_FALSE(mode->IsActive());
    }
}

TEST_F(ScriptRunTest, FinalizeDuringARunLetsTheRunningCommandFinishAndRunsNoOther)
{
    std::mutex gate;
    std::condition_variable opened;
    bool open = false;
    bool entered = false;
    addWorker("UI", [&](_tPM_Command*) {
        std::unique_lock<std::mutex> lock(gate);
        entered = true;
        opened.notify_all();
        opened.wait(lock, [&] { return open; });
        return 0;
    });
    addWorker("DD");
    PutScript("long.adj", "key hold 1\nkey after 1\ndelay end 1\n");
    mode->Initialize();
    ASSERT_TRUE(mode->Start());
    {
        std::unique_lock<std::mutex> lock(gate);
        ASSERT_TRUE(opened.wait_for(lock, 5s, [&] { return entered; }));
    }
    EXPECT_TRUE(mode->IsActive());
    EXPECT_EQ(OP_TYPE_SCRIPT, mode->GetOperationType());

    auto done = std::async(std::launch::async, [&] { mode->Finalize(); });
    EXPECT_EQ(std::future_status::timeout, done.wait_for(100ms)) << "Finalize waits for the running command";
    {
        std::lock_guard<std::mutex> lock(gate);
        open = true;
    }
    opened.notify_all();
    ASSERT_EQ(std::future_status::ready, done.wait_for(5s));
    EXPECT_EQ(std::vector<std::string>{"UI: key hold 1"}, calls());
    EXPECT_FALSE(mode->IsActive());
}

TEST_F(ScriptRunTest, AdjustResultOfAScriptRunIsStoredButNotAnswered)
{
    IPModeWorker* ui = addWorker("UI");
    addWorker("DD");
    ASSERT_EQ(PM_RESULT_NONE, ui->GetAdjResult());
    PutScript("result.adj", "key press 1\ndelay end 1\n");
    ASSERT_TRUE(RunToEnd());

    ui->SetAdjResult(PM_RESULT_PASS, true);
    EXPECT_EQ(PM_RESULT_PASS, ui->GetAdjResult());
    int stored = 0;
    ASSERT_TRUE(CAdjustDataManager::GetInstance()->GetData(137, &stored, sizeof stored));
    EXPECT_EQ(PM_RESULT_PASS, stored);
    EXPECT_EQ(static_cast<uint32_t>(PTP_TRANSFER_NONE), CPTPAdjInterface::GetInstance()->GetTransferDataType());

    ui->SetAdjResult(PM_RESULT_FAIL, false);
    ASSERT_TRUE(CAdjustDataManager::GetInstance()->GetData(137, &stored, sizeof stored));
    EXPECT_EQ(PM_RESULT_FAIL, stored);
    EXPECT_EQ(PM_RESULT_FAIL, ui->GetAdjResult());

    // Line data that cannot take the result: a failed check; the worker keeps it all the same.
    pref_sim_fail_next(PREF_SIM_OP_SET_LONG, 1);
    const unsigned long checks = pm::AssertionCount();
    ui->SetAdjResult(PM_RESULT_PASS, true);
    EXPECT_EQ(checks + 1, pm::AssertionCount());
    EXPECT_EQ(PM_RESULT_PASS, ui->GetAdjResult());
    ASSERT_TRUE(CAdjustDataManager::GetInstance()->GetData(137, &stored, sizeof stored));
    EXPECT_EQ(PM_RESULT_FAIL, stored);
}

} // namespace
