// pmode-sim runs a card as the camera does, pmode-pc drives it from another process, its checker names a script's faults.
#include "AdjustDataList.h"
#include "CAdjustDataManager.h"
#include "FileSizeLimit.h"
#include "PmodeToolRun.h"
#include "TestRoot.h"

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>

namespace fs = std::filesystem;
using pmtool::ExpectRuns;

/// The JSON report with each object and array on one line ({"index": 1, "worker": "UI", ...}), so that tests
/// name its parts in one string; strings in it hold no raw line break.
std::string FlatReport(const std::string& text)
{
    const std::string opened = std::regex_replace(text, std::regex("([\\[{])\n *"), "$1");
    return std::regex_replace(std::regex_replace(opened, std::regex("\n *([\\]}])"), "$1"), std::regex(",\n *"), ", ");
}

class PmodeSimTest : public ::testing::Test {
protected:
    /// A run on the test's root (a later --root wins); its output followed by its report.
    pmtool::Result RunSim(const std::string& options)
    {
        fs::remove(root.Host("/report.json"));
        pmtool::Result run = pmtool::Run(sim + options);
        run.output += FlatReport(root.ReadFile("/report.json"));
        return run;
    }

    TestRoot root; // also PMODE_ROOT of this process, for reading the NAND afterwards
    const std::string sim = "pmode-sim --root " + root.Dir() + " --json " + root.Host("/report.json") + " ";
    const std::string example = "--card " + pmtool::Source("examples/card") + " ";
};

TEST_F(PmodeSimTest, ExampleCardRunsToAPassAndItsCalibrationIsOnTheNand)
{
    const pmtool::Result run = RunSim(example);
    pmtool::Check({example, 0, {"script mode: /mnt/mmc/production.adj, from step 0 (label ADJ_00)", "\"passed\": true",
                                "run PASSED (script mode, end of the script): 32 commands run, 32 passed, 0 failed", "\"commands_run\": 32",
                                "\"failing_command\": null", "{\"index\": 32, \"worker\": \"ETC\", \"command\": \"line_process final_check all\""},
                   {"pre-flight:"}}, run);
    EXPECT_EQ(pmtool::Count(run.output, " PASS "), 32);

    CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
    adjust->Initialize();
    const std::tuple<int, uint32_t, uint32_t> stored[] = { // id, size, value; line value 135: next step (0: done), 134: last done
        {ADJUST_SHUTTER_PROCESS_MARK, 1, '&'}, {ADJUST_AWB_H_PROCESS_MARK, 1, '&'}, {ADJUST_INTERNAL_STROBE_PROCESS_MARK, 1, '&'},
        {ADJUST_LENS_MOUNT_PROCESS_MARK, 1, '&'}, {ADJUST_TOUCH_PROCESS_MARK, 1, '&'}, {ADJUST_MAIN_FUNCTION_PROCESS_MARK, 1, '&'},
        {ADJUST_CIS_SN, 4, 40718833}, {ADJUST_SHIPMENT_COUNTRY, 2, 2}, {ADJUST_AWB_HIGH_TEMP_RGAIN, 2, 1819}, {135, 4, 0}, {134, 4, 3}};
    for (const auto& [id, size, expected] : stored) {
        uint32_t value = 0; // little-endian
        EXPECT_TRUE(adjust->GetData(id, &value, size)) << id;
        EXPECT_EQ(value, expected) << id;
    }
    ExpectRuns({{sim + example + "--step 3", 0, {"from step 3 (label ADJ_03)", "[  1] CAP   line_process awb high 6500"}}});
}

