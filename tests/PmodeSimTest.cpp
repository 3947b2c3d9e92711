// pmode-sim, the simulated camera body: runs the card as the camera does, shows and
// reports every command, and its exit status says whether the run passed. The
// calibration it stores must be on the simulated NAND afterwards.
#include "AdjustDataList.h"
#include "CAdjustDataManager.h"
#include "FileSizeLimit.h"
#include "PmodeToolRun.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using pmtool::ExpectRuns;

namespace {

class PmodeSimTest : public ::testing::Test {
protected:
    /// A run on the test's root (a later --root wins); its output followed by its report.
    pmtool::Result RunSim(const std::string& options)
    {
        fs::remove(root.Host("/report.json"));
        pmtool::Result run = pmtool::Run(sim + options);
        run.output += root.ReadFile("/report.json");
        return run;
    }

    TestRoot root; // also PMODE_ROOT of this process, for reading the NAND afterwards
    const std::string sim = "pmode-sim --root " + root.Dir() + " --json " + root.Host("/report.json") + " ";
    const std::string example = "--card " + pmtool::Source("examples/card") + " ";
};

TEST_F(PmodeSimTest, ExampleCardRunsToAPassAndItsCalibrationIsOnTheNand)
{
    const pmtool::Result run = RunSim(example);
    ASSERT_EQ(run.status, 0) << run.output;
    pmtool::ExpectHas(run.output, {"script mode: /mnt/mmc/production.adj, from step 0 (label ADJ_00)",
                                   "run PASSED (script mode, end of the script): 32 commands run, 32 passed, 0 failed",
                                   "\"passed\": true", "\"commands_run\": 32", "\"failing_command\": null",
                                   "{\"index\": 32, \"worker\": \"ETC\", \"command\": \"line_process final_check all\""});
    EXPECT_EQ(pmtool::CountLines(run.output, " PASS "), 32);
    EXPECT_EQ(pmtool::CountLines(run.output, "CAP   shutter measure 1/4000"), 3);
    EXPECT_EQ(pmtool::CountLines(run.output, "pre-flight:"), 0);
    // Result tables on the card: the three shutter passes, each with the sensor's serial number.
    const std::string shutter = root.ReadFile("/mnt/mmc/shutter_result.csv");
    EXPECT_EQ(shutter.rfind("Index,CIS S/N,SPEED,PASS,NOMINAL_US,MEASURED_US,DEVIATION_PCT\r\n", 0), 0u) << shutter;
    EXPECT_EQ(pmtool::CountLines(shutter, ",40718833,1/4000,"), 3) << shutter;

    // The calibration outlives the process: read it back from the simulated NAND.
    CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
    adjust->Initialize();
    auto item = [adjust](int id, uint32_t size) {
        uint32_t value = 0; // the items are little-endian
        EXPECT_TRUE(adjust->GetData(id, &value, size)) << get_adjust_data_id_name(static_cast<_AdjustDataID>(id));
        return value;
    };
    for (int mark : {ADJUST_SHUTTER_PROCESS_MARK, ADJUST_AWB_H_PROCESS_MARK, ADJUST_INTERNAL_STROBE_PROCESS_MARK,
                     ADJUST_LENS_MOUNT_PROCESS_MARK, ADJUST_TOUCH_PROCESS_MARK, ADJUST_MAIN_FUNCTION_PROCESS_MARK})
        EXPECT_EQ(item(mark, 1), uint32_t{'&'}) << get_adjust_data_id_name(static_cast<_AdjustDataID>(mark));
    EXPECT_EQ(item(ADJUST_CIS_SN, 4), 40718833u);
    EXPECT_EQ(item(ADJUST_SHIPMENT_COUNTRY, 2), 2u);
    EXPECT_GT(item(ADJUST_AWB_HIGH_TEMP_RGAIN, 2), 1024u);
    EXPECT_EQ(item(135, 4), 0u) << "the next step: a finished unit starts again at step 0";
    EXPECT_EQ(item(134, 4), 3u) << "the last step finished";

    ExpectRuns({{sim + example + "--step 3", 0, {"from step 3 (label ADJ_03)", "[  1] CAP   line_process awb high 6500"}}});
}

TEST_F(PmodeSimTest, ProvokedFailureEndsTheRunAndTheNextRunResumesAtItsStep)
{
    fs::copy(pmtool::Source("examples/card"), root.Host("/card"), fs::copy_options::recursive);
    const std::string script = root.ReadFile("/card/production.adj");
    std::string failing = script;
    root.WriteFile("/card/production.adj", failing.replace(failing.find("shutter adjust 1/4000\n"), 21, "shutter adjust 1/4000 fail"));
    const pmtool::Result failed = RunSim("--card " + root.Host("/card"));
    EXPECT_EQ(failed.status, 1);
    pmtool::ExpectHas(failed.output, {"run FAILED (script mode, stopped at a failing command): 17 commands run, 16 passed, 1 failed",
                                      "failing command: [17] CAP shutter adjust 1/4000 fail (result -1)", "\"passed\": false",
                                      "\"failing_command\": {\"index\": 17, \"worker\": \"CAP\", \"command\": \"shutter adjust 1/4000 fail\"",
                                      "\"exit_status\": 1"});
    EXPECT_EQ(pmtool::CountLines(failed.output, "[ 18]"), 0) << "nothing runs after the failing command";

    // The operator fixes the unit; the run starts again at the recorded step 2.
    root.WriteFile("/card/production.adj", script);
    const pmtool::Result resumed = RunSim("--card " + root.Host("/card"));
    EXPECT_EQ(resumed.status, 0);
    pmtool::ExpectHas(resumed.output, {"from step 2 (label ADJ_02)", "[  1] CAP   shutter init 1", "\"resume_step\": 2",
                                       "20 commands run, 20 passed, 0 failed"});
}

TEST_F(PmodeSimTest, EachCardEndsWithItsVerdictAndABrokenOneNeverPasses)
{
    struct Case {
        std::string script; // named by info.tg
        std::string text;   // the script's bytes; "-": no such file, "DIR": a directory
        std::string options;
        int status;
        std::vector<std::string> expected; // in the output or the report; the first names the row
        int passes;                        // commands shown as passed
    };
    std::string garbage; // bytes no text file holds, the same on every run
    for (uint32_t i = 0, state = 12345; i < 4096; ++i, state = state * 1103515245u + 12345u) garbage += static_cast<char>(state >> 24);
    const std::string broken = "label ADJ_00\nkey check a\ngoto NOWHERE 1\nkey check b\n";
    const std::string noRun = "the card starts no production run", notRun = "run FAILED (script mode, not run: ";
    const Case cases[] = {
        {"", "-", "", 3, {noRun}, 0}, {"production.txt", "-", "", 3, {noRun}, 0}, {"missing.adj", "-", "", 3, {noRun}, 0},
        {"prod.adj", garbage, "", 1, {"pre-flight: /mnt/mmc/prod.adj:1: error: binary data (byte 0x", notRun}, 0},
        {"prod.adj", garbage, "--force", 1, {"not a pass: no command was run", "\"passed\": false"}, 0},
        {"prod.adj", "", "", 1, {"run FAILED (script mode, end of the script)", "not a pass: no command was run"}, 0},
        {"prod.adj", "DIR", "", 1, {"pre-flight: /mnt/mmc/prod.adj: error: the script is a directory, not a file", notRun}, 0},
        {"prod.adj", broken, "", 1,
         {"pre-flight: /mnt/mmc/prod.adj:3: error: goto to unknown label 'NOWHERE'",
          "not a pass: the pre-flight check found 1 error in the script\n"}, 0},
        {"prod.adj", broken, "--force", 1,
         {"Assertion Failed! --- File lib/production-mode/src/CProductionScript.cpp",
          "run FAILED (script mode, end of the script): 1 commands run, 1 passed, 0 failed",
          "not a pass: the pre-flight check found 1 error in the script (run forced with --force)",
          "not a pass: 1 failed check reported"}, 1},
        {"prod.adj", "label ADJ_00\nlabel AGAIN\ndelay 1 ms\ngoto AGAIN 0\n", "--force --timeout 1 --quiet", 4,
         {"pre-flight: /mnt/mmc/prod.adj:4: error: goto count '0' is read as 0", "run FAILED (script mode, timed out after 1 s)",
          "\"aborted\": true"}, 0},
        {"prod.adj", "label ADJ_00\nkey check a\"b\\c\tfail\n", "", 1,
         {"\"command\": \"key check a\\\"b\\\\c fail\"", "failure provoked by the script (parameter \\\"fail\\\")"}, 0},
        // A script of at most 64 bytes holding "adj_wifi certification" is a Wi-Fi certification run.
        {"prod.adj", "adj_wifi certification 1\n", "", 0,
         {"script mode: /mnt/mmc/prod.adj (Wi-Fi certification)", "WIFI  adj_wifi certification 1"}, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected.front());
        const std::string card = "/card-" + std::to_string(&c - cases);
        fs::create_directories(root.Host(card));
        if (!c.script.empty()) root.WriteFile(card + "/info.tg", c.script);
        if (c.text == "DIR") fs::create_directories(root.Host(card + "/" + c.script + "/sub"));
        else if (c.text != "-") root.WriteFile(card + "/" + c.script, c.text);
        const pmtool::Result run = RunSim("--root " + root.Host("/device" + card) + " --card " + root.Host(card) + " " + c.options);
        EXPECT_EQ(run.status, c.status) << run.output;
        pmtool::ExpectHas(run.output, c.expected);
        EXPECT_EQ(pmtool::CountLines(run.output, " PASS "), c.passes) << run.output;
    }
}

TEST_F(PmodeSimTest, BadUsageAndSetUpAreRefused)
{
    fs::create_directories(root.Host("/empty-plugins"));
    std::vector<pmtool::Expected> runs = {{sim + "--card " + root.Host("/no-such-card"), 2, {"no card directory"}},
                                          {sim + "--plugins " + root.Host("/empty-plugins"), 2, {"no worker registered by the plug-ins"}}};
    for (const char* usage : {"--frobnicate", "--card", "--step abc", "--step 4294967296", "--step -1", "--step 3x", "--timeout 0",
                              "--timeout soon", "--timeout nan", "--serve-seconds -1"})
        runs.push_back({sim + usage, 2, {"usage: pmode-sim"}});
    ExpectRuns(runs);
}

TEST_F(PmodeSimTest, OnlyTheLoadedPluginsServeAndTheRestIsReported)
{
    // With the UI worker only, the pre-flight check names the commands no loaded worker
    // serves and the script is not run; forced, the rest is passed over, and no pass.
    fs::create_directories(root.Host("/plugins"));
    fs::copy_file(pmtool::Built("tools/pmode-sim/plugins/pmplugin-ui.so"), root.Host("/plugins/pmplugin-ui.so"));
    const std::string plugins = sim + example + "--plugins " + root.Host("/plugins");
    ExpectRuns({{plugins, 1, {"plug-ins: 1 loaded", "workers: UI\n", "run FAILED (script mode, not run: ",
                              "pre-flight: /mnt/mmc/production.adj:22: error: no loaded worker serves 'lens init'"}},
                {plugins + " --force", 1, {"run FAILED (script mode, end of the script): 4 commands run, 4 passed, 0 failed",
                                          "not a pass: the pre-flight check found 26 errors in the script (run forced with --force)"}}});
}

TEST_F(PmodeSimTest, NandTooSmallForTheCalibrationFailsTheRun)
{
    // Storing the serial number saves the adjust group, which needs 5.3 MB.
    root.WriteFile("/card/info.tg", "nand.adj");
    root.WriteFile("/card/nand.adj", "label ADJ_00\nline_process cis_data set 40718833\nkey check menu\n");
    const std::string run = sim + "--card " + root.Host("/card") + " --root " + root.Host("/device");
    for (bool storeInPlace : {false, true}) { // when in place, made by a run without the limit
        SCOPED_TRACE(storeInPlace ? "store in place, the run's saves fail" : "fresh NAND");
        fs::remove_all(root.Host("/device"));
        if (storeInPlace) {
            ASSERT_EQ(pmtool::Run(run).status, 0);
        }
        FileSizeLimit nand(1 << 20);
        ExpectRuns({{run, 1, {"run FAILED (script mode, ", storeInPlace ? " reported (\"Assertion Failed!\" above)"
                                  : "not a pass: the adjust data could not be initialised and saved on the NAND"}}});
    }
}

} // namespace
