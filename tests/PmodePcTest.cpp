// pmode-pc and pmode-sim in host-link mode: the factory PC drives the camera from
// another process through the simulated key-value store; every request gets its
// answer, decoded, and the batch summary says whether all went as expected. All the
// tools refuse to work on the host's own "/" or on no device root.
#include "CAdjustDataManager.h"
#include "PmodeToolRun.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;
using pmtool::ExpectRuns;

namespace {

class PmodePcTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        if (server != nullptr) StopServer(SIGKILL); // still serving after a failed test
    }

    /// Starts pmode-sim serving the example card over the host link, its output to server.txt.
    void StartServer()
    {
        server = popen(("echo $$; exec pmode-sim --root " + root.Dir() + " --card " + pmtool::Source("examples/card") +
                        " --host-link --serve-seconds 60 --json " + root.Host("/report.json") + " >" + root.Host("/server.txt") + " 2>&1")
                           .c_str(), "r");
        ASSERT_NE(server, nullptr);
        ASSERT_EQ(fscanf(server, "%d", &serverPid), 1);
    }

    /// Stops the server (SIGINT: as a person would); its exit status and output and report.
    pmtool::Result StopServer(int signal = SIGINT)
    {
        kill(serverPid, signal);
        const int status = pclose(server);
        server = nullptr;
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, root.ReadFile("/server.txt") + root.ReadFile("/report.json")};
    }

    TestRoot root; // PMODE_ROOT of the tools
    FILE* server = nullptr;
    pid_t serverPid = -1;
    const std::string pc = "pmode-pc --timeout 15 --wait 20 ";
};

TEST_F(PmodePcTest, ExampleSessionPassesAndTheCameraReportsEveryRequest)
{
    StartServer();
    // Each kind of answer arrives decoded; data blocks are the PC's sensor data and a result table.
    ExpectRuns({{pc + "batch " + pmtool::Source("examples/pc/session.batch"), 0,
                 {"20 requests, 20 passed, 0 failed", "BATCH PASSED", "-> response 0x10000000 0x0 0x0: done",
                  "-> response 0x10000002 0x0 0x0: adjustment passed", "-> response 0x10000002 0x1 0x0: FAILED  [PASS (failure expected)",
                  "-> response 0x10020002 0x0 0x0: sensor data taken", "-> response 0x10000002 0x10003 0x0: clock set",
                  "| CIS S/N 40718833", "-> file /mnt/mmc/cis_data.txt (61 bytes)", "| Index,CIS S/N,PART,PRESS,RELEASE,LATENCY_MS"}}});
    // The recorded lines went to the card instead of being run.
    EXPECT_EQ(root.ReadFile("/mnt/mmc/pc_recorded.adj"), "lens focus_check 1\nshutter measure 1/4000\n");

    // The camera side: one provoked failure among 18 commands run (two were recorded).
    const pmtool::Result camera = StopServer();
    EXPECT_EQ(camera.status, 1);
    pmtool::ExpectHas(camera.output, {"run FAILED (host-link mode, stopped by a signal): 18 commands run, 17 passed, 1 failed",
                                      "CAP   shutter shutter_speed2 1 (op 30 1 0 0)", "\"mode\": \"host-link\"",
                                      "\"command\": \"lens focus_check 3 fail\"", "\"protocol\": true, \"args\": [30, 1, 0, 0]"});
}

TEST_F(PmodePcTest, UnexpectedFailureFailsTheBatchAndEachRequestGetsItsAnswer)
{
    StartServer();
    root.WriteFile("/failing.batch", "# a failure nobody expected\nline lens init 1 fail\nline lens init 1\n");
    ExpectRuns({{pc + "batch " + root.Host("/failing.batch"), 1,
                 {"2 requests, 1 passed, 1 failed", "failed: " + root.Host("/failing.batch") + ":2: line lens init 1 fail", "BATCH FAILED"}},
                {pc + "line lens focus_check 1", 0, {"adjustment passed"}},
                // No worker serves a protocol operation after a LENS line: the camera answers failure.
                {pc + "op 0x10021001 0 0 0 0", 1, {}},
                // An answer later than the PC waits is a failure on the PC; the camera finishes the command all the same.
                {"pmode-pc --wait 20 --timeout 0.3 line delay 1500 ms", 1, {"-> no answer within 300 ms  [FAIL]"}}});
    const pmtool::Result camera = StopServer();
    EXPECT_EQ(camera.status, 1);
    pmtool::ExpectHas(camera.output, {"DD    delay 1500 ms"});
}

TEST_F(PmodePcTest, BadRequestsAreRefusedAndNoCameraIsReported)
{
    root.WriteFile("/bad.batch", "line lens init 1\nsend lens init 1\nop 0 1 2\nop 0x10021000 1 2 3 4 5\nop 0x10021000 size payload=missing.bin\n");
    const std::string bad = root.Host("/bad.batch");
    ExpectRuns({{"pmode-pc --wait 0.3 line lens init 1", 3, {"no camera serves the host link"}},
                {pc + "batch " + bad, 2, {bad + ":2: error: unknown request 'send'", bad + ":3: error: an operation needs a code other than 0",
                                          bad + ":4: error: more than four arguments", bad + ":5: error: cannot read the payload file"}},
                {pc + "line", 2, {}}, {pc + "op 12x", 2, {}}});
}

TEST_F(PmodePcTest, LineValue139StartsTheHostLinkWithoutInfoTgwAndTheServerEndsAfterItsTime)
{
    int32_t one = 1;
    ASSERT_TRUE(CAdjustDataManager::GetInstance()->SetData(139, &one, 4, true));
    fs::create_directories(root.Host("/empty-card"));
    ExpectRuns({{"pmode-sim --root " + root.Dir() + " --card " + root.Host("/empty-card") + " --serve-seconds 1", 0,
                 {"run PASSED (host-link mode, served 1 s): 0 commands run"}}});
}

TEST_F(PmodePcTest, EveryToolRefusesTheHostRootAndNoRoot)
{
    fs::create_directory_symlink("/", root.Host("/host"));
    const std::string toHost = "resolves to the host's own \"/\"", missing = root.Host("/missing"), dump = root.Host("/x.dump");
    const std::string give = "give --root DIR or set PMODE_ROOT=DIR";
    struct Case {
        std::string environment; // before the tool
        std::string option;      // after it
        std::string message;
    };
    const Case cases[] = {{"env -u PMODE_ROOT", "", "no device root"}, {"env PMODE_ROOT=/", "", toHost}, {"", "--root /", toHost},
                          {"", "--root //", toHost}, {"", "--root /.", toHost}, {"", "--root " + root.Host("/host"), toHost},
                          {"", "--root " + root.Host("/host/tmp/.."), toHost}, {"", "--root " + missing, "is not a directory"}};
    std::vector<pmtool::Expected> runs;
    for (const Case& c : cases) {
        for (const char* tool : {"pmode-kv", "pmode-pc", "adjtool"}) {
            const std::string work = tool == std::string("pmode-pc") ? " --wait 0 line lens init 1" : tool == std::string("adjtool") ? " dump " + dump : " set pmode_test/key 1";
            runs.push_back({c.environment + " " + tool + " " + c.option + work, 2, {c.message, give}});
        }
        // pmode-sim makes a device root of its own when none is given or it is missing.
        if (c.message == toHost && c.environment.empty()) runs.push_back({"pmode-sim " + c.option, 2, {toHost, "refused: give --root DIR"}});
    }
    ExpectRuns(runs);
    EXPECT_FALSE(fs::exists(missing));
    EXPECT_FALSE(fs::exists(dump));
}

} // namespace