TEST_F(PmodeSimTest, ProvokedFailureEndsTheRunAndTheNextRunResumesAtItsStep)
{
    fs::copy(pmtool::Source("examples/card"), root.Host("/card"), fs::copy_options::recursive);
    const std::string script = root.ReadFile("/card/production.adj");
    std::string failing = script;
    root.WriteFile("/card/production.adj", failing.replace(failing.find("shutter adjust 1/4000\n"), 21, "shutter adjust 1/4000 fail"));
    pmtool::Check({"failing run", 1, {"run FAILED (script mode, stopped at a failing command): 17 commands run, 16 passed, 1 failed",
                                      "failing command: [17] CAP shutter adjust 1/4000 fail (result -1)", "\"passed\": false",
                                      "\"failing_command\": {\"index\": 17, \"worker\": \"CAP\", \"command\": \"shutter adjust 1/4000 fail\"",
                                      "\"exit_status\": 1"}, {"[ 18]"}}, RunSim("--card " + root.Host("/card")));

    root.WriteFile("/card/production.adj", script);
    pmtool::Check({"resumed run", 0, {"from step 2 (label ADJ_02)", "[  1] CAP   shutter init 1", "\"resume_step\": 2",
                                      "20 commands run, 20 passed, 0 failed"}}, RunSim("--card " + root.Host("/card")));
}

TEST_F(PmodeSimTest, EachCardEndsWithItsVerdictAndABrokenOneNeverPasses)
{
    std::string garbage; // bytes no text file holds, the same on every run
    for (uint32_t i = 0, state = 12345; i < 4096; ++i, state = state * 1103515245u + 12345u) garbage += static_cast<char>(state >> 24);
    const std::string broken = "label ADJ_00\nkey check a\ngoto NOWHERE 1\nkey check b\n", noRun = "the card starts no production run";
    const std::string notRun = "run FAILED (script mode, not run: ", loop = "label ADJ_00\nlabel AGAIN\ndelay 1 ms\ngoto AGAIN 0\n";
    // info.tg's script, its text ("-": none, "DIR": a directory), options, status, output and report, commands passed.
    const std::tuple<std::string, std::string, std::string, int, std::vector<std::string>, int> cases[] = {
        {"", "-", "", 3, {noRun}, 0}, {"prod.adj", garbage, "", 1, {"pre-flight: /mnt/mmc/prod.adj:1: error: binary data (byte 0x", notRun}, 0},
        {"prod.adj", garbage, "--force", 1, {"not a pass: no command was run", "\"passed\": false"}, 0},
        {"prod.adj", "", "", 1, {"run FAILED (script mode, end of the script)", "not a pass: no command was run"}, 0},
        {"prod.adj", "DIR", "", 1, {"pre-flight: /mnt/mmc/prod.adj: error: the script is a directory, not a file", notRun}, 0},
        {"prod.adj", broken, "", 1, {"pre-flight: /mnt/mmc/prod.adj:3: error: goto to unknown label 'NOWHERE'",
                                     "not a pass: the pre-flight check found 1 error in the script\n"}, 0},
        {"prod.adj", broken, "--force", 1, {"Assertion Failed! --- File lib/production-mode/src/CProductionScript.cpp",
                                            "run FAILED (script mode, end of the script): 1 commands run, 1 passed, 0 failed",
                                            "not a pass: the pre-flight check found 1 error in the script (run forced with --force)",
                                            "not a pass: 1 failed check reported"}, 1},
        {"prod.adj", loop, "--force --timeout 0.5 --quiet", 4, {"pre-flight: /mnt/mmc/prod.adj:4: error: goto count '0' is read as 0",
                                                                "run FAILED (script mode, timed out after 0.5 s)", "\"aborted\": true"}, 0},
        {"", "-", "--host-link --serve-seconds 0", 0, {"run PASSED (host-link mode, served 0 s, then stopped)"}, 0},
        {"prod.adj", "label ADJ_00\nkey check a\"b\\c\tfail\n", "", 1,
         {"\"command\": \"key check a\\\"b\\\\c fail\"", "failure provoked by the script (parameter \\\"fail\\\")"}, 0},
        {"prod.adj", "adj_wifi certification 1\n", "", 0,
         {"script mode: /mnt/mmc/prod.adj (Wi-Fi certification)", "WIFI  adj_wifi certification 1"}, 1}};
    int row = 0;
    for (const auto& [script, text, options, status, expected, passes] : cases) {
        const std::string card = "/card-" + std::to_string(++row);
        fs::create_directories(root.Host(card));
        if (!script.empty()) root.WriteFile(card + "/info.tg", script);
        if (text == "DIR") fs::create_directories(root.Host(card + "/" + script + "/sub"));
        else if (text != "-") root.WriteFile(card + "/" + script, text);
        const pmtool::Result run = RunSim("--root " + root.Host("/device" + card) + " --card " + root.Host(card) + " " + options);
        pmtool::Check({expected.front(), status, expected, {" 0.00 s", "\"total_seconds\": 0.0,"}}, run); // the real elapsed time
        EXPECT_EQ(pmtool::Count(run.output, " PASS "), passes) << run.output;
    }
}

