// Script-mode runs from a simulated memory card, driven as the host application does: Initialize, Start, Finalize.
#include "ControllerTestKit.h"

#include <thread>

namespace {

using namespace controller_test;

using ScriptRunTest = ControllerTest;

TEST_F(ScriptRunTest, CommandsReachTheirWorkerInOrderUntilTheScriptEndsACommandFailsOrFinalizeStopsTheRun)
{
    TestWorker* ui = new TestWorker("UI", [&](_tPM_Command& command) {
        EXPECT_EQ(OP_TYPE_SCRIPT, mode->GetOperationType());
        return std::string(command.szParam[0]) == "hold" && ui->Wait(0x1) ? -1 : 0; // held until Finalize
    });
    CWorkerFactory::GetInstance()->AddWorker(ui);
    root.WriteFile("/mnt/mmc/info.tg", "run.adj");
    root.WriteFile("/mnt/mmc/info.tgw", ""); // host-link mode is enabled as well: the script wins
    const std::string steps = "key step 0\nlabel ADJ_12\nkey step 12\n";
    const std::tuple<const char*, std::string, int, Lines> cases[] = { // name, script, recorded step (-1: none), calls
        {"unknown command", "no_such_command x 1\nkey press 1\n", -1, {"UI: key press 1"}},
        {"failing command", "key press 1\nkey fail 2\nkey press 3\n", -1, {"UI: key press 1", "UI: key fail 2"}},
        {"command without parameters", "key press 0\nkey \nkey press 1\n", -1, {"UI: key press 0"}},
        {"resume at step 12", steps, 12, {"UI: key step 12"}},
        {"no label for step 7", steps, 7, {"UI: key step 0", "UI: key step 12"}},
        {"Finalize during a command: it finishes, no other runs", "key hold 1\nkey press 2\n", -1, {"UI: key hold 1"}}};
    for (auto [name, script, step, expected] : cases) {
        SCOPED_TRACE(name);
        startLog();
        ASSERT_TRUE(step < 0 || CAdjustDataManager::GetInstance()->SetData(135, &step, sizeof step, true));
        root.WriteFile("/mnt/mmc/run.adj", script);
        mode->Initialize();
        ASSERT_TRUE(mode->Start());
        const bool held = expected.back() == "UI: key hold 1";
        for (int tries = 0; tries < 1000 && ((mode->IsActive() && !held) || calls() != expected); ++tries)
            std::this_thread::sleep_for(5ms); // until the run has left script mode after its last command
        Finalize();
        EXPECT_EQ(expected, calls());
        EXPECT_EQ(expected.back() == "UI: key fail 2", traced("CMD FAIL: key, fail, 2"));
    }
    EXPECT_EQ(nullptr, vconf_get_str(kScriptKey)) << "the host channel was never subscribed";
}

} // namespace
