// The host message channel over the real simulated key-value store: requests
// from another thread and another process, the hand-over to the controller's
// thread, protocol messages with and without payload, the response order, one
// request at a time, and stopping.
#include "CPTPAdjInterface.h"
#include "CProductionPTP.h"
#include "ControllerTestKit.h"
#include "OperationTypeHook.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "vconf.h"
#include "vconf_sim.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr const char* kScriptKey = "memory/private/pmode";
constexpr const char* kProtocolKeys[5] = {
    "memory/private/pmode_protocol1", "memory/private/pmode_protocol2", "memory/private/pmode_protocol3",
    "memory/private/pmode_protocol4", "memory/private/pmode_protocol5"};
constexpr const char* kPayload = "/var/run/memory/private/pmode_shutter_data";

std::string Tool()
{
    const char* dir = std::getenv("PM_TEST_BINARY_DIR");
    return std::string(dir != nullptr ? dir : ".") + "/tools/pmode-kv/pmode-kv";
}

/// Collects the answer keys in the order in which they are set.
struct AnswerLog {
    std::mutex mutex;
    std::vector<std::string> events;

    static void Callback(keynode_t* node, void* self)
    {
        auto* log = static_cast<AnswerLog*>(self);
        std::string text = vconf_keynode_get_name(node);
        text = text.substr(text.rfind('_') + 1) + "=";
        if (vconf_keynode_get_type(node) == VCONF_TYPE_INT) {
            char hex[16];
            std::snprintf(hex, sizeof hex, "%x", static_cast<unsigned>(vconf_keynode_get_int(node)));
            text += hex;
        } else {
            text += vconf_keynode_get_str(node);
        }
        std::lock_guard<std::mutex> lock(log->mutex);
        log->events.push_back(text);
    }

    std::vector<std::string> Take()
    {
        vconf_sim_wait_idle(10000);
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::string> taken;
        taken.swap(events);
        return taken;
    }
};

const char* const kAnswerKeys[] = {"memory/private/pmode_Param1", "memory/private/pmode_Param2",
                                   "memory/private/pmode_Param3", "memory/private/pmode_stream",
                                   "memory/private/pmode_file"};

class ProductionPTPTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        pm_test::SetOperationType(OP_TYPE_PTP);
        for (const char* key : kAnswerKeys) vconf_notify_key_changed(key, &AnswerLog::Callback, &answers);
    }
    void TearDown() override
    {
        pm::SetTraceSink(nullptr);
        channel.Unmount();
        for (const char* key : kAnswerKeys) vconf_ignore_key_changed(key, &AnswerLog::Callback);
        vconf_sim_wait_idle(10000);
        transfer->Dispatch();
        pm_test::SetOperationType(OP_TYPE_NONE);
    }

    /// The controller's wait for the next request, on a thread of its own.
    std::future<uint32_t> PollAsync()
    {
        return std::async(std::launch::async, [this] {
            channel.PollingPTPComm();
            return channel.GetPTPMessageType();
        });
    }

    void SetProtocolArgs(int p1, int p2, int p3, int p4)
    {
        const int values[4] = {p1, p2, p3, p4};
        for (int i = 0; i < 4; ++i) ASSERT_EQ(0, vconf_set_int(kProtocolKeys[i + 1], values[i]));
    }

    TestRoot root;
    CProductionPTP channel;
    CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();
    AnswerLog answers;
};

