// The host message channel over the simulated key-value store, driven directly: the
// hand-over to the controller's thread, payloads, answers, failures of the store,
// stopping, and a request from another process.
#include "ControllerTestKit.h"
#include "OperationTypeHook.h"

#include <cstdio>
#include <memory>

namespace {

using namespace controller_test;

class ProductionPTPTest : public ControllerTest {
protected:
    ProductionPTPTest() { pm_test::SetOperationType(OP_TYPE_PTP); }
    ~ProductionPTPTest() override { channel.Unmount(); }

    /// The controller's wait for the next request, on a thread of its own.
    std::future<uint32_t> PollAsync()
    {
        return std::async(std::launch::async, [this] {
            channel.PollingPTPComm();
            return channel.GetPTPMessageType();
        });
    }
    /// Makes a request and returns what the controller's wait then finds (~0u: nothing within 5 s).
    uint32_t Request(const std::function<void()>& set)
    {
        auto polled = PollAsync();
        set();
        return polled.wait_for(5s) == std::future_status::ready ? polled.get() : ~0u;
    }
    uint32_t RequestLine(const char* line) { return Request([line] { vconf_set_str(kScriptKey, line); }); }

    CProductionPTP channel;
    CPTPAdjInterface* transfer = CPTPAdjInterface::GetInstance();
};

TEST_F(ProductionPTPTest, ScriptLinesAreHandedOverOneAtATimeAndAnsweredParam3First)
{
    ASSERT_TRUE(channel.Mount());
    char* text = vconf_get_str(kScriptKey);
    EXPECT_STREQ("test", text) << "set before subscribing";
    std::free(text);
    int trigger = -1;
    EXPECT_EQ(0, vconf_get_int(kProtocolKeys[0], &trigger));
    EXPECT_EQ(0, trigger);
    EXPECT_EQ(0, vconf_sim_wait_idle(10000));
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType()) << "Mount's own sets start no request";
    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, RequestLine("line_process strobe flash_write"));

    // A second line waits until the first is answered and does not overwrite it.
    vconf_set_str(kScriptKey, "sound second");
    ASSERT_TRUE(traced("PTPCommByScript: waiting until the request in service is answered", 5s));
    auto polled = PollAsync();
    EXPECT_EQ(std::future_status::timeout, polled.wait_for(100ms)) << "not delivered while the first is served";
    EXPECT_EQ("line_process strobe flash_write", describe(channel.ReadScript()));
    EXPECT_EQ(-1, channel.ReadScript().nParamCount) << "the text was used up";
    transfer->SetRespond(0x10000002, 1, 5);
    EXPECT_EQ(0, channel.SendPTP());
    ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));
    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, polled.get());
    EXPECT_EQ("sound second", describe(channel.ReadScript()));
    transfer->SetFile("/mnt/mmc/result.csv");
    EXPECT_EQ(0, channel.SendPTP());

    // A second Mount subscribes nothing more: the next line is delivered once.
    EXPECT_TRUE(channel.Mount());
    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, RequestLine("key power on"));
    unsigned char block[] = {'o', 'k', '1'};
    transfer->SetData(block, 3);
    EXPECT_EQ(0, channel.SendPTP());
    EXPECT_EQ(0u, transfer->GetTransferDataType()) << "SendPTP dispatches";
    EXPECT_EQ("Param3=5 Param2=1 Param1=10000002 file=/mnt/mmc/result.csv stream=ok1", takeAnswers());
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType()) << "no duplicate request";

    // An answer that cannot be written: Param3 fails, Param2 and Param1 are not tried; the channel is free.
    ASSERT_EQ(uint32_t{PTP_MSG_SCRIPT}, RequestLine("led on"));
    transfer->SetRespond(0x10000002, 1, 5);
    vconf_sim_fail_next_set(1);
    EXPECT_EQ(-1, channel.SendPTP());
    EXPECT_EQ(0u, transfer->GetTransferDataType()) << "dispatched all the same";
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType());
    EXPECT_EQ("", takeAnswers());
    EXPECT_EQ(0, channel.SendPTP()) << "nothing pending: the values held are sent again";
    EXPECT_EQ("Param3=5 Param2=1 Param1=10000002", takeAnswers());
}

