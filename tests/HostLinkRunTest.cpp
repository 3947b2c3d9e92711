// Host-link sessions driven through the simulated key-value store the way the factory
// PC drives them: requests written to the request keys, answers read from the response keys.
#include "ControllerTestKit.h"

#include <atomic>
#include <cstdio>
#include <thread>
#include <unistd.h>

namespace {

using namespace controller_test;
using Calls = std::vector<std::string>;

const std::string kDone = "Param3=0 Param2=0 Param1=10000000";
const std::string kFailed = "Param3=0 Param2=1 Param1=10000002";
const std::string kCisData = "Param3=0 Param2=0 Param1=10020002";

class HostLinkRunTest : public ControllerTest {
protected:
    void SetUp() override
    {
        ControllerTest::SetUp();
        root.WriteFile("/mnt/mmc/info.tgw", "factory");
        addWorkers({"LENS", "UI", "DD", "CAP", "ETC"}, [this](_tPM_Command& command) { return Serve(command); });
    }

    /// What the workers do besides logging, chosen by the first parameter: prepare their own
    /// answer, write the strobe process mark given as third parameter, or start recording.
    int Serve(_tPM_Command& command)
    {
        EXPECT_EQ(OP_TYPE_PTP, mode->GetOperationType());
        if (whileServing) whileServing(command);
        if (failNext.exchange(false)) return -1;
        const std::string what = command.szParam[0];
        static unsigned char block[] = "measured 12.5";
        if (what == "respond") CPTPAdjInterface::GetInstance()->SetRespond(0x10000005, 7, 8);
        if (what == "data") CPTPAdjInterface::GetInstance()->SetData(block, sizeof block - 1);
        if (what == "file") CPTPAdjInterface::GetInstance()->SetFile("/mnt/mmc/capture.raw");
        if (what == "strobe") return CAdjustDataManager::GetInstance()->SetData(11, command.szParam[2], 1, true) ? 0 : -1;
        const bool record = what == "create_file" && std::string(command.szParam[1]) == "on";
        return record && !mode->StartCreateFile(command.szParam[2]) ? -1 : 0;
    }

    /// Initialize, Start, and wait until the channel listens: once subscribed it ignores a
    /// protocol trigger of 0 with a trace.
    void StartSession()
    {
        mode->Initialize();
        ASSERT_TRUE(mode->Start());
        for (int tries = 0; tries < 1000 && !traced("PTPCommByProtocol No meanning message", 5ms); ++tries) {
            vconf_set_int(kProtocolKeys[0], 0);
        }
        ASSERT_TRUE(traced("PTPCommByProtocol No meanning message")) << "the channel never subscribed";
    }

    /// A script line and the answer to it ("" when none is complete within 5 s).
    std::string Send(const std::string& line)
    {
        vconf_set_str(kScriptKey, line.c_str());
        return takeAnswers(true);
    }
    /// A protocol operation, arguments first, and the answer to it.
    std::string SendProtocol(uint32_t code, std::vector<uint32_t> args)
    {
        for (int i = 0; i < 4; ++i) vconf_set_int(kProtocolKeys[i + 1], static_cast<int>(args[i]));
        vconf_set_int(kProtocolKeys[0], static_cast<int>(code));
        return takeAnswers(true);
    }