TEST_F(ProductionPTPTest, ScriptLineFromAnotherThreadIsParsedAndAnsweredParam3First)
{
    ASSERT_TRUE(channel.Mount());
    char* text = vconf_get_str(kScriptKey);
    ASSERT_NE(nullptr, text);
    EXPECT_STREQ("test", text) << "set before subscribing";
    std::free(text);
    int trigger = -1;
    EXPECT_EQ(0, vconf_get_int(kProtocolKeys[0], &trigger));
    EXPECT_EQ(0, trigger);
    vconf_sim_wait_idle(10000);
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType()) << "Mount's own sets start no request";

    auto polled = PollAsync();
    EXPECT_EQ(std::future_status::timeout, polled.wait_for(100ms)) << "no request yet";
    std::thread pc([] { vconf_set_str(kScriptKey, "line_process strobe flash_write"); });
    ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));
    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, polled.get());
    pc.join();

    _tPM_Command command = channel.ReadScript();
    EXPECT_STREQ("line_process", command.szWorker);
    EXPECT_EQ(2, command.nParamCount);
    EXPECT_STREQ("strobe", command.szParam[0]);
    EXPECT_STREQ("flash_write", command.szParam[1]);
    EXPECT_EQ(-1, channel.ReadScript().nParamCount) << "the text was used up";

    transfer->SetRespond(0x10000000, 0, 0);
    EXPECT_EQ(0, channel.SendPTP());
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType());
    EXPECT_EQ(0u, transfer->GetTransferDataType()) << "SendPTP dispatches";
    EXPECT_EQ((std::vector<std::string>{"Param3=0", "Param2=0", "Param1=10000000"}), answers.Take());

    // A second Mount subscribes nothing more: the next line is delivered once.
    EXPECT_TRUE(channel.Mount());
    polled = PollAsync();
    vconf_set_str(kScriptKey, "key power on");
    ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));
    EXPECT_STREQ("key", channel.ReadScript().szWorker);
    transfer->SetRespond(0x10000002, 1, 0);
    EXPECT_EQ(0, channel.SendPTP());
    EXPECT_EQ((std::vector<std::string>{"Param3=0", "Param2=1", "Param1=10000002"}), answers.Take());
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType()) << "no duplicate request";
}

TEST_F(ProductionPTPTest, RequestFromAnotherProcessIsServedAndItsAnswerReadThere)
{
    ASSERT_TRUE(channel.Mount());
    // The PC's side, played by another process: it watches the answer keys and writes the request.
    FILE* watcher = popen((Tool() + " watch -n 3 memory/private/pmode_Param1 memory/private/pmode_Param2 "
                                    "memory/private/pmode_Param3").c_str(), "r");
    ASSERT_NE(nullptr, watcher);
    char line[256];
    ASSERT_NE(nullptr, std::fgets(line, sizeof line, watcher));

    auto polled = PollAsync();
    ASSERT_EQ(0, std::system((Tool() + " set memory/private/pmode 'capture adjust cis 7'").c_str()));
    ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));
    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, polled.get());
    _tPM_Command command = channel.ReadScript();
    EXPECT_STREQ("capture", command.szWorker);
    EXPECT_STREQ("adjust", command.szParam[0]);
    EXPECT_STREQ("7", command.szParam[2]);

    transfer->SetRespond(0x10000002, 0, 5);
    EXPECT_EQ(0, channel.SendPTP());
    std::string seen;
    while (std::fgets(line, sizeof line, watcher) != nullptr) seen += line;
    EXPECT_EQ(0, pclose(watcher));
    EXPECT_EQ("memory/private/pmode_Param3=5\nmemory/private/pmode_Param2=0\n"
              "memory/private/pmode_Param1=268435458\n",
              seen);
}

TEST_F(ProductionPTPTest, ProtocolMessagesWithAndWithoutPayload)
{
    ASSERT_TRUE(channel.Mount());
    struct Case {
        const char* name;
        bool payloadFile;
        std::string payload;
        int expected;
    };
    const Case cases[] = {
        {"no payload file", false, "", 0},
        {"payload", true, std::string("\x01\x00\xFFraw", 6), 0},
        {"payload that reads like a script line", true, "key press 1", 0},
        {"empty payload", true, "", -4},
    };
    int trigger = 0x00030001;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::remove(root.Host(kPayload).c_str());
        if (c.payloadFile) root.WriteFile(kPayload, c.payload);
        SetProtocolArgs(11, -22, 33, 44);
        auto polled = PollAsync();
        std::thread pc([trigger] { vconf_set_int(kProtocolKeys[0], trigger); });
        ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));
        pc.join();
        EXPECT_EQ(uint32_t{PTP_MSG_PROTOCOL}, polled.get());

        int op = -9, p1 = -9, p2 = -9, p3 = -9, p4 = -9;
        char sentinel = 0;
        char* data = &sentinel;
        EXPECT_EQ(c.expected, channel.ReceivePTP(op, p1, p2, p3, p4, &data));
        EXPECT_EQ(-1, channel.ReadScript().nParamCount) << "a payload is never read as a script line";
        if (c.expected == 0) {
            EXPECT_EQ(trigger, op);
            EXPECT_EQ((std::vector<int>{11, -22, 33, 44}), (std::vector<int>{p1, p2, p3, p4}));
        } else {
            EXPECT_EQ((std::vector<int>{-9, -9, -9, -9, -9}), (std::vector<int>{op, p1, p2, p3, p4}))
                << "nothing read from an empty payload";
        }
        if (c.payloadFile && c.expected == 0) {
            ASSERT_NE(&sentinel, data);
            EXPECT_EQ(c.payload, std::string(data, c.payload.size()));
            EXPECT_EQ('\0', data[c.payload.size()]) << "a payload read as text ends with it";
        } else {
            EXPECT_EQ(&sentinel, data) << "payload output untouched";
        }
        EXPECT_EQ(0, channel.SendPTP());
        ++trigger;
    }

    // A trigger of 0 starts nothing.
    vconf_set_int(kProtocolKeys[0], 0);
    vconf_sim_wait_idle(10000);
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType());
}