TEST_F(ProductionPTPTest, RequestFromAnotherProcessIsServedAndItsAnswerReadThere)
{
    const char* dir = std::getenv("PM_TEST_BINARY_DIR");
    const std::string tool = std::string(dir != nullptr ? dir : ".") + "/tools/pmode-kv/pmode-kv";
    ASSERT_TRUE(channel.Mount());
    // The PC's side, played by another process: it watches the answer keys and writes the request.
    const std::string keys = std::string(kAnswerKeys[0]) + " " + kAnswerKeys[1] + " " + kAnswerKeys[2];
    FILE* watcher = popen((tool + " watch -n 3 " + keys).c_str(), "r");
    ASSERT_NE(nullptr, watcher);
    char line[256];
    ASSERT_NE(nullptr, std::fgets(line, sizeof line, watcher));
    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, Request([&] {
                  ASSERT_EQ(0, std::system((tool + " set memory/private/pmode 'capture adjust cis 7'").c_str()));
              }));
    EXPECT_EQ("capture adjust cis 7", describe(channel.ReadScript()));
    transfer->SetRespond(0x10000002, 0, 5);
    EXPECT_EQ(0, channel.SendPTP());
    std::string seen;
    while (std::fgets(line, sizeof line, watcher) != nullptr) seen += line;
    EXPECT_EQ(0, pclose(watcher));
    EXPECT_EQ("memory/private/pmode_Param3=5\nmemory/private/pmode_Param2=0\nmemory/private/pmode_Param1=268435458\n",
              seen);
}

TEST_F(ProductionPTPTest, ProtocolMessagesWithAndWithoutPayloadAndRequestsOfTheWrongKind)
{
    ASSERT_TRUE(channel.Mount());
    const int args[] = {11, -22, 33, 44};
    for (int i = 0; i < 4; ++i) ASSERT_EQ(0, vconf_set_int(kProtocolKeys[i + 1], args[i]));
    struct Case {
        const char* name;
        const char* payload; // nullptr: no payload file
        size_t size;
        int expected;
    } cases[] = {
        {"no payload file", nullptr, 0, 0}, {"payload", "\x01\x00\xFFraw", 6, 0}, {"empty payload", "", 0, -4}};
    int trigger = 0x00030001;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::remove(root.Host(kPayload).c_str());
        if (c.payload != nullptr) root.WriteFile(kPayload, std::string(c.payload, c.size));
        EXPECT_EQ(uint32_t{PTP_MSG_PROTOCOL}, Request([trigger] { vconf_set_int(kProtocolKeys[0], trigger); }));
        int op = -9, p1 = -9, p2 = -9, p3 = -9, p4 = -9;
        char sentinel = 0;
        char* data = &sentinel;
        EXPECT_EQ(c.expected, channel.ReceivePTP(op, p1, p2, p3, p4, &data));
        EXPECT_EQ(-1, channel.ReadScript().nParamCount) << "a payload is never read as a script line";
        const std::vector<int> read = {op, p1, p2, p3, p4};
        EXPECT_EQ((c.expected == 0 ? std::vector<int>{trigger, 11, -22, 33, 44} : std::vector<int>(5, -9)), read);
        // A payload read ends with a NUL; without one the output is left alone.
        const bool held = c.payload != nullptr && c.expected == 0;
        EXPECT_EQ(held ? std::string(c.payload, c.size + 1) : "", held ? std::string(data, c.size + 1) : "");
        EXPECT_EQ(held, data != &sentinel);
        EXPECT_EQ(0, channel.SendPTP());
        ++trigger;
    }
    // A trigger of 0, a script line that is no string, a trigger that is no integer and
    // notifications without their key start nothing.
    vconf_set_int(kProtocolKeys[0], 0);
    vconf_set_int(kScriptKey, 12);
    vconf_set_str(kProtocolKeys[0], "0x30001");
    EXPECT_EQ(0, vconf_sim_wait_idle(10000));
    CProductionPTP::PTPCommByScript(nullptr, &channel);
    CProductionPTP::PTPCommByProtocol(nullptr, &channel);
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType());
}