TEST_F(PmodeSimTest, NandTooSmallForTheCalibrationFailsTheRun)
{
    root.WriteFile("/card/info.tg", "nand.adj"); // storing the serial number saves the adjust group (5.3 MB)
    root.WriteFile("/card/nand.adj", "label ADJ_00\nline_process cis_data set 40718833\nkey check menu\n");
    const std::string run = sim + "--card " + root.Host("/card") + " --root " + root.Host("/device");
    for (bool storeInPlace : {false, true}) { // in place: made by a run without the limit
        SCOPED_TRACE(storeInPlace ? "store in place, the run's saves fail" : "fresh NAND");
        fs::remove_all(root.Host("/device"));
        if (storeInPlace) ExpectRuns({{run, 0, {}}});
        FileSizeLimit nand(1 << 20);
        ExpectRuns({{run, 1, {"run FAILED (script mode, ", storeInPlace ? " reported (\"Assertion Failed!\" above)"
                                  : "not a pass: the adjust data could not be initialised and saved on the NAND"}}});
    }
}

class PmodePcTest : public ::testing::Test {
protected:
    void TearDown() override { if (server != nullptr) StopServer(SIGKILL); } // still serving after a failed test

    void StartServer()
    {
        const std::string serve = "exec pmode-sim --root " + root.Dir() + " --card " + pmtool::Source("examples/card") +
                                  " --host-link --serve-seconds 60 --json " + root.Host("/report.json");
        server = popen(("echo $$; " + pmtool::kToolsFirst + serve + " >" + root.Host("/server.txt") + " 2>&1").c_str(), "r");
        ASSERT_NE(server, nullptr);
        ASSERT_EQ(fscanf(server, "%d", &serverPid), 1);
    }