TEST_F(ProductionPTPTest, ReceiveReportsUnreadableKeysAndAPayloadStillHeld)
{
    root.WriteFile(kPayload, "abc");
    int op = 0, p1 = 0, p2 = 0, p3 = 0, p4 = 0;
    char* data = nullptr;
    // Fresh store: no protocol keys at all.
    EXPECT_EQ(-5, channel.ReceivePTP(op, p1, p2, p3, p4, &data)) << "payload read, keys missing";
    ASSERT_NE(nullptr, data);
    EXPECT_EQ("abc", std::string(data, 3));

    // The payload was not released by SendPTP: the next one is refused.
    testing::internal::CaptureStdout();
    const unsigned long checks = pm::AssertionCount();
    char* second = nullptr;
    EXPECT_EQ(-3, channel.ReceivePTP(op, p1, p2, p3, p4, &second));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("CProductionPTP memory leak")) << out;
    EXPECT_NE(std::string::npos, out.find("Assertion Failed! --- File lib/production-mode/src/CProductionPTP.cpp"));
    EXPECT_EQ(checks + 1, pm::AssertionCount());
    EXPECT_EQ(nullptr, second);
    EXPECT_NE(std::string::npos, root.ReadFile("/var/log/dlog.log").find("CProductionPTP memory leak"));
    channel.SendPTP();

    // Without a payload file only the keys count; p3 and p4 may be missing.
    std::remove(root.Host(kPayload).c_str());
    vconf_set_int(kProtocolKeys[0], 0x20002);
    vconf_set_int(kProtocolKeys[1], 1);
    EXPECT_EQ(-5, channel.ReceivePTP(op, p1, p2, p3, p4, &data)) << "p2 missing";
    vconf_set_int(kProtocolKeys[2], 2);
    p3 = p4 = 77;
    EXPECT_EQ(0, channel.ReceivePTP(op, p1, p2, p3, p4, &data));
    EXPECT_EQ((std::vector<int>{0x20002, 1, 2, 77, 77}), (std::vector<int>{op, p1, p2, p3, p4}));
    vconf_sim_fail_next_get(1);
    EXPECT_EQ(-5, channel.ReceivePTP(op, p1, p2, p3, p4, &data)) << "unreadable operation code";
}

TEST_F(ProductionPTPTest, SecondRequestWaitsUntilTheFirstIsAnswered)
{
    ASSERT_TRUE(channel.Mount());
    auto polled = PollAsync();
    vconf_set_str(kScriptKey, "shutter first");
    ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));

    controller_test::startLog();
    vconf_set_str(kScriptKey, "sound second");
    ASSERT_TRUE(controller_test::waitTraced("PTPCommByScript: waiting until the request in service is answered"));
    EXPECT_EQ(PTP_MSG_SCRIPT, channel.GetPTPMessageType());
    polled = PollAsync();
    EXPECT_EQ(std::future_status::timeout, polled.wait_for(100ms)) << "not delivered while the first is served";
    EXPECT_STREQ("shutter", channel.ReadScript().szWorker) << "the first text was not overwritten";

    unsigned char block[] = {'o', 'k', '1'};
    transfer->SetData(block, 3);
    EXPECT_EQ(0, channel.SendPTP());
    ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));
    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, polled.get());
    EXPECT_STREQ("sound", channel.ReadScript().szWorker);
    transfer->SetFile("/mnt/mmc/result.csv");
    EXPECT_EQ(0, channel.SendPTP());
    EXPECT_EQ((std::vector<std::string>{"stream=ok1", "file=/mnt/mmc/result.csv"}), answers.Take());
}

