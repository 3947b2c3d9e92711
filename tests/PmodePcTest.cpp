// pmode-pc and pmode-sim in host-link mode: the factory PC drives the camera from
// another process through the simulated key-value store; every request gets its
// answer, decoded, and the batch summary says whether all went as expected.
#include "CAdjustDataManager.h"
#include "PmodeToolRun.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace fs = std::filesystem;

namespace {

class PmodePcTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        // A server still running at the end of a failed test is ended here.
        if (server > 0) {
            kill(server, SIGKILL);
            waitpid(server, nullptr, 0);
        }
    }

    /// Starts pmode-sim serving the example card over the host link.
    void StartServer(const std::string& serveSeconds = "60")
    {
        serverOutput = root.Dir() + "/server.txt";
        server = pmtool::Start({pmtool::Sim(), "--root", root.Dir(), "--card", pmtool::SourceDir() + "/examples/card",
                                "--host-link", "--serve-seconds", serveSeconds, "--json", root.Dir() + "/report.json"},
                               serverOutput);
        ASSERT_GT(server, 0);
    }

    /// Stops the server with SIGINT as a person would; its exit status.
    int StopServer()
    {
        kill(server, SIGINT);
        int status = pmtool::Wait(server, 30);
        server = -1;
        return status;
    }

    pmtool::Result Pc(std::vector<std::string> args)
    {
        std::vector<std::string> full = {pmtool::Pc(), "--root", root.Dir(), "--timeout", "15", "--wait", "20"};
        full.insert(full.end(), args.begin(), args.end());
        return pmtool::Run(full, root.Dir(), 90);
    }

    TestRoot root;
    pid_t server = -1;
    std::string serverOutput;
};

TEST_F(PmodePcTest, ExampleSessionPassesAndTheCameraReportsEveryRequest)
{
    StartServer();
    pmtool::Result batch = Pc({"batch", pmtool::SourceDir() + "/examples/pc/session.batch"});
    EXPECT_EQ(batch.status, 0) << batch.output;
    EXPECT_NE(batch.output.find("20 requests, 20 passed, 0 failed"), std::string::npos) << batch.output;
    EXPECT_NE(batch.output.find("BATCH PASSED"), std::string::npos);
    // Each kind of answer arrived decoded.
    EXPECT_NE(batch.output.find("-> response 0x10000000 0x0 0x0: done"), std::string::npos);
    EXPECT_NE(batch.output.find("-> response 0x10000002 0x0 0x0: adjustment passed"), std::string::npos);
    EXPECT_NE(batch.output.find("-> response 0x10000002 0x1 0x0: FAILED  [PASS (failure expected)"), std::string::npos);
    EXPECT_NE(batch.output.find("-> response 0x10020002 0x0 0x0: sensor data taken"), std::string::npos);
    EXPECT_NE(batch.output.find("-> response 0x10000002 0x10003 0x0: clock set"), std::string::npos);
    EXPECT_NE(batch.output.find("| CIS S/N 40718833"), std::string::npos) << "data block from the PC's sensor data";
    EXPECT_NE(batch.output.find("-> file /mnt/mmc/cis_data.txt (61 bytes)"), std::string::npos);
    EXPECT_NE(batch.output.find("| Index,CIS S/N,PART,PRESS,RELEASE,LATENCY_MS"), std::string::npos) << "result table as data";
    // The recorded lines went to the card instead of being run.
    EXPECT_EQ(root.ReadFile("/mnt/mmc/pc_recorded.adj"), "lens focus_check 1\nshutter measure 1/4000\n");

    // The camera side: one provoked failure among 18 commands run (two were recorded).
    EXPECT_EQ(StopServer(), 1);
    std::string output = pmtool::ReadAll(serverOutput);
    EXPECT_NE(output.find("run FAILED (host-link mode, stopped by a signal): 18 commands run, 17 passed, 1 failed"),
              std::string::npos)
        << output;
    EXPECT_NE(output.find("CAP   shutter shutter_speed2 1 (op 30 1 0 0)"), std::string::npos) << output;
    std::string json = pmtool::ReadAll(root.Dir() + "/report.json");
    EXPECT_NE(json.find("\"mode\": \"host-link\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"command\": \"lens focus_check 3 fail\""), std::string::npos);
    EXPECT_NE(json.find("\"protocol\": true, \"args\": [30, 1, 0, 0]"), std::string::npos);
}

TEST_F(PmodePcTest, UnexpectedFailureFailsTheBatchAndSingleRequestsWork)
{
    StartServer();
    std::string batchFile = root.Dir() + "/failing.batch";
    pmtool::WriteAll(batchFile, "# a failure nobody expected\nline lens init 1 fail\nline lens init 1\n");
    pmtool::Result batch = Pc({"batch", batchFile});
    EXPECT_EQ(batch.status, 1) << batch.output;
    EXPECT_NE(batch.output.find("2 requests, 1 passed, 1 failed"), std::string::npos) << batch.output;
    EXPECT_NE(batch.output.find("failed: " + batchFile + ":2: line lens init 1 fail"), std::string::npos);
    EXPECT_NE(batch.output.find("BATCH FAILED"), std::string::npos);

    pmtool::Result single = Pc({"line", "lens", "focus_check", "1"});
    EXPECT_EQ(single.status, 0) << single.output;
    EXPECT_NE(single.output.find("adjustment passed"), std::string::npos) << single.output;
    pmtool::Result op = Pc({"op", "0x10021001", "0", "0", "0", "0"});
    EXPECT_EQ(op.status, 1) << "no worker for a protocol operation after a LENS line: the camera answers failure\n"
                            << op.output;
    EXPECT_EQ(StopServer(), 1);
}