    /// Stops the server (SIGINT, as a person would); its status, output and report.
    pmtool::Result StopServer(int signal = SIGINT)
    {
        kill(serverPid, signal);
        // A camera that does not stop fails the test instead of hanging it.
        int status = 0;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (waitpid(serverPid, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                ADD_FAILURE() << "the camera did not stop on signal " << signal;
                kill(serverPid, SIGKILL);
                waitpid(serverPid, &status, 0);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        pclose(server); // its process is reaped already
        server = nullptr;
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, root.ReadFile("/server.txt") + FlatReport(root.ReadFile("/report.json"))};
    }

    TestRoot root; // PMODE_ROOT of the tools
    FILE* server = nullptr;
    pid_t serverPid = -1;
    const std::string pc = "pmode-pc --timeout 15 --wait 20 ";
};

TEST_F(PmodePcTest, ExampleSessionPassesAndTheCameraReportsEveryRequest)
{
    StartServer();
    ExpectRuns({{pc + "batch " + pmtool::Source("examples/pc/session.batch"), 0,
                 {"20 requests, 20 passed, 0 failed", "BATCH PASSED", "-> response 0x10000000 0x0 0x0: done",
                  "-> response 0x10000002 0x0 0x0: adjustment passed", "-> response 0x10000002 0x1 0x0: FAILED  [PASS (failure expected)",
                  "-> response 0x10020002 0x0 0x0: sensor data taken", "-> response 0x10000002 0x10003 0x0: clock set",
                  "| CIS S/N 40718833", "-> file /mnt/mmc/cis_data.txt (61 bytes)", "| Index,CIS S/N,PART,PRESS,RELEASE,LATENCY_MS"}}});
    EXPECT_EQ(root.ReadFile("/mnt/mmc/pc_recorded.adj"), "lens focus_check 1\nshutter measure 1/4000\n");
    pmtool::Check({"camera", 0, {"run PASSED (host-link mode, stopped by SIGINT; failed answers are the PC's to judge): 18 commands run, 17 passed, 1 failed",
                                 "CAP   shutter shutter_speed2 1 (op 30 1 0 0)", "\"mode\": \"host-link\"",
                                 "\"command\": \"lens focus_check 3 fail\"", "\"protocol\": true, \"args\": [30, 1, 0, 0]"}}, StopServer());
}

TEST_F(PmodePcTest, FailuresBadRequestsAndSlowAnswersFailOnThePc)
{
    const std::string bad = root.Host("/bad.batch"), failing = root.Host("/failing.batch");
    root.WriteFile("/bad.batch", "line lens init 1\nsend lens init 1\nop 0x10040001 1 2\nop 0x10021000 1 2 3 4 5\nop 0x10021000 size payload=x.bin\n");
    root.WriteFile("/failing.batch", "# a failure nobody expected\nline lens init 1 fail\nline lens init 1\n");
    ExpectRuns({{"pmode-pc --wait 0.3 line lens init 1", 3, {"no camera serves the host link"}},
                {pc + "batch " + bad, 2, {bad + ":2: error: unknown request 'send'", bad + ":3: error: '0x10040001' is an operation code the camera does not serve",
                                          bad + ":4: error: more than four arguments", bad + ":5: error: cannot read the payload file"}}});
    StartServer();
    ExpectRuns({{pc + "batch " + failing, 1, {"2 requests, 1 passed, 1 failed", "failed: " + failing + ":2: line lens init 1 fail", "BATCH FAILED"}},
                {pc + "line lens focus_check 1", 0, {"adjustment passed"}},
                {pc + "op 0x10021001 0 0 0 0", 1, {}}}); // no worker for a protocol operation after a LENS line
    pmtool::Check({"camera, whose failed answer is the PC's to judge", 0,
                   {"run PASSED (host-link mode, stopped by SIGINT; failed answers are the PC's to judge)"}}, StopServer());
    StartServer();
    ExpectRuns({{"pmode-pc --wait 20 --timeout 0.3 line delay 1500 ms", 1, {"-> no answer within 300 ms  [FAIL]"}}});
    pmtool::Check({"camera, which finishes the late command all the same and passes when stopped", 0,
                   {"DD    delay 1500 ms", "run PASSED (host-link mode, stopped by SIGINT)"}}, StopServer());
}

TEST_F(PmodePcTest, EveryToolNamesAWrongArgumentAndRefusesTheHostRootAndNoRoot)
{
    fs::create_directory_symlink("/", root.Host("/host"));
    fs::create_directories(root.Host("/empty-plugins"));
    fs::create_directories(root.Host("/batch-dir"));
    root.WriteFile("/comments.batch", "# nothing but a comment\n\n");
    const std::string toHost = "resolves to the host's own \"/\"", missing = root.Host("/missing"), dump = root.Host("/x.dump");
    const std::string sim = "pmode-sim --root " + root.Dir() + " --card " + pmtool::Source("examples/card") + " ";
    const std::pair<std::string, std::string> wrong[] = { // command line, what its message names; each exits 2 and runs nothing
        {sim + "--frobnicate", "--frobnicate"}, {sim + "--card", "--card"}, {sim + "--step abc", "--step: 'abc'"},
        {sim + "--step 2147483648", "--step: '2147483648' is out of range"}, {sim + "--step -1", "--step: '-1'"},
        {sim + "--step 3x", "--step: '3x'"}, {sim + "--timeout 0", "--timeout: '0'"}, {sim + "--timeout soon", "--timeout: 'soon'"},
        {sim + "--timeout nan", "--timeout: 'nan'"}, {sim + "--serve-seconds -1", "--serve-seconds: '-1'"},
        {sim + "--serve-seconds 86401", "--serve-seconds: '86401'"}, {sim + "run extra", "extra"}, {"pmode-sim check", "SCRIPT"},
        {sim + "--json " + root.Host("/no/dir/report.json"), root.Host("/no/dir/report.json")},
        {sim + "--json " + root.Host("/empty-plugins"), "cannot write the report " + root.Host("/empty-plugins")},
        {"pmode-sim check --max 0 x", "--max: '0'"}, {"pmode-sim check --max 4294967296 x", "--max: '4294967296'"},
        {"pmode-sim check --max 5x x", "--max: '5x'"}, {"pmode-sim check --max -3 x", "--max: '-3'"}, {"pmode-sim check a b", "b"},
        {"pmode-pc --timeout 0 line x", "--timeout: '0'"}, {"pmode-pc --wait soon line x", "--wait: 'soon'"}, {"pmode-pc line", "WORDS"},
        {"pmode-pc send x", "'send' is not a command"}, {"pmode-pc op 12x", "CODE: '12x'"}, {"pmode-pc op", "CODE"},
        {"pmode-pc op 0xdeadbeef 1 2 3 4", "CODE: '0xdeadbeef' is an operation code the camera does not serve"},
        {"pmode-pc op 0x10021000 1 2 3 4 5", "5"}, {"pmode-pc op 0x10021000 4294967296", "P1: '4294967296'"},
        {"pmode-pc op 0x10021000 size --payload", "--payload"}, {"pmode-pc batch " + root.Host("/batch-dir"), "it is a directory"},
        {"pmode-pc batch " + root.Host("/comments.batch"), root.Host("/comments.batch") + " holds no request"},
        {"pmode-kv watch -n", "-n"}, {"pmode-kv watch -n 0 k", "-n: '0'"}, {"pmode-kv set-int k notanumber", "'notanumber' is not a"},
        {"pmode-kv set-int k 2147483648", "N: '2147483648'"}, {"pmode-kv get", "KEY"}, {"pmode-kv get a b", "b"},
        {"pmode-kv frob", "'frob' is not a command"}, {"pmode-kv --root", "--root"}, {"adjtool", "subcommand"},
        {"adjtool frob", "'frob' is not a command"}, {"adjtool set ADJUST_CIS_SN", "VALUE"}, {"adjtool get 27 --out", "--out"},
        {"adjtool get 27 extra", "extra"}, {"adjtool --root", "--root"}, {"adjtool --root x --image y list", "--image"},
        {"adjtool diff a b c", "c"}, {"adjtool get 133", "133"}};
    std::vector<pmtool::Expected> runs;
    for (const auto& [commandLine, named] : wrong)
        runs.push_back({commandLine, 2, {named}, {"BATCH PASSED", "plug-ins:", "no camera serves"}});
    runs.push_back({sim + "--plugins " + root.Host("/empty-plugins"), 2, {"no worker registered by the plug-ins"}});
    for (const auto& [before, option, message] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"env -u PMODE_ROOT ", "", "no device root"}, {"env PMODE_ROOT=/ ", "", toHost}, {"", "--root /", toHost},
             {"", "--root //", toHost}, {"", "--root /.", toHost}, {"", "--root " + root.Host("/host"), toHost},
             {"", "--root " + root.Host("/host/tmp/.."), toHost}, {"", "--root " + missing, "is not a directory"}}) {
        for (const std::string& work : {"pmode-kv " + option + " set pmode_test/key 1", "adjtool " + option + " dump " + dump,
                                        "pmode-pc " + option + " --wait 0 line lens init 1"})
            runs.push_back({before + work, 2, {message, "give --root DIR or set PMODE_ROOT=DIR"}});
        if (before.empty() && message == toHost) // without a root, or a missing one, pmode-sim makes its own
            runs.push_back({"pmode-sim " + option, 2, {toHost, "refused: give --root DIR"}});
    }
    ExpectRuns(runs);
    EXPECT_FALSE(fs::exists(missing));
    EXPECT_FALSE(fs::exists(dump));
}