TEST_F(ProductionPTPTest, UnmountWakesTheControllerWithTypeZeroAndStaysStopped)
{
    ASSERT_TRUE(channel.Mount());
    auto polled = PollAsync();
    EXPECT_EQ(std::future_status::timeout, polled.wait_for(100ms));
    EXPECT_TRUE(channel.Unmount());
    ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));
    EXPECT_EQ(uint32_t{PTP_MSG_NONE}, polled.get());

    // Not subscribed any more, and polling returns at once.
    vconf_set_str(kScriptKey, "key after stop");
    vconf_sim_wait_idle(10000);
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType());
    polled = PollAsync();
    EXPECT_EQ(std::future_status::ready, polled.wait_for(1s));
    EXPECT_TRUE(channel.Unmount()) << "not mounted: nothing to do";
}

TEST_F(ProductionPTPTest, ChannelDeletedWhileACallbackWaitsOutlivesTheCallback)
{
    controller_test::startLog();
    auto stopped = std::make_unique<CProductionPTP>();
    ASSERT_TRUE(stopped->Mount());
    vconf_set_str(kScriptKey, "shutter first");
    vconf_set_str(kScriptKey, "sound second"); // waits: the first is never answered
    ASSERT_TRUE(controller_test::waitTraced("PTPCommByScript: waiting until the request in service is answered"));
    EXPECT_TRUE(stopped->Unmount());
    stopped.reset(); // returns only once the waiting callback has left the channel
    EXPECT_TRUE(controller_test::traced("PTPCommByScript: channel stopped, request dropped"));
    EXPECT_EQ(0, vconf_sim_wait_idle(5000));
}

TEST_F(ProductionPTPTest, UnmountRetriesAndGivesUpAfterTenFailures)
{
    ASSERT_TRUE(channel.Mount());
    // Each try removes two subscriptions; four failures spoil the first two tries.
    vconf_sim_fail_next_ignore(4);
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(channel.Unmount());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 190ms) << "two pauses of 100 ms";
    vconf_sim_fail_next_ignore(0);

    ASSERT_TRUE(channel.Mount());
    vconf_sim_fail_next_ignore(20);
    start = std::chrono::steady_clock::now();
    EXPECT_FALSE(channel.Unmount());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
    vconf_sim_fail_next_ignore(0);
    auto polled = PollAsync();
    EXPECT_EQ(std::future_status::ready, polled.wait_for(1s)) << "marked not mounted although the removal failed";
    // Clean up the subscriptions that stayed, so no callback outlives the channel.
    EXPECT_TRUE(channel.unregisterPTPComm());
}

TEST_F(ProductionPTPTest, MountFailsOnlyWhenBothSubscriptionsFail)
{
    vconf_sim_fail_next_notify(2);
    EXPECT_FALSE(channel.Mount());
    auto polled = PollAsync();
    EXPECT_EQ(std::future_status::ready, polled.wait_for(1s)) << "not mounted: polling returns at once";
    polled.get();

    vconf_sim_fail_next_notify(1); // the script key fails, the protocol key holds
    EXPECT_TRUE(channel.Mount());
    polled = PollAsync();
    vconf_set_int(kProtocolKeys[0], 5);
    ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));
    EXPECT_EQ(uint32_t{PTP_MSG_PROTOCOL}, polled.get());
    EXPECT_EQ(0, channel.SendPTP());
}

TEST_F(ProductionPTPTest, RequestsOfTheWrongKindAreIgnored)
{
    ASSERT_TRUE(channel.Mount());
    vconf_set_int(kScriptKey, 12);            // a script line must be a string
    vconf_set_str(kProtocolKeys[0], "0x30001"); // a trigger must be an integer
    vconf_sim_wait_idle(10000);
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType());
    CProductionPTP::PTPCommByScript(nullptr, &channel);
    CProductionPTP::PTPCommByProtocol(nullptr, &channel);
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType());
}

TEST_F(ProductionPTPTest, FailedAnswerWriteIsReportedAndStillFreesTheChannel)
{
    ASSERT_TRUE(channel.Mount());
    auto polled = PollAsync();
    vconf_set_str(kScriptKey, "led on");
    ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));
    transfer->SetRespond(0x10000002, 1, 0);
    vconf_sim_fail_next_set(1); // Param3 cannot be written: Param2 and Param1 are not tried
    EXPECT_EQ(-1, channel.SendPTP());
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType());
    EXPECT_EQ(0u, transfer->GetTransferDataType());
    EXPECT_TRUE(answers.Take().empty()) << "nothing after the failed write";

    // Nothing pending: the values held are sent again.
    EXPECT_EQ(0, channel.SendPTP());
    EXPECT_EQ((std::vector<std::string>{"Param3=0", "Param2=1", "Param1=10000002"}), answers.Take());
}

} // namespace