TEST_F(PmodePcTest, BadRequestsAndNoCamera)
{
    // Nobody serves this root: pmode-pc says so instead of waiting for ever.
    pmtool::Result none = pmtool::Run({pmtool::Pc(), "--root", root.Dir(), "--wait", "0.3", "line", "lens", "init", "1"},
                                      root.Dir(), 30);
    EXPECT_EQ(none.status, 3);
    EXPECT_NE(none.output.find("no camera serves the host link"), std::string::npos) << none.output;

    std::string batchFile = root.Dir() + "/bad.batch";
    pmtool::WriteAll(batchFile, "line lens init 1\nsend lens init 1\nop 0 1 2\nop 0x10021000 1 2 3 4 5\n"
                                "op 0x10021000 size payload=missing.bin\n");
    pmtool::Result bad = Pc({"batch", batchFile});
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.output.find(batchFile + ":2: error: unknown request 'send'"), std::string::npos) << bad.output;
    EXPECT_NE(bad.output.find(batchFile + ":3: error: an operation needs a code other than 0"), std::string::npos);
    EXPECT_NE(bad.output.find(batchFile + ":4: error: more than four arguments"), std::string::npos);
    EXPECT_NE(bad.output.find(batchFile + ":5: error: cannot read the payload file"), std::string::npos);
    EXPECT_EQ(Pc({"line"}).status, 2);
    EXPECT_EQ(Pc({"op", "12x"}).status, 2);
}

TEST_F(PmodePcTest, SlowAnswerTimesOutOnThePc)
{
    StartServer();
    pmtool::Result slow =
        pmtool::Run({pmtool::Pc(), "--root", root.Dir(), "--wait", "20", "--timeout", "0.3", "line", "delay", "1500", "ms"},
                    root.Dir(), 60);
    EXPECT_EQ(slow.status, 1);
    EXPECT_NE(slow.output.find("-> no answer within 300 ms  [FAIL]"), std::string::npos) << slow.output;
    // The camera finishes the command all the same and stops cleanly afterwards.
    EXPECT_EQ(StopServer(), 0);
    EXPECT_NE(pmtool::ReadAll(serverOutput).find("DD    delay 1500 ms"), std::string::npos);
}

TEST_F(PmodePcTest, LineValue139StartsTheHostLinkWithoutInfoTgw)
{
    int32_t one = 1;
    ASSERT_TRUE(CAdjustDataManager::GetInstance()->SetData(139, &one, 4, true));
    std::string card = root.Dir() + "/empty-card";
    fs::create_directories(card);
    pmtool::Result run = pmtool::Run({pmtool::Sim(), "--root", root.Dir(), "--card", card, "--serve-seconds", "1"}, root.Dir());
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("run PASSED (host-link mode, served 1 s)"), std::string::npos) << run.output;
}

TEST_F(PmodePcTest, ServerEndsByItselfAfterItsServingTime)
{
    StartServer("1");
    int status = pmtool::Wait(server, 30);
    server = -1;
    EXPECT_EQ(status, 0);
    std::string output = pmtool::ReadAll(serverOutput);
    EXPECT_NE(output.find("run PASSED (host-link mode, served 1 s): 0 commands run"), std::string::npos) << output;
}

TEST_F(PmodePcTest, HostLinkToolsRefuseTheHostRootAndNoRoot)
{
    const std::string host = root.Dir() + "/host";
    fs::create_directory_symlink("/", host);
    const std::string missing = root.Dir() + "/missing";
    struct Case {
        const char* name;
        const char* environmentRoot; // PMODE_ROOT for the tool; null: unset
        std::vector<std::string> rootOption;
        const char* message;
    };
    const Case cases[] = {
        {"no root", nullptr, {}, "no device root"},
        {"PMODE_ROOT=/", "/", {}, "resolves to the host's own \"/\""},
        {"--root /", nullptr, {"--root", "/"}, "resolves to the host's own \"/\""},
        {"--root //", nullptr, {"--root", "//"}, "resolves to the host's own \"/\""},
        {"--root /.", nullptr, {"--root", "/."}, "resolves to the host's own \"/\""},
        {"symlink to /", nullptr, {"--root", host}, "resolves to the host's own \"/\""},
        {"missing directory", nullptr, {"--root", missing}, "is not a directory"},
    };
    const std::vector<std::vector<std::string>> tools = {
        {pmtool::Kv(), "set", "pmode_test/key", "1"},
        {pmtool::Kv(), "watch", "-n", "1", "pmode_test/key"},
        {pmtool::Pc(), "--wait", "0", "line", "lens", "init", "1"},
    };
    for (const Case& c : cases) {
        for (const std::vector<std::string>& tool : tools) {
            SCOPED_TRACE(std::string(c.name) + ": " + tool[0] + " " + tool[1]);
            std::vector<std::string> args = {tool[0]};
            args.insert(args.end(), c.rootOption.begin(), c.rootOption.end());
            args.insert(args.end(), tool.begin() + 1, tool.end());
            if (c.environmentRoot != nullptr) setenv("PMODE_ROOT", c.environmentRoot, 1);
            else unsetenv("PMODE_ROOT");
            pmtool::Result run = pmtool::Run(args, root.Dir(), 10);
            setenv("PMODE_ROOT", root.Dir().c_str(), 1);
            EXPECT_EQ(run.status, 2) << run.output;
            EXPECT_NE(run.output.find(c.message), std::string::npos) << run.output;
            EXPECT_NE(run.output.find("give --root DIR or set PMODE_ROOT=DIR"), std::string::npos) << run.output;
        }
    }
    EXPECT_FALSE(fs::exists(missing));
}

} // namespace