TEST(ToolHelpTest, EveryToolAndCommandListsItsOptionsAndExitStatusesAndItsVersion)
{
    const std::string simRun = "--root --card --plugins --host-link --step --serve-seconds --timeout --json --force --quiet";
    const std::pair<std::string, std::string> commands[] = { // command, the options and operands its help names
        {"pmode-sim", "run check " + simRun + " --max SCRIPT"}, {"pmode-sim run", simRun}, {"pmode-sim check", "--max --quiet SCRIPT"},
        {"pmode-pc", "--root --timeout --wait line op batch WORDS CODE P1 P4 --payload FILE"}, {"pmode-pc line", "WORDS"},
        {"pmode-pc op", "CODE P1 P2 P3 P4 --payload"}, {"pmode-pc batch", "FILE"},
        {"pmode-kv", "--root get set set-int watch KEY VALUE N -n"}, {"pmode-kv get", "KEY"}, {"pmode-kv set", "KEY VALUE"},
        {"pmode-kv set-int", "KEY N"}, {"pmode-kv watch", "-n KEY"},
        {"adjtool", "--root --image list get set reset dump load verify diff ITEM VALUE --hex --out FILE A B"},
        {"adjtool list", ""}, {"adjtool get", "ITEM --hex --out"}, {"adjtool set", "ITEM VALUE"}, {"adjtool reset", "ITEM"},
        {"adjtool dump", "FILE"}, {"adjtool load", "FILE"}, {"adjtool verify", ""}, {"adjtool diff", "A B"}};
    for (const auto& [command, named] : commands) {
        const pmtool::Result help = pmtool::Run(command + " --help");
        pmtool::Check({command + " --help", 0, {"Usage: " + command + " [OPTIONS]", "--help", "exit status: "}}, help);
        std::istringstream list(named);
        for (std::string word; list >> word;) // as a word of its own: "--step N", "\nrun\n", "-n COUNT:"
            EXPECT_TRUE(std::regex_search(help.output, std::regex("(^|[ \\n,])" + word + "[ \\n:]"))) << command << ": " << word;
        if (command.find(' ') != std::string::npos) continue;
        const pmtool::Result version = pmtool::Run(command + " --version");
        EXPECT_EQ(version.status, 0) << command;
        EXPECT_TRUE(std::regex_match(version.output, std::regex(command + " [0-9]+\\.[0-9]+\\.[0-9]+\n"))) << version.output;
    }
}

