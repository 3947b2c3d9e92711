// pmode-sim, the simulated camera body: runs the card as the camera does, shows
// and reports every command, and its exit status says whether the run passed.
// The calibration it stores must be on the simulated NAND afterwards.
#include "AdjustDataList.h"
#include "CAdjustDataManager.h"
#include "FileSizeLimit.h"
#include "PmodeToolRun.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace fs = std::filesystem;

namespace {

constexpr int kLineFinishedStep = 134;
constexpr int kLineNextStep = 135;

class PmodeSimTest : public ::testing::Test {
protected:
    /// A copy of the example card in the test's directory, for changing it.
    std::string CopyExampleCard(const std::string& name = "card")
    {
        std::string card = root.Dir() + "/" + name;
        fs::create_directories(card);
        fs::copy(pmtool::SourceDir() + "/examples/card", card, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        return card;
    }

    static void ReplaceInFile(const std::string& path, const std::string& from, const std::string& to)
    {
        std::string text = pmtool::ReadAll(path);
        size_t at = text.find(from);
        ASSERT_NE(at, std::string::npos) << from;
        text.replace(at, from.size(), to);
        pmtool::WriteAll(path, text);
    }

    pmtool::Result RunSim(std::vector<std::string> options, double seconds = 60)
    {
        std::vector<std::string> args = {pmtool::Sim(), "--root", root.Dir()};
        args.insert(args.end(), options.begin(), options.end());
        return pmtool::Run(args, root.Dir(), seconds);
    }

    std::string Json() const { return pmtool::ReadAll(root.Dir() + "/report.json"); }

    TestRoot root; // also PMODE_ROOT of this process, for reading the NAND afterwards
};

TEST_F(PmodeSimTest, ExampleCardRunsToAPassAndItsCalibrationIsOnTheNand)
{
    pmtool::Result run = RunSim({"--card", pmtool::SourceDir() + "/examples/card", "--json", root.Dir() + "/report.json"});
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("script mode: /mnt/mmc/production.adj, from step 0 (label ADJ_00)"), std::string::npos);
    EXPECT_NE(run.output.find("run PASSED (script mode, end of the script): 32 commands run, 32 passed, 0 failed"),
              std::string::npos)
        << run.output;
    EXPECT_EQ(pmtool::CountLines(run.output, " PASS "), 32);
    EXPECT_EQ(pmtool::CountLines(run.output, "CAP   shutter measure 1/4000"), 3);
    EXPECT_EQ(pmtool::CountLines(run.output, "pre-flight:"), 0);

    std::string json = Json();
    EXPECT_NE(json.find("\"passed\": true"), std::string::npos) << json;
    EXPECT_NE(json.find("\"commands_run\": 32"), std::string::npos);
    EXPECT_NE(json.find("\"failing_command\": null"), std::string::npos);
    EXPECT_NE(json.find("{\"index\": 32, \"worker\": \"ETC\", \"command\": \"line_process final_check all\""),
              std::string::npos);

    // Result tables on the card: the three shutter passes, each with the sensor's serial number.
    std::string shutter = root.ReadFile("/mnt/mmc/shutter_result.csv");
    EXPECT_EQ(shutter.rfind("Index,CIS S/N,SPEED,PASS,NOMINAL_US,MEASURED_US,DEVIATION_PCT\r\n", 0), 0u) << shutter;
    EXPECT_EQ(pmtool::CountLines(shutter, ",40718833,1/4000,"), 3) << shutter;

