// Host-link sessions driven through the simulated key-value store the way the
// factory PC's side drives them: requests written to the request keys, answers
// read from the response keys.
#include "ProductionMode.h"
#include "ControllerTestKit.h"
#include "CAdjustDataManager.h"
#include "CProductionCSV.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "vconf.h"
#include "vconf_sim.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr const char* kScriptKey = "memory/private/pmode";
constexpr const char* kProtocolKeys[] = {"memory/private/pmode_protocol1", "memory/private/pmode_protocol2",
                                         "memory/private/pmode_protocol3", "memory/private/pmode_protocol4",
                                         "memory/private/pmode_protocol5"};
constexpr const char* kParam1 = "memory/private/pmode_Param1";
constexpr const char* kParam2 = "memory/private/pmode_Param2";
constexpr const char* kParam3 = "memory/private/pmode_Param3";
constexpr const char* kStream = "memory/private/pmode_stream";
constexpr const char* kFile = "memory/private/pmode_file";
constexpr const char* kPayload = "/var/run/memory/private/pmode_shutter_data";

using namespace controller_test;

/// One answer of the camera: the key written last for a request and its value.
struct Answer {
    std::string key;
    std::string value;
};

/// The factory PC's side of the link.
class FactoryPC {
public:
    FactoryPC()
    {
        for (const char* key : {kParam1, kStream, kFile}) vconf_notify_key_changed(key, &FactoryPC::onAnswer, this);
    }
    ~FactoryPC()
    {
        for (const char* key : {kParam1, kStream, kFile}) vconf_ignore_key_changed(key, &FactoryPC::onAnswer);
    }

    /// Sends a script line and waits for its answer (an empty key on time-out).
    Answer SendLine(const std::string& line)
    {
        return exchange([&] { vconf_set_str(kScriptKey, line.c_str()); });
    }

    /// Sends a protocol operation: arguments first, then the operation code.
    Answer SendProtocol(uint32_t code, uint32_t p1 = 0, uint32_t p2 = 0, uint32_t p3 = 0, uint32_t p4 = 0)
    {
        return exchange([&] {
            const uint32_t args[] = {p1, p2, p3, p4};
            for (int i = 0; i < 4; ++i) vconf_set_int(kProtocolKeys[i + 1], static_cast<int>(args[i]));
            vconf_set_int(kProtocolKeys[0], static_cast<int>(code));
        });
    }

    /// "p1,p2,p3" of the response keys, in hexadecimal.
    static std::string Respond()
    {
        int values[3] = {};
        vconf_get_int(kParam1, &values[0]);
        vconf_get_int(kParam2, &values[1]);
        vconf_get_int(kParam3, &values[2]);
        char text[64];
        std::snprintf(text, sizeof text, "%x,%x,%x", static_cast<unsigned>(values[0]), static_cast<unsigned>(values[1]),
                      static_cast<unsigned>(values[2]));
        return text;
    }

private:
    static void onAnswer(keynode_t* node, void* self)
    {
        auto* pc = static_cast<FactoryPC*>(self);
        Answer answer{vconf_keynode_get_name(node), ""};
        if (vconf_keynode_get_type(node) == VCONF_TYPE_STRING) {
            const char* value = vconf_keynode_get_str(node);
            answer.value = value != nullptr ? value : "";
        } else {
            answer.value = std::to_string(vconf_keynode_get_int(node));
        }
        {
            std::lock_guard<std::mutex> lock(pc->mutex);
            pc->answers.push_back(answer);
        }
        pc->arrived.notify_all();
    }

    Answer exchange(const std::function<void()>& send)
    {
        size_t seen;
        {
            std::lock_guard<std::mutex> lock(mutex);
            seen = answers.size();
        }
        send();
        std::unique_lock<std::mutex> lock(mutex);
        if (!arrived.wait_for(lock, 5s, [&] { return answers.size() > seen; })) return Answer{};
        return answers[seen];
    }

    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<Answer> answers;
};

class HostLinkRunTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        startLog();
        mode = CProductionMode::GetInstance();
        root.WriteFile("/mnt/mmc/info.tgw", "factory");
    }
    void TearDown() override { pm::SetTraceSink(nullptr); }

    /// Initialize, Start, and wait until the channel has subscribed to its keys:
    /// a protocol trigger of 0 is ignored by the channel, with a trace that shows it listens.
    void StartSession()
    {
        mode->Initialize();
        ASSERT_TRUE(mode->Start());
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        bool listening = false;
        while (!listening && std::chrono::steady_clock::now() < deadline) {
            vconf_set_int(kProtocolKeys[0], 0);
            ASSERT_EQ(0, vconf_sim_wait_idle(2000));
            listening = traced("PTPCommByProtocol No meanning message");
            if (!listening) std::this_thread::sleep_for(5ms);
        }
        ASSERT_TRUE(listening) << "the channel never subscribed";
    }

    /// Finalize, which must return although the loop waits for a message.
    void EndSession()
    {
        auto done = std::async(std::launch::async, [&] { mode->Finalize(); });
        ASSERT_EQ(std::future_status::ready, done.wait_for(5s)) << "Finalize did not return";
        EXPECT_FALSE(mode->IsActive());
    }

    TestRoot root;
    CProductionMode* mode = nullptr;
    FactoryPC pc;
};