    std::atomic<bool> failNext{false};
    std::function<void(_tPM_Command&)> whileServing;
};

TEST_F(HostLinkRunTest, ScriptLinesAreAnsweredWithTheDefaultOrTheWorkersOwnAnswer)
{
    // Line value 139 starts the host link without info.tgw.
    std::remove(root.Host("/mnt/mmc/info.tgw").c_str());
    int enable = 1;
    ASSERT_TRUE(CAdjustDataManager::GetInstance()->SetData(139, &enable, sizeof enable, true));
    StartSession();
    struct Case {
        const char* worker; // "" for none
        const char* line;
        std::string answer;
    } cases[] = {
        {"LENS", "lens init 1", kDone}, {"UI", "key fail 2", kFailed},
        {"UI", "key respond 1", "Param3=8 Param2=7 Param1=10000005"}, {"DD", "display data 1", "stream=measured 12.5"},
        {"DD", "sound file 1", "file=/mnt/mmc/capture.raw"}, {"LENS", "lens init 2", kDone},
        // The strobe process mark the worker wrote decides the adjust result.
        {"CAP", "line_process strobe flash_write &", "Param3=0 Param2=0 Param1=10000002"},
        {"CAP", "line_process strobe flash_write ^", kFailed}, {"CAP", "line_process strobe flash_write", kFailed},
        {"CAP", "line_process strobe flash_read &", kDone},
        // No worker serves it: nothing is prepared and the values held are sent again.
        {"", "no_such_command x 1", kDone},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(c.answer, Send(c.line));
        EXPECT_EQ(c.worker[0] == '\0' ? Calls{} : Calls{std::string(c.worker) + ": " + c.line}, takeCalls());
    }
    int stored = 0;
    ASSERT_TRUE(CAdjustDataManager::GetInstance()->GetData(137, &stored, sizeof stored));
    EXPECT_EQ(PM_RESULT_FAIL, stored);
    EXPECT_TRUE(traced("CMD FAIL: key, fail, 2"));
    EXPECT_TRUE(traced("Worker None: no_such_command, x, 1"));
    EXPECT_TRUE(mode->IsActive());
    Finalize();
}

TEST_F(HostLinkRunTest, ProtocolOperationsRunOnTheWorkerOfTheLastScriptLine)
{
    StartSession();
    // Before any script line there is no worker to run it on: a failed check, answered as a failure.
    const unsigned long checksBefore = pm::AssertionCount();
    EXPECT_EQ(kFailed, SendProtocol(0x10030000, {1, 2, 0, 0}));
    EXPECT_EQ(checksBefore + 1, pm::AssertionCount());
    root.WriteFile(kPayload, "PAYLOAD-BYTES");
    struct Case {
        const char* line; // selects the worker
        uint32_t code;
        std::vector<uint32_t> args;
        bool fail;
        std::string answer; // kDone also when nothing is prepared: the line's answer is sent again
        std::string call;   // "" when nothing is run
    } cases[] = {
        {"shutter speed 1", 0x10011000, {(1u << 16) | 2, 0, 0, 9}, false, kDone,
         "CAP: shutter shutter_speed2 1 | 9 1 0 0 | PAYLOAD"},
        {"shutter speed 1", 0x10011000, {(2u << 16) | 2, 0, 0, 4}, true, kFailed,
         "CAP: shutter shutter_speed2 1 | 4 2 0 0 | PAYLOAD"},
        {"shutter speed 1", 0x10011000, {1, 0, 0, 4}, false, kDone, ""},
        {"shutter speed 1", 0x10011000, {(3u << 16) | 2, 0, 0, 4}, false, kFailed, ""},
        {"line_process cis_data 0", 0x10021000, {1, 2, 3, 4}, false, kCisData,
         "ETC: line_process cis_data2 0 | 4 1 2 3 | PAYLOAD"},
        {"line_process cis 0", 0x10021001, {1, 2, 3, 4}, false, "Param3=0 Param2=0 Param1=10020000",
         "CAP: line_process cis_data_info 0 | 1 2 3 4"},
        {"line_process rtc 1", 0x10030000, {5, 6, 0, 0}, false, "Param3=0 Param2=10003 Param1=10000002",
         "DD: line_process rtc2 1 | 5 6 0 0"},
        {"line_process rtc 1", 0x10030000, {5, 6, 0, 0}, true, kFailed, "DD: line_process rtc2 1 | 5 6 0 0"},
        {"line_process paf 1", 0x10040000, {0, 0, 0, 0}, false, kDone, "CAP: line_process paf2 1"},
        {"line_process paf 1", 0x10040000, {0, 0, 0, 0}, true, kFailed, "CAP: line_process paf2 1"},
        {"line_process paf 1", 0x10040001, {0, 0, 0, 0}, false, kDone, ""},
        {"line_process paf 1", 0x10090000, {0, 0, 0, 0}, false, kDone, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.line) + ", operation " + std::to_string(c.code) + ", p1 " +
                     std::to_string(c.args[0]) + (c.fail ? ", failing" : ""));
        ASSERT_EQ(kDone, Send(c.line));
        ASSERT_EQ(1u, takeCalls().size());
        failNext = c.fail;
        EXPECT_EQ(c.answer, SendProtocol(c.code, c.args));
        EXPECT_EQ(c.call.empty() ? Calls{} : Calls{c.call}, takeCalls());
    }
    EXPECT_TRUE(traced("Worker None: line_process, paf, 1"));
    Finalize();
}

