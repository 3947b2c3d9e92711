// The simulated key-value store: values shared between processes, atomic
// replacement, notifications in the order of the sets (also across processes),
// damaged files and journal, fault switches.
#include "TestRoot.h"
#include "vconf.h"
#include "vconf_sim.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string Tool()
{
    const char* dir = std::getenv("PM_TEST_BINARY_DIR");
    return std::string(dir != nullptr ? dir : ".") + "/tools/pmode-kv/pmode-kv";
}

/// Runs a shell command and returns its standard output.
std::string Shell(const std::string& command)
{
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) out += buffer;
    pclose(pipe);
    return out;
}

std::string GetStr(const char* key)
{
    char* value = vconf_get_str(key);
    if (value == nullptr) return "<null>";
    std::string copy = value;
    std::free(value);
    return copy;
}

/// Records every notification: "key=value" (ints in decimal) and the thread.
struct Recorder {
    std::mutex mutex;
    std::vector<std::string> events;
    std::vector<std::thread::id> threads;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};

    static void Callback(keynode_t* node, void* self)
    {
        auto* r = static_cast<Recorder*>(self);
        if (++r->running > 1) r->overlapped = true;
        std::string text = vconf_keynode_get_name(node);
        text += "=";
        if (vconf_keynode_get_type(node) == VCONF_TYPE_INT) {
            text += std::to_string(vconf_keynode_get_int(node));
        } else {
            text += vconf_keynode_get_str(node);
        }
        {
            std::lock_guard<std::mutex> lock(r->mutex);
            r->events.push_back(text);
            r->threads.push_back(std::this_thread::get_id());
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        --r->running;
    }

    std::vector<std::string> Events()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }
};

TEST(VconfTest, ValuesKeepTheirTypeAndAreSharedWithOtherProcesses)
{
    TestRoot root;
    int number = -1;
    EXPECT_GT(0, vconf_get_int("memory/private/pmode_Param1", &number)) << "missing key";
    EXPECT_EQ(nullptr, vconf_get_str("memory/private/pmode"));

    ASSERT_EQ(0, vconf_set_int("memory/private/pmode_Param1", 0x10000002));
    ASSERT_EQ(0, vconf_set_str("memory/private/pmode", "line_process strobe flash_write"));
    ASSERT_EQ(0, vconf_set_int("memory/private/pmode_Param2", -7));
    EXPECT_EQ(0, vconf_get_int("memory/private/pmode_Param1", &number));
    EXPECT_EQ(0x10000002, number);
    EXPECT_EQ("line_process strobe flash_write", GetStr("memory/private/pmode"));
    EXPECT_GT(0, vconf_get_int("memory/private/pmode", &number)) << "string key read as int";
    EXPECT_EQ("<null>", GetStr("memory/private/pmode_Param1")) << "int key read as string";
    EXPECT_EQ(0x10000002, number) << "a failed read leaves the output alone";

    // Another process (the tool) reads and writes the same store.
    EXPECT_EQ("268435458\n", Shell(Tool() + " get memory/private/pmode_Param1"));
    EXPECT_EQ("-7\n", Shell(Tool() + " get memory/private/pmode_Param2"));
    EXPECT_EQ("line_process strobe flash_write\n", Shell(Tool() + " get memory/private/pmode"));
    ASSERT_EQ(0, std::system((Tool() + " set memory/private/pmode_file /mnt/mmc/a.csv").c_str()));
    ASSERT_EQ(0, std::system((Tool() + " set-int memory/private/pmode_protocol1 0x30001").c_str()));
    EXPECT_EQ("/mnt/mmc/a.csv", GetStr("memory/private/pmode_file"));
    EXPECT_EQ(0, vconf_get_int("memory/private/pmode_protocol1", &number));
    EXPECT_EQ(0x30001, number);
    EXPECT_NE(0, std::system((Tool() + " get no/such/key 2>/dev/null").c_str()));
    EXPECT_NE(0, std::system((Tool() + " set-int k 12x 2>/dev/null").c_str())) << "not a number";

    // Keys are single files below the device directory, whatever their slashes.
    EXPECT_TRUE(root.Exists("/var/run/vconf/memory%2Fprivate%2Fpmode"));
    EXPECT_EQ(-1, vconf_set_int("", 1));
    EXPECT_EQ(-1, vconf_set_int(nullptr, 1));
    EXPECT_EQ(-1, vconf_set_str("k", nullptr));
}