TEST(ScriptCheckerTest, EachFaultIsFoundAtItsLineAndTheResolvedRunStopsWhereTheCameraStops)
{
    TestRoot root;
    const std::string path = root.Host("/script.adj");
    const std::string warnings = "label ADJ_00\nkey\tcheck\tmenu\nstep_end\nlabel L\nkey check menu\ngoto L 2x\nlabel ADJ_1\nkey check b\n"
                                 "label M\ngoto M 2\nkey check 1 2 3 4 5 6 7 8 9 10 11\nmenu_setup check " + std::string(49, 'w') + "\n";
    const std::string errors = "label ADJ_00\nkey check menu\n" + std::string(50, 'k') + " check 1\nkey check " + std::string(50, 'a') +
                               " x\nfocus check 1\nstrobe flash_write 1\nline_process nosuch 1\nlabel L\nkey check menu\ngoto L\ngoto L 0\n"
                               "goto L -2\ngoto L twice\ngoto M 1\nlabel OUT\nkey check a\nlabel IN\nkey check b\ngoto IN 2\ngoto OUT 1\n"
                               "label L\nlabel \n#note check 1\nkey check " + std::string(40, 'x') + " " + std::string(479, 'x') + "\nlabel END";
    const std::tuple<std::string, std::string, int, std::vector<std::string>> cases[] = { // script, options, status, output
        {warnings, "", 0, {"script:2: warning: words separated only by tabs", "script:3: warning: 'step_end' alone on a line",
                           "script:6: warning: goto count '2x' is read as 2", "script:11: warning: 13 words", "script: 0 errors, 6 warnings",
                           "script:7: warning: label 'ADJ_1' is never a resume point (step 1 resumes at 'ADJ_01')",
                           "script:10: warning: goto right after a label line"}},
        {errors, "", 1, {"script:3: error: first word is 50 bytes (at most 49)", "script:5: error: no worker group serves 'focus'",
                         "script:4: error: word 3 ('aaaaaaaaaaaaaaaaaaaa...') is 50 bytes", "script:10: error: goto 'L' without a count",
                         "script:6: error: no worker group serves 'strobe' ('strobe' is a sub-command: line_process strobe ...?)",
                         "script:7: error: no worker group serves 'line_process nosuch': sub-command 'nosuch' is in no group",
                         "script:12: error: goto count '-2' is read as -2", "script:13: error: goto count 'twice' is read as 0",
                         "script:22: error: label without a name", "script:19: error: counted loop 'IN' lies inside the loop of line 20",
                         "script:21: error: label 'L' defined twice (first on line 8)", "not resolved: fix the label and goto errors first",
                         "(comments start with //)", "script:24: warning: line of 530 bytes: the reader sees only the first 509",
                         "script:25: error: label 'END' on the last line without a newline"}},
        {std::string("key check a\nkey check b\0key check c\n", 36), "", 1,
         {"script:2: error: binary data (byte 0x00 at offset 23): not a text file; the reader sees nothing after a NUL byte"}},
        {"", "", 0, {"the script is empty: nothing runs"}},
        {"label ADJ_01\nkey check a\n", "", 1, {"script:1: error: resume label 'ADJ_00' is missing"}},
        {"label ADJ_00\nlens init 1\nlabel P\nshutter measure 1/4000\ngoto P 2\nline_process awb high 5500\nunknown_cmd x\ndelay 10 ms\n", "", 1,
         {"    1  LENS     lens init 1\n    2  CAP      shutter measure 1/4000\n    3  CAP      shutter measure 1/4000\n"
          "    4  CAP      shutter measure 1/4000\n    5  CAP      line_process awb high 5500\n"
          "    6  -        unknown_cmd x   (passed over: no worker)\n    7  DD       delay 10 ms\n       (end of the script)\n"}},
        {"lens init 1\nlens \nkey check menu\n", "", 1, {"script:2: error: command 'lens' has no parameter: the run ends here",
                                                         "    1  LENS     lens init 1\n       ('lens' has no parameter: the run ends there)\n"}},
        {"label L\nkey check a\ngoto L 0\n", "--max 7", 1, {"    7  UI       key check a\n       (stopped after 7 commands"}}};
    for (const auto& [script, options, status, expected] : cases) {
        root.WriteFile("/script.adj", script);
        pmtool::Result result = pmtool::Run("pmode-sim check " + options + " " + path);
        for (size_t at; (at = result.output.find(path)) != std::string::npos;) result.output.replace(at, path.size(), "script");
        pmtool::Check({expected.front(), status, expected}, result);
    }
}
