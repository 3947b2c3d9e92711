// Script-mode runs from a simulated memory card, driven through the public API as the
// host application drives them: Initialize, Start, Finalize.
#include "ControllerTestKit.h"
#include "pref_sim.h"

#include <thread>

namespace {

using namespace controller_test;

class ScriptRunTest : public ControllerTest {
protected:
    void PutScript(const std::string& text)
    {
        root.WriteFile("/mnt/mmc/info.tg", "run.adj");
        root.WriteFile("/mnt/mmc/run.adj", text);
    }
    void Start()
    {
        mode->Initialize();
        ASSERT_TRUE(mode->Start());
    }
};

TEST_F(ScriptRunTest, CommandsReachTheirWorkersInOrderUntilTheScriptEndsOrACommandFails)
{
    addWorkers({"LENS", "CAP", "UI", "DD"}, [this](_tPM_Command&) {
        EXPECT_EQ(OP_TYPE_SCRIPT, mode->GetOperationType());
        return 0;
    });
    root.WriteFile("/mnt/mmc/info.tgw", ""); // host-link mode is enabled as well: the script wins
    const std::string steps = "key step 0\nlabel ADJ_03\nkey step 3\nlabel ADJ_12\nkey step 12\ndelay end 1\n";
    struct Case {
        const char* name;
        const char* info; // info.tg: a newline cuts the path after ".adj"
        const char* file;
        std::string script;
        int step; // the recorded step to resume at, -1: none recorded
        std::vector<std::string> calls;
    } cases[] = {
        {"goto loop, comment, unknown command", "run.adj\n", "run.adj",
         "// check\nlabel ADJ_00\nlens init 1\nlabel LOOP1\nshutter speed 1 2\ngoto LOOP1 2\nno_such_command x 1\n"
         "line_process strobe flash_write\nkey press 1\ndelay end 1\n", -1,
         {"LENS: lens init 1", "CAP: shutter speed 1 2", "CAP: shutter speed 1 2", "CAP: shutter speed 1 2",
          "CAP: line_process strobe flash_write", "UI: key press 1", "DD: delay end 1"}},
        {"failing command", "run.adj", "run.adj", "key press 1\nkey fail 2\nkey press 3\ndelay end 1\n", -1,
         {"UI: key press 1", "UI: key fail 2"}},
        {"resume at step 3", "run.adj", "run.adj", steps, 3, {"UI: key step 3", "UI: key step 12", "DD: delay end 1"}},
        {"resume at step 12", "run.adj", "run.adj", steps, 12, {"UI: key step 12", "DD: delay end 1"}},
        {"no label for step 7", "run.adj", "run.adj", steps, 7,
         {"UI: key step 0", "UI: key step 3", "UI: key step 12", "DD: delay end 1"}},
        {"default.adj instead of the named one", "run.adj", "default.adj", "key default 1\ndelay end 1\n", -1,
         {"UI: key default 1", "DD: delay end 1"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        startLog();
        int step = c.step;
        ASSERT_TRUE(step < 0 || CAdjustDataManager::GetInstance()->SetData(135, &step, sizeof step, true));
        root.WriteFile("/mnt/mmc/info.tg", c.info);
        root.WriteFile(std::string("/mnt/mmc/") + c.file, c.script);
        Start();
        for (int tries = 0; tries < 1000 && (mode->IsActive() || calls() != c.calls); ++tries) {
            std::this_thread::sleep_for(5ms); // until the run has left script mode after its last command
        }
        Finalize();
        const bool fails = c.calls.back() == "UI: key fail 2";
        EXPECT_EQ(c.calls, calls());
        EXPECT_EQ(fails, traced("CMD FAIL: key, fail, 2"));
        EXPECT_EQ(fails, traced("CMD FAIL"));
    }
    EXPECT_EQ(nullptr, vconf_get_str(kScriptKey)) << "the host channel was never subscribed";
}

TEST_F(ScriptRunTest, EmptyScriptsAndParameterlessCommandsEndTheRunWithoutCallingAWorker)
{
    addWorkers({"UI", "DD"});
    // A name followed by a space has no parameters: it reads as the end of the script.
    for (const char* text : {"", "key \nkey press 1\n", "// only a comment\n"}) {
        SCOPED_TRACE(std::string("script \"") + text + "\"");
        PutScript(text);
        Start();
        std::this_thread::sleep_for(300ms); // time to reach the later commands, were the run to go on
        Finalize();
        EXPECT_TRUE(calls().empty());
    }
}

TEST_F(ScriptRunTest, FinalizeDuringARunLetsTheRunningCommandFinishAndRunsNoOther)
{
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    addWorkers({"UI"}, [&](_tPM_Command&) {
        entered.set_value();
        released.wait();
        return 0;
    });
    addWorkers({"DD"});
    PutScript("key hold 1\nkey after 1\ndelay end 1\n");
    Start();
    ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(5s));
    EXPECT_EQ(OP_TYPE_SCRIPT, mode->GetOperationType());
    auto done = std::async(std::launch::async, [&] { mode->Finalize(); });
    EXPECT_EQ(std::future_status::timeout, done.wait_for(100ms)) << "Finalize waits for the running command";
    release.set_value();
    ASSERT_EQ(std::future_status::ready, done.wait_for(5s));
    EXPECT_EQ(std::vector<std::string>{"UI: key hold 1"}, calls());
    EXPECT_FALSE(mode->IsActive());
}

TEST_F(ScriptRunTest, AdjustResultIsKeptInTheLineDataButNotAnsweredOutsideTheHostLink)
{
    TestWorker ui("UI", nullptr);
    int stored = 0;
    for (EPMResult result : {PM_RESULT_PASS, PM_RESULT_FAIL}) {
        ui.SetAdjResult(result, true);
        ASSERT_TRUE(CAdjustDataManager::GetInstance()->GetData(137, &stored, sizeof stored));
        EXPECT_EQ(result, stored);
    }
    EXPECT_EQ(static_cast<uint32_t>(PTP_TRANSFER_NONE), CPTPAdjInterface::GetInstance()->GetTransferDataType());
    // Line data that cannot take the result: a failed check; the worker keeps it all the same.
    pref_sim_fail_next(PREF_SIM_OP_SET_LONG, 1);
    const unsigned long checks = pm::AssertionCount();
    ui.SetAdjResult(PM_RESULT_PASS, true);
    EXPECT_EQ(checks + 1, pm::AssertionCount());
    EXPECT_EQ(PM_RESULT_PASS, ui.GetAdjResult());
    ASSERT_TRUE(CAdjustDataManager::GetInstance()->GetData(137, &stored, sizeof stored));
    EXPECT_EQ(PM_RESULT_FAIL, stored);
}

} // namespace
