#include "PmodeToolRun.h"
#include "TestRoot.h"
#include "vconf.h"
#include "vconf_sim.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

namespace {

std::string GetStr(const char* key)
{
    char* value = vconf_get_str(key);
    const std::string copy = value != nullptr ? value : "<null>";
    std::free(value);
    return copy;
}

class VconfTest : public ::testing::Test {
protected:
    static void Record(keynode_t* node, void* self)
    {
        auto* test = static_cast<VconfTest*>(self);
        const bool isInt = vconf_keynode_get_type(node) == VCONF_TYPE_INT;
        test->events.push_back(std::string(vconf_keynode_get_name(node)) + "="
                               + (isInt ? std::to_string(vconf_keynode_get_int(node)) : vconf_keynode_get_str(node)));
        test->threads.insert(std::this_thread::get_id());
    }
    TestRoot root;
    std::vector<std::string> events;
    std::set<std::thread::id> threads;
};

TEST_F(VconfTest, ValuesKeepTypeDamagedFilesReadAsMissingAndNoReaderSeesHalfOfAValueAnotherProcessReplaces)
{
    int number = -1;
    ASSERT_EQ(0, vconf_set_int("memory/private/pmode_Param1", -7));
    ASSERT_EQ(0, vconf_set_str("memory/private/pmode", "line_process strobe"));
    EXPECT_EQ(-1, vconf_get_int("memory/private/pmode", &number)) << "string key read as int";
    EXPECT_EQ("<null>", GetStr("memory/private/pmode_Param1")) << "int key read as string";
    EXPECT_EQ(-1, number) << "a failed read leaves the output alone";
    char path[512];
    ASSERT_GT(vconf_sim_key_file("memory/private/pmode", path, sizeof path), 0);
    EXPECT_TRUE(std::filesystem::exists(path) && std::string(path).rfind(root.Dir(), 0) != 0) << path << ": volatile, in memory";
    EXPECT_EQ("memory%2Fprivate%2Fpmode", std::filesystem::path(path).filename()) << "one file per key, whatever its slashes";
    ASSERT_EQ(0, vconf_set_int("db/private/pmode", 1));
    EXPECT_TRUE(root.Exists("/var/run/vconf/db%2Fprivate%2Fpmode")) << "a persistent key stays below the root";
    EXPECT_EQ(-1, vconf_set_int("", 1));
    EXPECT_EQ(-1, vconf_set_int(nullptr, 1));
    EXPECT_EQ(-1, vconf_set_str("k", nullptr));

    ASSERT_GT(vconf_sim_key_file("memory/private/pmode_Param1", path, sizeof path), 0);
    for (const char* damaged : {"40 5\nhel", "hello", "41 3\n5ab", "41 9\n5", "41 11\n99999999999"}) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << damaged;
        EXPECT_EQ(-1, vconf_get_int("memory/private/pmode_Param1", &number)) << "\"" << damaged << "\"";
        EXPECT_EQ("<null>", GetStr("memory/private/pmode_Param1")) << "\"" << damaged << "\"";
    }
    EXPECT_EQ(-1, number);
    pmtool::ExpectRuns({{"pmode-kv set-int memory/private/pmode_Param1 0x30001", 0, {}}, {"pmode-kv get no/such/key", 1, {}},
                        {"pmode-kv get memory/private/pmode_Param1", 0, {"196609\n"}}, {"pmode-kv set-int k 12x", 2, {}}});
    EXPECT_EQ(0, vconf_get_int("memory/private/pmode_Param1", &number));
    EXPECT_EQ(0x30001, number);
    vconf_sim_fail_next_get(1);
    EXPECT_EQ("<null>", GetStr("memory/private/pmode")) << "an injected read fault";