TEST_F(HostLinkRunTest, ScriptLinesAreAnsweredWithTheDefaultOrTheWorkersOwnAnswer)
{
    std::vector<int> typesSeen;
    addWorker("LENS", [&](_tPM_Command*) {
        typesSeen.push_back(mode->GetOperationType());
        return 0;
    });
    addWorker("UI", [](_tPM_Command* command) {
        const std::string what = command->szParam[0];
        if (what == "fail") return -1;
        if (what == "respond") CPTPAdjInterface::GetInstance()->SetRespond(0x10000005, 7, 8);
        return 0;
    });
    addWorker("DD", [](_tPM_Command* command) {
        const std::string what = command->szParam[0];
        static unsigned char block[] = "measured 12.5";
        if (what == "data") CPTPAdjInterface::GetInstance()->SetData(block, sizeof block - 1);
        if (what == "file") CPTPAdjInterface::GetInstance()->SetFile("/mnt/mmc/capture.raw");
        return 0;
    });
    StartSession();
    EXPECT_FALSE(mode->IsActive()) << "waiting for the first message";

    struct Case {
        const char* line;
        const char* key;
        std::string answer; // the stream or file value, or the three response values
        const char* call;   // the worker call, "" for none
    } cases[] = {
        {"lens init 1", kParam1, "10000000,0,0", "LENS: lens init 1"},
        {"key fail 2", kParam1, "10000002,1,0", "UI: key fail 2"},
        {"key respond 1", kParam1, "10000005,7,8", "UI: key respond 1"},
        {"display data 1", kStream, "measured 12.5", "DD: display data 1"},
        {"sound file 1", kFile, "/mnt/mmc/capture.raw", "DD: sound file 1"},
        {"lens init 2", kParam1, "10000000,0,0", "LENS: lens init 2"},
        // No worker serves it: nothing is prepared and the values held are sent again.
        {"no_such_command x 1", kParam1, "10000000,0,0", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        const Answer answer = pc.SendLine(c.line);
        ASSERT_EQ(c.key, answer.key);
        EXPECT_EQ(c.answer, answer.key == kParam1 ? FactoryPC::Respond() : answer.value);
        const std::vector<std::string> calls = takeCalls();
        if (c.call[0] != '\0') {
            EXPECT_EQ(std::vector<std::string>{c.call}, calls);
        } else {
            EXPECT_TRUE(calls.empty());
        }
    }
    EXPECT_TRUE(traced("CMD FAIL: key, fail, 2"));
    EXPECT_TRUE(traced("Worker None: no_such_command, x, 1"));
    EXPECT_EQ((std::vector<int>{OP_TYPE_PTP, OP_TYPE_PTP}), typesSeen);
    EXPECT_TRUE(mode->IsActive());
    EndSession();
}

TEST_F(HostLinkRunTest, ProtocolOperationsRunOnTheWorkerOfTheLastScriptLine)
{
    std::atomic<bool> failNext{false};
    auto action = [&](_tPM_Command*) {
        const bool fail = failNext;
        failNext = false;
        return fail ? -1 : 0;
    };
    addWorker("CAP", action);
    addWorker("DD", action);
    addWorker("ETC", action);
    StartSession();

    // Before any script line there is no worker to run it on: a failed check, answered as a failure.
    const unsigned long checksBefore = pm::AssertionCount();
    ASSERT_EQ(kParam1, pc.SendProtocol(0x10030000, 1, 2).key);
    EXPECT_EQ("10000002,1,0", FactoryPC::Respond());
    EXPECT_EQ(checksBefore + 1, pm::AssertionCount());
    EXPECT_TRUE(takeCalls().empty());

    root.WriteFile(kPayload, "PAYLOAD-BYTES");
    struct Case {
        const char* name;
        const char* line; // selects the worker
        uint32_t code, p1, p2, p3, p4;
        bool fail;
        std::string respond; // "" when no response is prepared (the held values are sent again)
        std::string call;    // "" when nothing is run
    } cases[] = {
        {"shutter_speed2", "shutter speed 1", 0x10011000, (1u << 16) | 2, 0, 0, 9, false, "10000000,0,0",
         "CAP: shutter shutter_speed2 1 | 9 1 0 0 | PAYLOAD"},
        {"shutter_speed2 fails", "shutter speed 1", 0x10011000, (2u << 16) | 2, 0, 0, 4, true, "10000002,1,0",
         "CAP: shutter shutter_speed2 1 | 4 2 0 0 | PAYLOAD"},
        {"shutter low half not 2", "shutter speed 1", 0x10011000, 1, 0, 0, 4, false, "", ""},
        {"shutter upper half above 2", "shutter speed 1", 0x10011000, (3u << 16) | 2, 0, 0, 4, false,
         "10000002,1,0", ""},
        {"cis_data2", "line_process cis_data 0", 0x10021000, 1, 2, 3, 4, false, "10020002,0,0",
         "ETC: line_process cis_data2 0 | 4 1 2 3 | PAYLOAD"},
        {"cis_data_info", "line_process cis 0", 0x10021001, 1, 2, 3, 4, false, "10020000,0,0",
         "CAP: line_process cis_data_info 0 | 1 2 3 4"},
        {"rtc2", "line_process rtc 1", 0x10030000, 5, 6, 0, 0, false, "10000002,10003,0",
         "DD: line_process rtc2 1 | 5 6 0 0"},
        {"rtc2 fails", "line_process rtc 1", 0x10030000, 5, 6, 0, 0, true, "10000002,1,0",
         "DD: line_process rtc2 1 | 5 6 0 0"},
        {"paf2", "line_process paf 1", 0x10040000, 0, 0, 0, 0, false, "", "CAP: line_process paf2 1"},
        {"paf2 fails", "line_process paf 1", 0x10040000, 0, 0, 0, 0, true, "10000002,1,0",
         "CAP: line_process paf2 1"},
        {"paf other sub-code", "line_process paf 1", 0x10040001, 0, 0, 0, 0, false, "", ""},
        {"unknown group", "line_process paf 1", 0x10090000, 0, 0, 0, 0, false, "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // The script line that chooses the worker; its own answer is the default.
        ASSERT_EQ(kParam1, pc.SendLine(c.line).key);
        ASSERT_EQ("10000000,0,0", FactoryPC::Respond());
        takeCalls();
        failNext = c.fail;
        ASSERT_EQ(kParam1, pc.SendProtocol(c.code, c.p1, c.p2, c.p3, c.p4).key);
        // Nothing prepared: the channel resends the values still held (the script line's answer).
        EXPECT_EQ(c.respond.empty() ? "10000000,0,0" : c.respond, FactoryPC::Respond());
        const std::vector<std::string> calls = takeCalls();
        if (c.call.empty()) {
            EXPECT_TRUE(calls.empty());
        } else {
            EXPECT_EQ(std::vector<std::string>{c.call}, calls);
        }
        failNext = false;
    }
    EXPECT_TRUE(traced("Worker None: line_process, paf, 1"));
    EndSession();
}

TEST_F(HostLinkRunTest, StrobeProcessMarkDecidesTheAdjustResult)
{
    CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
    adjust->Initialize();
    addWorker("CAP");
    StartSession();

    struct Case {
        unsigned char mark;
        int result;
        const char* respond;
    } cases[] = {{'&', PM_RESULT_PASS, "10000002,0,0"}, {'^', PM_RESULT_FAIL, "10000002,1,0"},
                 {0, PM_RESULT_FAIL, "10000002,1,0"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("mark ") + std::to_string(c.mark));
        unsigned char mark = c.mark;
        ASSERT_TRUE(adjust->SetData(11, &mark, 1, true));
        ASSERT_EQ(kParam1, pc.SendLine("line_process strobe flash_write").key);
        EXPECT_EQ(c.respond, FactoryPC::Respond());
        int stored = 0;
        ASSERT_TRUE(adjust->GetData(137, &stored, sizeof stored));
        EXPECT_EQ(c.result, stored);
    }
    // Any other line_process strobe command gets the plain default.
    ASSERT_EQ(kParam1, pc.SendLine("line_process strobe flash_read").key);
    EXPECT_EQ("10000000,0,0", FactoryPC::Respond());
    EndSession();
}

TEST_F(HostLinkRunTest, RecordingWritesLinesToTheCardInsteadOfRunningThem)
{
    addWorker("LENS");
    addWorker("DD", [](_tPM_Command* command) {
        if (std::string(command->szParam[1]) == "on") {
            return CProductionMode::GetInstance()->StartCreateFile(command->szParam[2]) ? 0 : -1;
        }
        return 0;
    });
    StartSession();

    ASSERT_EQ(kParam1, pc.SendLine("data create_file on record.txt").key);
    EXPECT_EQ("10000000,0,0", FactoryPC::Respond());
    EXPECT_TRUE(mode->IsCreatingFile());
    takeCalls();

    for (const char* line : {"adj_result 1 2", "lens init 1", "shutter_log a", "sys_14 b"}) {
        SCOPED_TRACE(line);
        ASSERT_EQ(kParam1, pc.SendLine(line).key);
        EXPECT_EQ("10000000,0,0", FactoryPC::Respond());
    }
    EXPECT_TRUE(takeCalls().empty()) << "recorded lines are not run";
    EXPECT_EQ("adj_result.csv 1 2\nlens init 1\nshutter_log.csv a\nsys_14.csv b\n",
              root.ReadFile("/mnt/mmc/record.txt"));

    // The line that ends recording is run, not recorded; later lines run again.
    ASSERT_EQ(kParam1, pc.SendLine("data create_file off").key);
    ASSERT_EQ(kParam1, pc.SendLine("lens init 2").key);
    EXPECT_EQ((std::vector<std::string>{"DD: data create_file off", "LENS: lens init 2"}), takeCalls());
    EXPECT_FALSE(mode->IsCreatingFile());
    EXPECT_EQ("adj_result.csv 1 2\nlens init 1\nshutter_log.csv a\nsys_14.csv b\n",
              root.ReadFile("/mnt/mmc/record.txt"));

    // A name whose path would not fit is refused.
    EXPECT_FALSE(mode->StartCreateFile(std::string(60, 'n')));
    EXPECT_FALSE(mode->StartCreateFile(""));
    EndSession();
}

TEST_F(HostLinkRunTest, RecordFileThatCannotBeWrittenIsAnsweredAsAFailure)
{
    addWorker("DD", [](_tPM_Command* command) {
        if (std::string(command->szParam[1]) == "on") CProductionMode::GetInstance()->StartCreateFile(command->szParam[2]);
        return 0;
    });
    // A directory where the record file should be, and a full card.
    root.WriteFile("/mnt/mmc/folder/keep", "");
    ASSERT_EQ(0, symlink("/dev/full", root.Host("/mnt/mmc/full.txt").c_str()));
    StartSession();

    for (const char* name : {"folder", "full.txt"}) {
        SCOPED_TRACE(name);
        ASSERT_EQ(kParam1, pc.SendLine(std::string("data create_file on ") + name).key);
        const unsigned long checksBefore = pm::AssertionCount();
        ASSERT_EQ(kParam1, pc.SendLine("adj_result 1 2").key);
        EXPECT_EQ("10000002,1,0", FactoryPC::Respond());
        if (std::string(name) == "folder") {
            EXPECT_TRUE(traced("File Open ERROR"));
            EXPECT_EQ(checksBefore + 1, pm::AssertionCount());
        }
        ASSERT_EQ(kParam1, pc.SendLine("data create_file off").key);
        EXPECT_EQ("10000000,0,0", FactoryPC::Respond());
    }
    EndSession();
}

TEST_F(HostLinkRunTest, ResultTableOfAWorkerIsSentToThePC)
{
    CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
    adjust->Initialize();
    int serial = 777;
    ASSERT_TRUE(adjust->SetData(27, &serial, sizeof serial, true));
    addWorker("DD", [](_tPM_Command*) {
        CProductionCSV table;
        int rc = table.Create("adj_result.csv", "ITEM,VALUE");
        rc |= table.Write("%s,%d", "shutter", 5);
        rc |= table.write("awb,NG", false);
        table.Close();
        return rc == 0 ? 0 : -1;
    });
    StartSession();
    const Answer answer = pc.SendLine("display table 1");
    EXPECT_EQ(kStream, answer.key);
    EXPECT_EQ("adj_result.csv\r\nIndex,CIS S/N,ITEM,VALUE\r\n0,777,shutter,5\r\n1,777,awb,NG\r\n", answer.value);
    EXPECT_FALSE(root.Exists("/mnt/mmc/adj_result.csv")) << "no file is written in host-link mode";
    EndSession();
}

TEST_F(HostLinkRunTest, FinalizeEndsALoopWaitingForItsFirstMessage)
{
    addWorker("LENS");
    StartSession();
    EXPECT_FALSE(mode->IsActive());
    EndSession();
    // After Finalize the channel no longer listens.
    vconf_set_str(kScriptKey, "lens init 1");
    EXPECT_EQ(0, vconf_sim_wait_idle(2000));
    EXPECT_TRUE(takeCalls().empty());
}

TEST_F(HostLinkRunTest, FinalizeWhileAPayloadIsServedKeepsItForTheWorker)
{
    // The worker blocks while it serves a protocol payload; a script line waits
    // for the channel; then Finalize stops the channel under both of them.
    std::promise<void> serving, release;
    std::shared_future<void> released = release.get_future().share();
    std::string payloadSeen;
    addWorker("ETC", [&](_tPM_Command* command) {
        if (std::string(command->szParam[0]) != "cis_data2") return 0;
        serving.set_value();
        released.wait();
        payloadSeen.assign(command->pData, 7);
        return 0;
    });
    StartSession();
    root.WriteFile(kPayload, "PAYLOAD-BYTES");
    ASSERT_EQ(kParam1, pc.SendLine("line_process cis_data 0").key);
    takeCalls();
    auto answer = std::async(std::launch::async, [&] { return pc.SendProtocol(0x10021000, 1, 2, 3, 4); });
    ASSERT_EQ(std::future_status::ready, serving.get_future().wait_for(5s));

    vconf_set_str(kScriptKey, "line_process cis_data 1");
    ASSERT_TRUE(waitTraced("PTPCommByScript: waiting until the request in service is answered"));
    auto finalized = std::async(std::launch::async, [&] { mode->Finalize(); });
    EXPECT_TRUE(waitTraced("PTPCommByScript: channel stopped, request dropped"));
    ASSERT_EQ(0, vconf_sim_wait_idle(5000)) << "the waiting callback has left";
    release.set_value();

    ASSERT_EQ(std::future_status::ready, finalized.wait_for(5s)) << "Finalize did not return";
    EXPECT_EQ("PAYLOAD", payloadSeen);
    EXPECT_EQ(kParam1, answer.get().key) << "the request in service is still answered";
    EXPECT_EQ("10020002,0,0", FactoryPC::Respond());
    EXPECT_EQ(std::vector<std::string>{"ETC: line_process cis_data2 0 | 4 1 2 3 | PAYLOAD"}, takeCalls())
        << "the line that waited is not run";
    EXPECT_FALSE(mode->IsActive());
}

TEST_F(HostLinkRunTest, FinalizeRightAfterStartNeverHangs)
{
    addWorker("LENS");
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        mode->Initialize();
        ASSERT_TRUE(mode->Start());
        if (round % 2 == 1) std::this_thread::sleep_for(std::chrono::milliseconds(round));
        EndSession();
    }
}

TEST_F(HostLinkRunTest, ChannelThatCannotSubscribeIsReportedAndNoLoopRuns)
{
    addWorker("LENS");
    vconf_sim_fail_next_notify(2);
    mode->Initialize();
    ASSERT_TRUE(mode->Start());
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    bool reported = false;
    while (!reported && std::chrono::steady_clock::now() < deadline) {
        reported = root.ReadFile("/var/log/dlog.log").find("PTP Mount Error") != std::string::npos;
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_TRUE(reported);
    EXPECT_EQ(OP_TYPE_NONE, mode->GetOperationType());
    EndSession();
}

TEST_F(HostLinkRunTest, LineValue139StartsTheHostLinkWithoutInfoTgw)
{
    std::remove(root.Host("/mnt/mmc/info.tgw").c_str());
    int enable = 1;
    ASSERT_TRUE(CAdjustDataManager::GetInstance()->SetData(139, &enable, sizeof enable, true));
    addWorker("LENS");
    StartSession();
    ASSERT_EQ(kParam1, pc.SendLine("lens init 1").key);
    EXPECT_EQ("10000000,0,0", FactoryPC::Respond());
    EXPECT_EQ(std::vector<std::string>{"LENS: lens init 1"}, takeCalls());
    EndSession();
}

} // namespace