    // The calibration survives the process: read it back from the simulated NAND.
    CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
    adjust->Initialize();
    for (int mark : {ADJUST_SHUTTER_PROCESS_MARK, ADJUST_AWB_H_PROCESS_MARK, ADJUST_INTERNAL_STROBE_PROCESS_MARK,
                     ADJUST_LENS_MOUNT_PROCESS_MARK, ADJUST_TOUCH_PROCESS_MARK, ADJUST_MAIN_FUNCTION_PROCESS_MARK}) {
        unsigned char value = 0;
        EXPECT_TRUE(adjust->GetData(mark, &value, 1));
        EXPECT_EQ(value, '&') << get_adjust_data_id_name(static_cast<_AdjustDataID>(mark));
    }
    uint32_t serial = 0;
    uint16_t country = 0, redGain = 0;
    EXPECT_TRUE(adjust->GetData(ADJUST_CIS_SN, &serial, 4));
    EXPECT_TRUE(adjust->GetData(ADJUST_SHIPMENT_COUNTRY, &country, 2));
    EXPECT_TRUE(adjust->GetData(ADJUST_AWB_HIGH_TEMP_RGAIN, &redGain, 2));
    EXPECT_EQ(serial, 40718833u);
    EXPECT_EQ(country, 2);
    EXPECT_GT(redGain, 1024);
    int32_t next = -1, finished = -1;
    EXPECT_TRUE(adjust->GetData(kLineNextStep, &next, 4));
    EXPECT_TRUE(adjust->GetData(kLineFinishedStep, &finished, 4));
    EXPECT_EQ(next, 0) << "a finished unit starts again at step 0";
    EXPECT_EQ(finished, 3);
}

TEST_F(PmodeSimTest, ProvokedFailureEndsTheRunAndTheNextRunResumesAtItsStep)
{
    std::string card = CopyExampleCard();
    ReplaceInFile(card + "/production.adj", "shutter adjust 1/4000\n", "shutter adjust 1/4000 fail\n");
    pmtool::Result failed = RunSim({"--card", card, "--json", root.Dir() + "/report.json"});
    EXPECT_EQ(failed.status, 1) << failed.output;
    EXPECT_NE(failed.output.find("run FAILED (script mode, stopped at a failing command): 17 commands run, 16 passed, 1 failed"),
              std::string::npos)
        << failed.output;
    EXPECT_NE(failed.output.find("failing command: [17] CAP shutter adjust 1/4000 fail (result -1)"), std::string::npos);
    EXPECT_EQ(pmtool::CountLines(failed.output, "[ 18]"), 0) << "nothing runs after the failing command";
    std::string json = Json();
    EXPECT_NE(json.find("\"passed\": false"), std::string::npos) << json;
    EXPECT_NE(json.find("\"exit_status\": 1"), std::string::npos);
    EXPECT_NE(json.find("\"failing_command\": {\"index\": 17, \"worker\": \"CAP\", \"command\": \"shutter adjust 1/4000 fail\""),
              std::string::npos)
        << json;

    // The operator fixes the unit; the run starts again at the recorded step 2.
    ReplaceInFile(card + "/production.adj", "shutter adjust 1/4000 fail\n", "shutter adjust 1/4000\n");
    pmtool::Result resumed = RunSim({"--card", card, "--json", root.Dir() + "/report.json"});
    EXPECT_EQ(resumed.status, 0) << resumed.output;
    EXPECT_NE(resumed.output.find("from step 2 (label ADJ_02)"), std::string::npos) << resumed.output;
    EXPECT_NE(resumed.output.find("[  1] CAP   shutter init 1"), std::string::npos) << resumed.output;
    EXPECT_NE(resumed.output.find("20 commands run, 20 passed, 0 failed"), std::string::npos) << resumed.output;
    EXPECT_NE(Json().find("\"resume_step\": 2"), std::string::npos);
}

TEST_F(PmodeSimTest, CardWithoutARunnableScriptStartsNoRun)
{
    struct Case {
        const char* name;
        const char* infoTg; // null: no info.tg
        int status;
    };
    const Case cases[] = {{"empty card", nullptr, 3}, {"script name without .adj", "production.txt", 3},
                          {"named script missing", "missing.adj", 3}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string card = root.Dir() + "/card-" + std::to_string(&c - cases);
        fs::create_directories(card);
        if (c.infoTg != nullptr) pmtool::WriteAll(card + "/info.tg", c.infoTg);
        fs::remove_all(root.Host("/mnt/mmc"));
        pmtool::Result run = RunSim({"--card", card});
        EXPECT_EQ(run.status, c.status) << run.output;
        EXPECT_NE(run.output.find("the card starts no production run"), std::string::npos) << run.output;
    }
}

TEST_F(PmodeSimTest, EndlessLoopIsStoppedByTheTimeOut)
{
    std::string card = root.Dir() + "/card";
    fs::create_directories(card);
    pmtool::WriteAll(card + "/info.tg", "loop.adj");
    pmtool::WriteAll(card + "/loop.adj", "label ADJ_00\nlabel AGAIN\ndelay 1 ms\ngoto AGAIN 0\n");
    pmtool::Result run =
        RunSim({"--card", card, "--force", "--timeout", "1", "--quiet", "--json", root.Dir() + "/report.json"}, 20);
    EXPECT_EQ(run.status, 4) << run.output;
    EXPECT_NE(run.output.find("pre-flight: /mnt/mmc/loop.adj:4: error: goto count '0' is read as 0"), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("run FAILED (script mode, timed out after 1 s)"), std::string::npos) << run.output;
    EXPECT_NE(Json().find("\"aborted\": true"), std::string::npos);
}

TEST_F(PmodeSimTest, OnlyTheLoadedPluginsServeAndTheRestIsReported)
{
    // A plug-in directory with the UI worker only: the pre-flight check names the
    // commands no loaded worker serves, and the script is not run.
    std::string plugins = root.Dir() + "/plugins";
    fs::create_directories(plugins);
    fs::copy_file(pmtool::BinaryDir() + "/tools/pmode-sim/plugins/pmplugin-ui.so", plugins + "/pmplugin-ui.so");
    pmtool::Result run = RunSim({"--card", pmtool::SourceDir() + "/examples/card", "--plugins", plugins});
    EXPECT_EQ(run.status, 1) << run.output;
    EXPECT_NE(run.output.find("plug-ins: 1 loaded"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("workers: UI\n"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("pre-flight: /mnt/mmc/production.adj:22: error: no loaded worker serves 'lens init'"),
              std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("run FAILED (script mode, not run: "), std::string::npos) << run.output;

    // Forced, the camera passes the other commands over; the verdict stays FAILED.
    pmtool::Result forced = RunSim({"--card", pmtool::SourceDir() + "/examples/card", "--plugins", plugins, "--force"});
    EXPECT_EQ(forced.status, 1) << forced.output;
    EXPECT_NE(forced.output.find("run FAILED (script mode, end of the script): 4 commands run, 4 passed, 0 failed"),
              std::string::npos)
        << forced.output;
    EXPECT_NE(forced.output.find("not a pass: the pre-flight check found 26 errors in the script (run forced with --force)"),
              std::string::npos)
        << forced.output;
}

TEST_F(PmodeSimTest, ResumeStepOptionAndWifiCertificationCard)
{
    pmtool::Result fromStep3 = RunSim({"--card", pmtool::SourceDir() + "/examples/card", "--step", "3"});
    EXPECT_EQ(fromStep3.status, 0) << fromStep3.output;
    EXPECT_NE(fromStep3.output.find("from step 3 (label ADJ_03)"), std::string::npos) << fromStep3.output;
    EXPECT_NE(fromStep3.output.find("[  1] CAP   line_process awb high 6500"), std::string::npos) << fromStep3.output;

    // A script of at most 64 bytes holding "adj_wifi certification" is a Wi-Fi certification run.
    std::string card = root.Dir() + "/wifi-card";
    fs::create_directories(card);
    pmtool::WriteAll(card + "/info.tg", "wifi.adj");
    pmtool::WriteAll(card + "/wifi.adj", "adj_wifi certification 1\n");
    fs::remove_all(root.Host("/mnt/mmc"));
    pmtool::Result wifi = RunSim({"--card", card});
    EXPECT_EQ(wifi.status, 0) << wifi.output;
    EXPECT_NE(wifi.output.find("script mode: /mnt/mmc/wifi.adj (Wi-Fi certification)"), std::string::npos) << wifi.output;
    EXPECT_NE(wifi.output.find("WIFI  adj_wifi certification 1"), std::string::npos);
}

TEST_F(PmodeSimTest, ReportEscapesWhatTheScriptWrites)
{
    std::string card = root.Dir() + "/card";
    fs::create_directories(card);
    pmtool::WriteAll(card + "/info.tg", "odd.adj");
    pmtool::WriteAll(card + "/odd.adj", "label ADJ_00\nkey check a\"b\\c\tfail\n");
    pmtool::Result run = RunSim({"--card", card, "--json", root.Dir() + "/report.json"});
    EXPECT_EQ(run.status, 1) << run.output;
    std::string json = Json();
    EXPECT_NE(json.find("\"command\": \"key check a\\\"b\\\\c fail\""), std::string::npos) << json;
    EXPECT_NE(json.find("failure provoked by the script (parameter \\\"fail\\\")"), std::string::npos) << json;
}

TEST_F(PmodeSimTest, BadUsageAndSetUpAreRefused)
{
    const std::string host = root.Dir() + "/host";
    fs::create_directory_symlink("/", host);
    // A later --root wins over the one RunSim gives.
    const std::vector<std::string> refused[] = {
        {"--frobnicate"}, {"--card"}, {"--step", "abc"}, {"--step", "4294967296"}, {"--step", "-1"}, {"--step", "3x"},
        {"--timeout", "0"}, {"--timeout", "soon"}, {"--timeout", "nan"}, {"--serve-seconds", "-1"},
        {"--root", "/"}, {"--root", "//"}, {"--root", "/."}, {"--root", host}, {"--root", host + "/tmp/.."},
    };
    for (const std::vector<std::string>& options : refused) {
        SCOPED_TRACE(options.back());
        pmtool::Result run = RunSim(options);
        EXPECT_EQ(run.status, 2) << run.output;
        if (options[0] == "--root") {
            EXPECT_NE(run.output.find("refused: give --root DIR"), std::string::npos) << run.output;
        }
    }
    pmtool::Result noCard = RunSim({"--card", root.Dir() + "/no-such-card"});
    EXPECT_EQ(noCard.status, 2);
    EXPECT_NE(noCard.output.find("no card directory"), std::string::npos) << noCard.output;
    fs::create_directories(root.Dir() + "/empty-plugins");
    pmtool::Result noWorkers = RunSim({"--plugins", root.Dir() + "/empty-plugins"});
    EXPECT_EQ(noWorkers.status, 2);
    EXPECT_NE(noWorkers.output.find("no worker registered by the plug-ins"), std::string::npos) << noWorkers.output;
}

/// Bytes no text file holds, the same on every run.
std::string BinaryGarbage()
{
    std::string bytes;
    uint32_t state = 12345;
    for (int i = 0; i < 4096; ++i) {
        state = state * 1103515245u + 12345u;
        bytes += static_cast<char>(state >> 24);
    }
    return bytes;
}

TEST_F(PmodeSimTest, BrokenProductionNeverPasses)
{
    struct Case {
        const char* name;
        std::string script; // the card's prod.adj; "DIR" makes it a directory
        std::vector<std::string> options;
        std::vector<std::string> expected; // lines of the output
        int commandsRun;
    };
    const std::string broken = "label ADJ_00\nkey check a\ngoto NOWHERE 1\nkey check b\n";
    const Case cases[] = {
        {"binary garbage", BinaryGarbage(), {},
         {"pre-flight: /mnt/mmc/prod.adj:1: error: binary data (byte 0x", "run FAILED (script mode, not run: "}, 0},
        {"binary garbage, forced", BinaryGarbage(), {"--force"}, {"not a pass: no command was run"}, 0},
        {"empty script", "", {}, {"run FAILED (script mode, end of the script)", "not a pass: no command was run"}, 0},
        {"directory", "DIR", {},
         {"pre-flight: /mnt/mmc/prod.adj: error: the script is a directory, not a file", "run FAILED (script mode, not run: "},
         0},
        {"pre-flight error", broken, {},
         {"pre-flight: /mnt/mmc/prod.adj:3: error: goto to unknown label 'NOWHERE'",
          "not a pass: the pre-flight check found 1 error in the script\n"},
         0},
        {"pre-flight error, forced", broken, {"--force"},
         {"Assertion Failed! --- File lib/production-mode/src/CProductionScript.cpp",
          "run FAILED (script mode, end of the script): 1 commands run, 1 passed, 0 failed",
          "not a pass: the pre-flight check found 1 error in the script (run forced with --force)",
          "not a pass: 1 failed check reported"},
         1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string card = root.Dir() + "/card-" + std::to_string(&c - cases);
        fs::create_directories(card);
        pmtool::WriteAll(card + "/info.tg", "prod.adj");
        if (c.script == "DIR") fs::create_directories(card + "/prod.adj/sub");
        else pmtool::WriteAll(card + "/prod.adj", c.script);
        fs::remove_all(root.Host("/mnt/mmc"));
        std::vector<std::string> options = {"--card", card, "--json", root.Dir() + "/report.json"};
        options.insert(options.end(), c.options.begin(), c.options.end());
        pmtool::Result run = RunSim(options);
        EXPECT_EQ(run.status, 1) << run.output;
        for (const std::string& line : c.expected) EXPECT_NE(run.output.find(line), std::string::npos) << line << "\n" << run.output;
        EXPECT_EQ(pmtool::CountLines(run.output, " PASS "), c.commandsRun) << run.output;
        EXPECT_NE(Json().find("\"passed\": false"), std::string::npos) << Json();
    }
}

TEST_F(PmodeSimTest, NandTooSmallForTheCalibrationFailsTheRun)
{
    struct Case {
        const char* name;
        bool storeInPlace; // a run without the limit made the store first
        const char* expected;
    };
    const Case cases[] = {
        {"fresh NAND", false, "not a pass: the adjust data could not be initialised and saved on the NAND"},
        {"store in place, the run's saves fail", true, " reported (\"Assertion Failed!\" above)"},
    };
    // Storing the serial number saves the adjust group.
    const std::string card = root.Dir() + "/card";
    fs::create_directories(card);
    pmtool::WriteAll(card + "/info.tg", "nand.adj");
    pmtool::WriteAll(card + "/nand.adj", "label ADJ_00\nline_process cis_data set 40718833\nkey check menu\n");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string device = root.Dir() + "/device-" + std::to_string(&c - cases);
        const std::vector<std::string> options = {"--root", device, "--card", card};
        if (c.storeInPlace) {
            ASSERT_EQ(RunSim(options).status, 0);
        }
        pmtool::Result run;
        {
            FileSizeLimit nand(1 << 20); // the adjust group needs 5.3 MB
            run = RunSim(options);
        }
        EXPECT_EQ(run.status, 1) << run.output;
        EXPECT_NE(run.output.find("run FAILED (script mode, "), std::string::npos) << run.output;
        EXPECT_NE(run.output.find(c.expected), std::string::npos) << run.output;
    }
}

} // namespace
