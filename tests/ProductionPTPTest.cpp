// The host message channel over the simulated key-value store, driven directly.
#include "ControllerTestKit.h"
#include "OperationTypeHook.h"
#include "PmodeToolRun.h"

#include <cstdio>
#include <memory>

namespace {

using namespace controller_test;

class ProductionPTPTest : public ControllerTest {
protected:
    ProductionPTPTest() { pm_test::SetOperationType(OP_TYPE_PTP); }

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
    std::unique_ptr<char, void (*)(void*)> text(vconf_get_str(kScriptKey), std::free);
    EXPECT_STREQ("test", text.get()) << "set before subscribing";
    int trigger = -1;
    EXPECT_EQ(0, vconf_get_int(kProtocolKeys[0], &trigger));
    EXPECT_EQ(0, trigger);
    // Mount's own sets, a trigger of 0 or no integer, a line no string, a key-less notification: no request.
    vconf_set_int(kProtocolKeys[0], 0);
    vconf_set_int(kScriptKey, 12);
    vconf_set_str(kProtocolKeys[0], "0x30001");
    EXPECT_EQ(0, vconf_sim_wait_idle(10000));
    CProductionPTP::PTPCommByScript(nullptr, &channel);
    CProductionPTP::PTPCommByProtocol(nullptr, &channel);
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType());
    EXPECT_TRUE(traced("PTPCommByProtocol No meanning message"));

    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, RequestLine("line_process strobe flash_write"));
    // A second line waits until the first is answered and does not overwrite it.
    vconf_set_str(kScriptKey, "sound second");
    ASSERT_TRUE(traced("PTPCommByScript: waiting until the request in service is answered", 5s));
    auto polled = PollAsync();
    EXPECT_EQ(std::future_status::timeout, polled.wait_for(100ms)) << "not delivered while the first is served";
    EXPECT_EQ("line_process strobe flash_write", describe(channel.ReadScript()));
    EXPECT_EQ(-1, channel.ReadScript().nParamCount) << "the text was used up";
    // An answer that cannot be written: Param3 fails, Param2 and Param1 are not tried; the channel is free.
    transfer->SetRespond(0x10000002, 1, 5);
    vconf_sim_fail_next_set(1);
    EXPECT_EQ(-1, channel.SendPTP());
    EXPECT_EQ(0u, transfer->GetTransferDataType()) << "dispatched all the same";
    ASSERT_EQ(std::future_status::ready, polled.wait_for(5s));
    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, polled.get());
    EXPECT_EQ("", takeAnswers());
    EXPECT_EQ("sound second", describe(channel.ReadScript()));
    EXPECT_EQ(0, channel.SendPTP()) << "nothing pending: the values held are sent again";
    EXPECT_EQ("Param3=5 Param2=1 Param1=10000002", takeAnswers());

    // A second Mount subscribes nothing more: the next line is delivered once.
    EXPECT_TRUE(channel.Mount());
    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, RequestLine("key power on"));
    unsigned char block[] = {'o', 'k'};
    transfer->SetData(block, 2);
    EXPECT_EQ(0, channel.SendPTP());
    transfer->SetFile("/mnt/mmc/result.csv");
    EXPECT_EQ(0, channel.SendPTP());
    EXPECT_EQ("stream=ok file=/mnt/mmc/result.csv", takeAnswers());
    EXPECT_EQ(PTP_MSG_NONE, channel.GetPTPMessageType()) << "no duplicate request";
}