TEST_F(HostLinkRunTest, RecordingWritesLinesToTheCardInsteadOfRunningThem)
{
    root.WriteFile("/mnt/mmc/folder/keep", ""); // a directory where the record file should be
    ASSERT_EQ(0, symlink("/dev/full", root.Host("/mnt/mmc/full.txt").c_str())); // a full card
    StartSession();
    for (const std::string name : {"record.txt", "folder", "full.txt"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(kDone, Send("data create_file on " + name));
        EXPECT_TRUE(mode->IsCreatingFile());
        const unsigned long checksBefore = pm::AssertionCount();
        for (const char* line : {"adj_result 1 2", "lens init 1", "shutter_log a", "sys_14 b"}) {
            EXPECT_EQ(name == "record.txt" ? kDone : kFailed, Send(line)) << line;
        }
        EXPECT_EQ(checksBefore + (name == "folder" ? 4 : 0), pm::AssertionCount());
        // The line that ends recording is run, not recorded; later lines run again.
        EXPECT_EQ(kDone, Send("data create_file off"));
        EXPECT_EQ(kDone, Send("lens init 2"));
        EXPECT_EQ((Calls{"DD: data create_file on " + name, "DD: data create_file off", "LENS: lens init 2"}),
                  takeCalls());
        EXPECT_FALSE(mode->IsCreatingFile());
    }
    EXPECT_TRUE(traced("File Open ERROR"));
    EXPECT_EQ("adj_result.csv 1 2\nlens init 1\nshutter_log.csv a\nsys_14.csv b\n", root.ReadFile("/mnt/mmc/record.txt"));
    // A name whose path would not fit is refused.
    EXPECT_FALSE(mode->StartCreateFile(std::string(55, 'n')));
    EXPECT_TRUE(mode->StartCreateFile(std::string(54, 'n')));
    EXPECT_FALSE(mode->StartCreateFile(""));
    Finalize();
}

TEST_F(HostLinkRunTest, FinalizeEndsTheLoopAtAnyMomentAndAChannelThatCannotSubscribeIsReported)
{
    vconf_sim_fail_next_notify(2);
    mode->Initialize();
    ASSERT_TRUE(mode->Start());
    ASSERT_TRUE(traced("vconf_add_chaged_cb fail for key : memory/private/pmode_protocol1", 5s));
    Finalize(); // joins the thread that reports
    EXPECT_THAT(root.ReadFile("/var/log/dlog.log"), testing::HasSubstr("PTP Mount Error"));
    for (int pause : {0, 1, 0, 3, 0}) {
        SCOPED_TRACE("Finalize " + std::to_string(pause) + " ms after Start");
        mode->Initialize();
        ASSERT_TRUE(mode->Start());
        std::this_thread::sleep_for(std::chrono::milliseconds(pause));
        Finalize();
    }
    StartSession();
    EXPECT_FALSE(mode->IsActive()) << "waiting for the first message";
    Finalize();
    vconf_set_str(kScriptKey, "lens init 1");
    EXPECT_EQ(0, vconf_sim_wait_idle(2000));
    EXPECT_TRUE(takeCalls().empty()) << "the channel no longer listens";
}

TEST_F(HostLinkRunTest, FinalizeWhileAPayloadIsServedKeepsItForTheWorker)
{
    // The worker blocks while it serves a payload; a script line waits for the channel;
    // then Finalize stops the channel under both of them.
    std::promise<void> serving, release;
    std::shared_future<void> released = release.get_future().share();
    std::string payloadSeen;
    whileServing = [&](_tPM_Command& command) {
        if (std::string(command.szParam[0]) != "cis_data2") return;
        serving.set_value();
        released.wait();
        payloadSeen.assign(command.pData, 7);
    };
    StartSession();
    root.WriteFile(kPayload, "PAYLOAD-BYTES");
    ASSERT_EQ(kDone, Send("line_process cis_data 0"));
    takeCalls();
    auto answer = std::async(std::launch::async, [&] { return SendProtocol(0x10021000, {1, 2, 3, 4}); });
    ASSERT_EQ(std::future_status::ready, serving.get_future().wait_for(5s));
    vconf_set_str(kScriptKey, "line_process cis_data 1");
    ASSERT_TRUE(traced("PTPCommByScript: waiting until the request in service is answered", 5s));
    auto finalized = std::async(std::launch::async, [&] { mode->Finalize(); });
    EXPECT_TRUE(traced("PTPCommByScript: channel stopped, request dropped", 5s));
    ASSERT_EQ(0, vconf_sim_wait_idle(5000)) << "the waiting callback has left";
    release.set_value();
    ASSERT_EQ(std::future_status::ready, finalized.wait_for(5s)) << "Finalize did not return";
    EXPECT_EQ("PAYLOAD", payloadSeen);
    EXPECT_EQ(kCisData, answer.get()) << "the request in service is still answered";
    EXPECT_EQ(Calls{"ETC: line_process cis_data2 0 | 4 1 2 3 | PAYLOAD"}, takeCalls()) << "the waiting line is not run";
    EXPECT_FALSE(mode->IsActive());
}

} // namespace