TEST(VconfTest, DamagedValueFilesReadAsMissing)
{
    TestRoot root;
    ASSERT_EQ(0, vconf_set_int("n", 5));
    ASSERT_EQ(0, vconf_set_str("s", "hello"));
    char path[512];
    ASSERT_GT(vconf_sim_key_file("n", path, sizeof path), 0);
    const std::string intFile = path;
    ASSERT_GT(vconf_sim_key_file("s", path, sizeof path), 0);
    const std::string strFile = path;

    struct Case {
        const char* name;
        std::string file;
        std::string content;
    };
    const Case cases[] = {
        {"truncated string", strFile, "40 5\nhel"},
        {"no header", strFile, "hello"},
        {"empty file", strFile, ""},
        {"int with text", intFile, "41 3\n5ab"},
        {"int with wrong length", intFile, "41 9\n5"},
        {"int out of range", intFile, "41 11\n99999999999"},
        {"type mixed up", intFile, "40 1\n5"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::ofstream(c.file, std::ios::binary | std::ios::trunc) << c.content;
        int number = 123;
        if (c.file == intFile) {
            EXPECT_EQ(-1, vconf_get_int("n", &number));
            EXPECT_EQ(123, number);
        } else {
            EXPECT_EQ("<null>", GetStr("s"));
        }
    }
    // A set repairs the key.
    ASSERT_EQ(0, vconf_set_int("n", 6));
    int number = 0;
    EXPECT_EQ(0, vconf_get_int("n", &number));
    EXPECT_EQ(6, number);
}

TEST(VconfTest, CallbacksRunOnTheNotificationThreadOneAtATimeInTheOrderOfTheSets)
{
    TestRoot root;
    ASSERT_EQ(0, vconf_set_int("a", -1)); // before the subscription: not notified
    Recorder recorder;
    ASSERT_EQ(0, vconf_notify_key_changed("a", &Recorder::Callback, &recorder));
    ASSERT_EQ(0, vconf_notify_key_changed("b", &Recorder::Callback, &recorder));

    // Two setter threads; the journal orders them, and each one's sets stay in order.
    std::vector<std::string> expectedA, expectedB;
    std::thread setA([&] {
        for (int i = 0; i < 100; ++i) vconf_set_int("a", i);
    });
    std::thread setB([&] {
        for (int i = 0; i < 100; ++i) vconf_set_str("b", ("v" + std::to_string(i)).c_str());
    });
    setA.join();
    setB.join();
    vconf_set_int("a", 99); // an unchanged value is notified too
    vconf_set_int("unwatched", 1);
    ASSERT_EQ(0, vconf_sim_wait_idle(10000));

    const std::vector<std::string> events = recorder.Events();
    ASSERT_EQ(201u, events.size());
    int nextA = 0, nextB = 0;
    for (size_t i = 0; i + 1 < events.size(); ++i) {
        if (events[i][0] == 'a') {
            EXPECT_EQ("a=" + std::to_string(nextA++), events[i]) << "event " << i;
        } else {
            EXPECT_EQ("b=v" + std::to_string(nextB++), events[i]) << "event " << i;
        }
    }
    EXPECT_EQ("a=99", events.back());
    EXPECT_FALSE(recorder.overlapped) << "callbacks must not run at the same time";
    for (std::thread::id id : recorder.threads) EXPECT_EQ(recorder.threads[0], id);
    EXPECT_NE(std::this_thread::get_id(), recorder.threads[0]);

    // Unsubscribing stops the notifications of that key only.
    EXPECT_EQ(0, vconf_ignore_key_changed("a", &Recorder::Callback));
    EXPECT_EQ(-1, vconf_ignore_key_changed("a", &Recorder::Callback)) << "no such subscription";
    vconf_set_int("a", 1000);
    vconf_set_str("b", "last");
    ASSERT_EQ(0, vconf_sim_wait_idle(10000));
    EXPECT_EQ("b=last", recorder.Events().back());
    EXPECT_EQ(202u, recorder.Events().size());
    vconf_ignore_key_changed("b", &Recorder::Callback);
}

TEST(VconfTest, SetsOfOtherProcessesArriveWholeAndInOrder)
{
    TestRoot root;
    Recorder recorder;
    ASSERT_EQ(0, vconf_notify_key_changed("seq", &Recorder::Callback, &recorder));
    // Two writer processes at once, each setting its own increasing sequence.
    const std::string loop = "for i in $(seq 1 40); do " + Tool() + " set seq ";
    const std::string command =
        "(" + loop + "x$i; done) & (" + loop + "y$i; done) & wait";
    ASSERT_EQ(0, std::system(command.c_str()));
    ASSERT_EQ(0, vconf_sim_wait_idle(10000));

    const std::vector<std::string> events = recorder.Events();
    ASSERT_EQ(80u, events.size()) << "no set of another process may be lost";
    int nextX = 1, nextY = 1;
    for (const std::string& e : events) {
        if (e.rfind("seq=x", 0) == 0) {
            EXPECT_EQ("seq=x" + std::to_string(nextX++), e);
        } else {
            EXPECT_EQ("seq=y" + std::to_string(nextY++), e);
        }
    }
    EXPECT_EQ("seq=" + GetStr("seq"), events.back()) << "the last notification is the stored value";
    vconf_ignore_key_changed("seq", &Recorder::Callback);
}

TEST(VconfTest, AReaderNeverSeesHalfAValue)
{
    TestRoot root;
    const std::string a(200000, 'a'), b(150000, 'b');
    ASSERT_EQ(0, vconf_set_str("big", a.c_str()));
    pid_t writer = fork();
    ASSERT_NE(-1, writer);
    if (writer == 0) {
        for (int i = 0; i < 300; ++i) vconf_set_str("big", (i % 2 != 0 ? a : b).c_str());
        _exit(0);
    }
    int reads = 0, bad = 0;
    int status = 0;
    while (waitpid(writer, &status, WNOHANG) == 0) {
        const std::string value = GetStr("big");
        ++reads;
        if (!(value == a || value == b)) ++bad;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_GT(reads, 10);
    EXPECT_EQ(0, bad) << "of " << reads << " reads";
}

TEST(VconfTest, FaultSwitchesFailOrDropExactlyTheNextOperations)
{
    TestRoot root;
    Recorder recorder;
    ASSERT_EQ(0, vconf_set_int("k", 1));

    vconf_sim_fail_next_notify(1);
    EXPECT_EQ(-1, vconf_notify_key_changed("k", &Recorder::Callback, &recorder));
    ASSERT_EQ(0, vconf_notify_key_changed("k", &Recorder::Callback, &recorder));

    vconf_sim_fail_next_set(2);
    EXPECT_EQ(-1, vconf_set_int("k", 2));
    EXPECT_EQ(-1, vconf_set_str("k", "x"));
    EXPECT_EQ(0, vconf_set_int("k", 3));

    vconf_sim_fail_next_get(1);
    int number = 0;
    EXPECT_EQ(-1, vconf_get_int("k", &number));
    EXPECT_EQ(0, vconf_get_int("k", &number));
    EXPECT_EQ(3, number) << "the failed sets changed nothing";

    ASSERT_EQ(0, vconf_sim_wait_idle(10000));
    vconf_sim_drop_next_notification(1);
    vconf_set_int("k", 4);
    vconf_set_int("k", 5);
    ASSERT_EQ(0, vconf_sim_wait_idle(10000));
    EXPECT_EQ((std::vector<std::string>{"k=3", "k=5"}), recorder.Events());

    vconf_sim_fail_next_ignore(1);
    EXPECT_EQ(-1, vconf_ignore_key_changed("k", &Recorder::Callback));
    vconf_set_int("k", 6);
    ASSERT_EQ(0, vconf_sim_wait_idle(10000));
    EXPECT_EQ("k=6", recorder.Events().back()) << "a failed unsubscription keeps the subscription";
    EXPECT_EQ(0, vconf_ignore_key_changed("k", &Recorder::Callback));
}

TEST(VconfTest, DamagedJournalIsReportedAndLaterSetsStillArrive)
{
    TestRoot root;
    Recorder recorder;
    ASSERT_EQ(0, vconf_notify_key_changed("k", &Recorder::Callback, &recorder));
    vconf_set_int("k", 1);
    ASSERT_EQ(0, vconf_sim_wait_idle(10000));
    testing::internal::CaptureStderr();
    {
        std::ofstream journal(root.Host("/var/run/vconf/.journal"), std::ios::binary | std::ios::app);
        journal << std::string(64, '\xEE');
    }
    vconf_sim_wait_idle(10000);
    vconf_set_int("k", 2);
    ASSERT_EQ(0, vconf_sim_wait_idle(10000));
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("is damaged at offset")) << err;
    EXPECT_EQ("k=2", recorder.Events().back());
    vconf_ignore_key_changed("k", &Recorder::Callback);
}

} // namespace