TEST_F(ProductionPTPTest, RequestFromAnotherProcessIsServedAndItsAnswerReadThere)
{
    const std::string tool = pmtool::kToolsFirst + "pmode-kv"; // the PC's side
    ASSERT_TRUE(channel.Mount());
    const std::string keys = std::string(kAnswerKeys[0]) + " " + kAnswerKeys[1] + " " + kAnswerKeys[2];
    FILE* watcher = popen((tool + " watch -n 3 " + keys).c_str(), "r");
    ASSERT_NE(nullptr, watcher);
    char line[256];
    ASSERT_NE(nullptr, std::fgets(line, sizeof line, watcher));
    const std::string set = tool + " set memory/private/pmode 'capture adjust cis 7'";
    EXPECT_EQ(uint32_t{PTP_MSG_SCRIPT}, Request([&] { EXPECT_EQ(0, std::system(set.c_str())); }));
    EXPECT_EQ("capture adjust cis 7", describe(channel.ReadScript()));
    transfer->SetRespond(0x10000002, 0, 5);
    EXPECT_EQ(0, channel.SendPTP());
    std::string seen;
    while (std::fgets(line, sizeof line, watcher) != nullptr) seen += line;
    EXPECT_EQ(0, pclose(watcher));
    EXPECT_EQ("memory/private/pmode_Param3=5\nmemory/private/pmode_Param2=0\nmemory/private/pmode_Param1=268435458\n", seen);
}

TEST_F(ProductionPTPTest, ReceiveReadsTheOperationKeysAndThePayloadAndReportsWhatItCannotRead)
{
    const int keys[5] = {0x30001, 11, -22, 33, 44};
    // name, payload ("-": none), the first keys set, result, the first values read (the others keep -9)
    const std::tuple<const char*, std::string, int, int, int> cases[] = {
        {"payload, no keys", "abc", 0, -5, 0}, {"payload still held", "abc", 0, -3, 0}, {"no payload, p2 missing", "-", 2, -5, 2},
        {"no payload, p3 and p4 missing", "-", 3, 0, 3}, {"payload with a NUL", std::string("\x01\x00\xFFraw", 6), 5, 0, 5},
        {"empty payload", "", 5, -4, 0}};
    for (const auto& [name, payload, keysSet, result, valuesRead] : cases) {
        SCOPED_TRACE(name);
        std::remove(root.Host(kPayload).c_str());
        if (payload != "-") root.WriteFile(kPayload, payload);
        for (int i = 0; i < keysSet; ++i) ASSERT_EQ(0, vconf_set_int(kProtocolKeys[i], keys[i]));
        const unsigned long checks = pm::AssertionCount();
        std::vector<int> read(5, -9);
        char sentinel = 0;
        char* data = &sentinel;
        EXPECT_EQ(result, channel.ReceivePTP(read[0], read[1], read[2], read[3], read[4], &data));
        for (int i = 0; i < 5; ++i) EXPECT_EQ(i < valuesRead ? keys[i] : -9, read[i]) << "value " << i;
        // A payload read ends with a NUL; without one the output is left alone.
        const bool held = payload != "-" && (result == 0 || result == -5);
        EXPECT_EQ(held ? payload + '\0' : "", held ? std::string(data, payload.size() + 1) : "");
        EXPECT_EQ(held, data != &sentinel);
        EXPECT_EQ(checks + (result == -3), pm::AssertionCount());
        if (result != -5) channel.SendPTP(); // releases the payload
    }
    EXPECT_THAT(root.ReadFile("/var/log/dlog.log"), testing::HasSubstr("CProductionPTP memory leak"));
    std::remove(root.Host(kPayload).c_str());
    vconf_sim_fail_next_get(1);
    int op = 0;
    EXPECT_EQ(-5, channel.ReceivePTP(op, op, op, op, op, nullptr)) << "unreadable operation code";
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
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(channel.Unmount());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 190ms) << "two pauses of 100 ms";
    EXPECT_TRUE(channel.Unmount()) << "not mounted: nothing to do";
    vconf_set_str(kScriptKey, "key after stop");
    EXPECT_EQ(0, vconf_sim_wait_idle(10000));
    EXPECT_FALSE(traced("PTPCommByScript")) << "not subscribed any more";
    ASSERT_TRUE(channel.Mount());
    vconf_sim_fail_next_ignore(20);
    EXPECT_FALSE(channel.Unmount()) << "ten failed tries";
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
}

} // namespace