TEST_F(ProductionPTPTest, ReceiveReportsUnreadableKeysAndAPayloadStillHeld)
{
    root.WriteFile(kPayload, "abc");
    int op = 0, p1 = 0, p2 = 0, p3 = 0, p4 = 0;
    char* data = nullptr;
    EXPECT_EQ(-5, channel.ReceivePTP(op, p1, p2, p3, p4, &data)) << "payload read, no protocol keys at all";
    ASSERT_NE(nullptr, data);
    EXPECT_EQ("abc", std::string(data, 3));
    // The payload was not released by SendPTP: the next one is refused.
    testing::internal::CaptureStdout();
    const unsigned long checks = pm::AssertionCount();
    char* second = nullptr;
    EXPECT_EQ(-3, channel.ReceivePTP(op, p1, p2, p3, p4, &second));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_THAT(out, testing::HasSubstr("CProductionPTP memory leak"));
    EXPECT_THAT(out, testing::HasSubstr("Assertion Failed! --- File lib/production-mode/src/CProductionPTP.cpp"));
    EXPECT_EQ(checks + 1, pm::AssertionCount());
    EXPECT_EQ(nullptr, second);
    EXPECT_THAT(root.ReadFile("/var/log/dlog.log"), testing::HasSubstr("CProductionPTP memory leak"));
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

TEST_F(ProductionPTPTest, MountAndUnmountSurviveFailuresOfTheStoreAndADeletedChannelOutlivesItsCallback)
{
    vconf_sim_fail_next_notify(2);
    EXPECT_FALSE(channel.Mount()) << "both subscriptions failed";
    EXPECT_EQ(uint32_t{PTP_MSG_NONE}, RequestLine("key before")) << "not mounted: polling returns at once";
    vconf_sim_fail_next_notify(1); // the script key fails, the protocol key holds
    EXPECT_TRUE(channel.Mount());
    EXPECT_EQ(uint32_t{PTP_MSG_PROTOCOL}, Request([] { vconf_set_int(kProtocolKeys[0], 5); }));
    EXPECT_EQ(0, channel.SendPTP());
    ASSERT_TRUE(channel.Unmount());
    ASSERT_TRUE(channel.Mount());
    // Each try removes two subscriptions; four failures spoil the first two tries.
    vconf_sim_fail_next_ignore(4);
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(channel.Unmount());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 190ms) << "two pauses of 100 ms";
    EXPECT_TRUE(channel.Unmount()) << "not mounted: nothing to do";
    vconf_set_str(kScriptKey, "key after stop");
    EXPECT_EQ(0, vconf_sim_wait_idle(10000));
    EXPECT_FALSE(traced("PTPCommByScript")) << "not subscribed any more";
    ASSERT_TRUE(channel.Mount());
    vconf_sim_fail_next_ignore(20);
    start = std::chrono::steady_clock::now();
    EXPECT_FALSE(channel.Unmount()) << "ten failed tries";
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
    vconf_sim_fail_next_ignore(0);
    EXPECT_EQ(std::future_status::ready, PollAsync().wait_for(1s)) << "marked not mounted although removal failed";
    EXPECT_TRUE(channel.unregisterPTPComm()) << "the subscriptions that stayed";

    auto deleted = std::make_unique<CProductionPTP>();
    ASSERT_TRUE(deleted->Mount());
    vconf_set_str(kScriptKey, "shutter first");
    vconf_set_str(kScriptKey, "sound second"); // waits: the first is never answered
    ASSERT_TRUE(traced("PTPCommByScript: waiting until the request in service is answered", 5s));
    EXPECT_TRUE(deleted->Unmount());
    deleted.reset(); // returns only once the waiting callback has left the channel
    EXPECT_TRUE(traced("PTPCommByScript: channel stopped, request dropped"));
    EXPECT_EQ(0, vconf_sim_wait_idle(5000));
}

} // namespace