    const std::string a(200000, 'a'), b(150000, 'b');
    ASSERT_EQ(0, vconf_set_str("big", a.c_str()));
    const pid_t writer = fork();
    ASSERT_NE(-1, writer);
    if (writer == 0) {
        for (int i = 0; i < 300; ++i) vconf_set_str("big", (i % 2 != 0 ? a : b).c_str());
        _exit(0);
    }
    int reads = 0, bad = 0, status = 0;
    for (; waitpid(writer, &status, WNOHANG) == 0; ++reads) {
        const std::string value = GetStr("big");
        bad += value != a && value != b;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_GT(reads, 10);
    EXPECT_EQ(0, bad) << "of " << reads << " reads";

    std::filesystem::path orphan;
    {
        TestRoot removed;
        ASSERT_EQ(0, vconf_set_int("memory/x", 1));
        ASSERT_GT(vconf_sim_key_file("memory/x", path, sizeof path), 0);
        orphan = std::filesystem::path(path).parent_path();
        std::filesystem::remove_all(removed.Dir()); // gone without its memory directory
    }
    std::filesystem::last_write_time(orphan, std::filesystem::file_time_type::clock::now() - std::chrono::minutes(2));
    TestRoot next;
    ASSERT_EQ(0, vconf_set_int("memory/x", 2));
    EXPECT_FALSE(std::filesystem::exists(orphan)) << "the memory directory of a removed root is removed";
}

TEST_F(VconfTest, SetsOfThreadsAndProcessesArriveOnOneThreadInOrderAndDropsOrJournalDamageLoseOnlyThat)
{
    ASSERT_EQ(0, vconf_set_int("a", -1)); // before the subscription: not notified
    ASSERT_EQ(0, vconf_notify_key_changed("a", &Record, this));
    ASSERT_EQ(0, vconf_notify_key_changed("b", &Record, this));
    std::thread setA([] { for (int i = 0; i < 100; ++i) vconf_set_int("a", i); });
    const std::string loop = pmtool::kToolsFirst + "; for i in $(seq 1 40); do pmode-kv set b "; // PATH first
    ASSERT_EQ(0, std::system(("(" + loop + "x$i; done) & (" + loop + "y$i; done) & wait").c_str()));
    setA.join();
    vconf_set_int("a", 99); // an unchanged value is notified too
    vconf_set_int("unwatched", 1);
    ASSERT_EQ(0, vconf_sim_wait_idle(10000));
    ASSERT_EQ(181u, events.size()) << "no set of another thread or process may be lost";
    int nextA = 0, nextX = 1, nextY = 1;
    for (size_t i = 0; i + 1 < events.size(); ++i) {
        const std::string& e = events[i];
        EXPECT_EQ(e[0] == 'a' ? "a=" + std::to_string(nextA++)
                              : (e[2] == 'x' ? "b=x" + std::to_string(nextX++) : "b=y" + std::to_string(nextY++)), e)
            << "event " << i;
    }
    EXPECT_EQ("a=99", events.back());
    EXPECT_EQ(1u, threads.size()) << "callbacks run one at a time on one thread";
    EXPECT_EQ(0u, threads.count(std::this_thread::get_id()));

    EXPECT_EQ(0, vconf_ignore_key_changed("a", &Record));
    EXPECT_EQ(-1, vconf_ignore_key_changed("a", &Record)) << "no such subscription";

    events.clear();
    vconf_sim_drop_next_notification(1);
    vconf_set_int("b", 4);
    vconf_set_int("b", 5);
    ASSERT_EQ(0, vconf_sim_wait_idle(10000));
    testing::internal::CaptureStderr();
    std::ofstream(root.Host("/var/run/vconf/.journal"), std::ios::binary | std::ios::app) << std::string(64, '\xEE');
    vconf_sim_wait_idle(10000);
    vconf_set_int("b", 6);
    ASSERT_EQ(0, vconf_sim_wait_idle(10000));
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("is damaged at offset"));
    EXPECT_EQ((std::vector<std::string>{"b=5", "b=6"}), events) << "a dropped notification and a damaged journal lose only that";
    EXPECT_EQ(0, vconf_ignore_key_changed("b", &Record));
}

} // namespace
