// The simulated preference store: defaults, survival across restart, refusal of
// bad files, failure switches and atomic saves under power loss.
#include "FileFaults.h"
#include "TestRoot.h"
#include "kernel.h"
#include "pref.h"
#include "pref_sim.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned long kGroup3Size = 5294098;
constexpr unsigned long kGroup1Size = 48;

std::string nandFile(const TestRoot& root, int group)
{
    char path[256];
    EXPECT_GT(pref_sim_nand_path(group, path, sizeof path), 0);
    return root.Host(path);
}

std::vector<unsigned char> image(int group)
{
    unsigned long size = 0;
    unsigned char* at = pref_get_addr(group, &size);
    return std::vector<unsigned char>(at, at + size);
}

class PrefStoreTest : public ::testing::Test {
protected:
    void SetUp() override { pref_sim_reset(); }
    void TearDown() override { pref_sim_reset(); }
    TestRoot root;
};

TEST_F(PrefStoreTest, GroupsStartFromTheirDefaultsOnAnEmptyNand)
{
    unsigned long size = 0;
    const unsigned char* group3 = pref_get_addr(3, &size);
    ASSERT_NE(nullptr, group3);
    ASSERT_EQ(kGroup3Size, size);
    EXPECT_EQ(0x11, group3[8]);
    EXPECT_EQ(0x26, group3[kGroup3Size - 1]);
    unsigned long nonZero = 0;
    for (unsigned long i = 0; i < size; ++i) nonZero += group3[i] != 0;
    EXPECT_EQ(2u, nonZero) << "only the two markers are set";

    const std::vector<unsigned char> group1 = image(1);
    EXPECT_EQ(std::vector<unsigned char>(kGroup1Size, 0), group1);
    EXPECT_EQ(0, pref_load(3)) << "no NAND copy yet: the defaults count as loaded";
    EXPECT_EQ(nullptr, pref_get_addr(2, &size));
    EXPECT_EQ(0u, size);
}

TEST_F(PrefStoreTest, SavedImagesSurviveARestartAndUnsavedChangesDoNot)
{
    unsigned char* group3 = pref_get_addr(3, nullptr);
    ASSERT_EQ(4, pref_set_long(3, 9, -18620));
    const char text[] = "ADJUST_CIS_SN";
    ASSERT_EQ(14, pref_set_bytes(3, 13, text, sizeof text));
    group3[51217] = 0xAB; // changed in place through the address handed out
    ASSERT_EQ(4, pref_set_long(1, 44, 7));
    ASSERT_EQ(0, pref_save(3));
    ASSERT_EQ(0, pref_save(1));
    ASSERT_EQ(4, pref_set_long(3, 51213, 99)); // never saved

    pref_sim_forget_images();

    EXPECT_EQ(group3, pref_get_addr(3, nullptr)) << "the image stays at its address across a reload";
    EXPECT_EQ(-18620, pref_get_long(3, 9));
    EXPECT_EQ(0, std::memcmp(group3 + 13, text, sizeof text));
    EXPECT_EQ(0xAB, pref_get_byte(3, 51217));
    EXPECT_EQ(0, pref_get_long(3, 51213)) << "the unsaved length is gone";
    EXPECT_EQ(7, pref_get_long(1, 44));
    EXPECT_EQ(1, pref_sim_save_count(3));
}

TEST_F(PrefStoreTest, AccessOutsideAGroupIsRefusedAndChangesNothing)
{
    const std::vector<unsigned char> before = image(1);
    const unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    struct Case {
        const char* name;
        int result;
        int expected;
    } cases[] = {
        {"set_long on the last word", pref_set_long(1, 44, 0x01020304), 4},
        {"set_long one byte past", pref_set_long(1, 45, 1), -1},
        {"set_long far past", pref_set_long(1, ~0UL, 1), -1},
        {"set_bytes up to the end", pref_set_bytes(1, 40, bytes, 8), 8},
        {"set_bytes one past", pref_set_bytes(1, 41, bytes, 8), -1},
        {"set_bytes wrapping size", pref_set_bytes(1, 8, bytes, ~0UL), -1},
        {"set_bytes without a source", pref_set_bytes(1, 0, nullptr, 4), -1},
        {"set_bytes of nothing", pref_set_bytes(1, 48, nullptr, 0), 0},
        {"unknown group set_long", pref_set_long(2, 0, 1), -1},
        {"unknown group save", pref_save(7), -1},
        {"unknown group reset", pref_reset(0), -1},
        {"unknown group load", pref_load(-3), -1},
    };
    for (const Case& c : cases) EXPECT_EQ(c.expected, c.result) << "case " << c.name;
    std::vector<unsigned char> expected = before;
    std::memcpy(&expected[40], bytes, 8); // only the two accepted writes landed
    EXPECT_EQ(expected, image(1));
    EXPECT_EQ(0, pref_get_long(1, 45));
    EXPECT_EQ(0, pref_get_byte(1, 48));
    EXPECT_EQ(0, pref_get_long(3, kGroup3Size - 3));

    ASSERT_EQ(4, pref_set_long(3, 9, -1));
    EXPECT_EQ(-1, pref_get_long(3, 9)) << "lengths are signed 32-bit";
    EXPECT_EQ(0xFF, pref_get_byte(3, 12));
}

TEST_F(PrefStoreTest, ResetRestoresTheDefaultsInMemoryOnly)
{
    ASSERT_EQ(4, pref_set_long(3, 9, 140));
    ASSERT_EQ(1, pref_set_bytes(3, 8, "\x00", 1));
    ASSERT_EQ(0, pref_save(3));
    ASSERT_EQ(0, pref_reset(3));
    EXPECT_EQ(0, pref_get_long(3, 9));
    EXPECT_EQ(0x11, pref_get_byte(3, 8));
    pref_sim_forget_images();
    EXPECT_EQ(140, pref_get_long(3, 9)) << "NAND still holds the saved image";
    EXPECT_EQ(0, pref_get_byte(3, 8));
}

TEST_F(PrefStoreTest, FailedSavesLeaveTheOldImageOnNand)
{
    ASSERT_EQ(4, pref_set_long(3, 9, 1));
    ASSERT_EQ(0, pref_save(3));
    ASSERT_EQ(4, pref_set_long(3, 9, 2));

    pref_sim_fail_next(PREF_SIM_OP_SAVE, 1);
    EXPECT_EQ(-1, pref_save(3));
    pref_sim_set_disk_full(1);
    EXPECT_EQ(-1, pref_save(3));
    EXPECT_EQ(-1, pref_save_to_file(3, "/mnt/mmc/adj.dump"));
    pref_sim_set_disk_full(0);
    EXPECT_EQ(1, pref_sim_save_count(3)) << "only successful saves count";

    const std::filesystem::path dir = std::filesystem::path(nandFile(root, 3)).parent_path();
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        EXPECT_EQ("group3.bin", entry.path().filename().string()) << "no temporary is left behind";
    }
    pref_sim_forget_images();
    EXPECT_EQ(1, pref_get_long(3, 9));

    ASSERT_EQ(4, pref_set_long(3, 9, 3));
    EXPECT_EQ(0, pref_save(3)) << "the next save goes through";
    pref_sim_forget_images();
    EXPECT_EQ(3, pref_get_long(3, 9));
}

TEST_F(PrefStoreTest, CorruptNandCopyIsRefusedByLoad)
{
    ASSERT_EQ(4, pref_set_long(1, 8, 5));
    ASSERT_EQ(0, pref_save(1));
    std::string file = root.ReadFile(nandFile(root, 1).substr(root.Dir().size()));
    ASSERT_EQ(20u + kGroup1Size, file.size());
    file[30] ^= 0x40;
    root.WriteFile(nandFile(root, 1).substr(root.Dir().size()), file);

    ASSERT_EQ(4, pref_set_long(1, 8, 6));
    EXPECT_LT(pref_load(1), 0);
    EXPECT_EQ(6, pref_get_long(1, 8)) << "a refused load leaves the image";

    pref_sim_forget_images();
    EXPECT_EQ(0, pref_get_long(1, 8)) << "first use of a corrupt copy starts from the defaults";
    EXPECT_NE(std::string::npos, root.ReadFile("/var/log/dlog.log").find("checksum mismatch"));
}

TEST_F(PrefStoreTest, LoadFromFileRefusesBadFilesAndLeavesTheImage)
{
    std::filesystem::create_directories(root.Host("/mnt/mmc"));
    // A good file of group 3 with a recognisable body, and one of group 1.
    ASSERT_EQ(4, pref_set_long(3, 51213, 0x5A5A));
    ASSERT_EQ(0, pref_save_to_file(3, "/mnt/mmc/good.dump"));
    ASSERT_EQ(0, pref_save_to_file(1, "/mnt/mmc/line.dump"));
    const std::string good = root.ReadFile("/mnt/mmc/good.dump");
    ASSERT_EQ(20u + kGroup3Size, good.size());

    ASSERT_EQ(4, pref_set_long(3, 51213, 77));
    const std::vector<unsigned char> before = image(3);

    auto flipped = [&](size_t at) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 0x01);
        return bad;
    };
    struct Case {
        const char* name;
        std::string content;
    } cases[] = {
        {"empty", ""},
        {"head cut", good.substr(0, 12)},
        {"head only", good.substr(0, 20)},
        {"cut in the middle", good.substr(0, good.size() / 2)},
        {"last byte missing", good.substr(0, good.size() - 1)},
        {"one byte too many", good + "x"},
        {"magic changed", flipped(0)},
        {"group word changed", flipped(8)},
        {"length word changed", flipped(12)},
        {"checksum changed", flipped(16)},
        {"first content byte changed", flipped(20)},
        {"marker changed", flipped(20 + 5294097)},
        {"other group", root.ReadFile("/mnt/mmc/line.dump")},
        {"text file", std::string("PMPREF01 this is not an image\n")},
    };
    for (const Case& c : cases) {
        root.WriteFile("/mnt/mmc/bad.dump", c.content);
        EXPECT_LT(pref_load_from_file(3, "/mnt/mmc/bad.dump"), 0) << "case " << c.name;
        EXPECT_TRUE(before == image(3)) << "case " << c.name << ": the image changed";
    }
    EXPECT_LT(pref_load_from_file(3, "/mnt/mmc/missing.dump"), 0);
    EXPECT_LT(pref_load_from_file(3, nullptr), 0);
    EXPECT_LT(pref_load_from_file(2, "/mnt/mmc/good.dump"), 0);
    EXPECT_TRUE(before == image(3));

    ASSERT_EQ(0, pref_load_from_file(3, "/mnt/mmc/good.dump"));
    EXPECT_EQ(0x5A5A, pref_get_long(3, 51213));
    EXPECT_EQ(0, pref_sim_save_count(3)) << "loading a file changes memory only";
}

TEST_F(PrefStoreTest, ConcurrentWritersAndSaversKeepEveryValue)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 20;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int round = 1; round <= kRounds; ++round) {
                EXPECT_EQ(4, pref_set_long(1, 8 + 4 * static_cast<unsigned long>(t), t * 1000 + round));
                EXPECT_EQ(0, pref_save(1));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(kThreads * kRounds, pref_sim_save_count(1));
    pref_sim_forget_images();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(t * 1000 + kRounds, pref_get_long(1, 8 + 4 * static_cast<unsigned long>(t))) << "thread " << t;
    }
}

// The content of image number k: every byte but the stamp at 100 is k's low byte,
// so consecutive images differ in every byte and a file mixed of two is seen at once.
void fillImage(unsigned char* at, unsigned long size, uint32_t k)
{
    std::memset(at, static_cast<int>(k & 0xFF), size);
    std::memcpy(at + 100, &k, sizeof k);
}

bool isImage(const unsigned char* at, unsigned long size, uint32_t k)
{
    std::vector<unsigned char> expected(size, static_cast<unsigned char>(k & 0xFF));
    std::memcpy(expected.data() + 100, &k, sizeof k);
    return std::memcmp(expected.data(), at, size) == 0;
}

TEST_F(PrefStoreTest, SaveIsAtomicWhenTheProcessIsKilledAtAnyMoment)
{
    unsigned long size = 0;
    unsigned char* group3 = pref_get_addr(3, &size);
    fillImage(group3, size, 1);
    ASSERT_EQ(0, pref_save(3));
    // Every file operation of a save, each a moment for the power to go.
    filefaults::Arm(filefaults::Action::Count);
    ASSERT_EQ(0, pref_save(3));
    filefaults::Disarm();
    const long operations = filefaults::Count();
    ASSERT_GT(operations, 3);

    const std::filesystem::path dir = std::filesystem::path(nandFile(root, 3)).parent_path();
    uint32_t lastSeen = 1;
    int newImages = 0;
    int killedWhileWriting = 0;
    int temporariesBefore = 0;
    for (long at = 1; at <= operations + 1; ++at) {
        const uint32_t k = static_cast<uint32_t>(at) + 1;
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            fillImage(group3, size, k);
            filefaults::Arm(filefaults::Action::Kill, at);
            _exit(pref_save(3) == 0 ? 0 : 2);
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        ASSERT_TRUE(killed || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << "operation " << at;

        int temporaries = 0;
        for (const auto& entry : std::filesystem::directory_iterator(dir))
            temporaries += entry.path().filename().string().rfind("group3.bin.tmp.", 0) == 0;
        killedWhileWriting += temporaries > temporariesBefore;
        temporariesBefore = temporaries;

        pref_sim_forget_images();
        ASSERT_EQ(0, pref_load(3)) << "operation " << at << ": the group on NAND does not load";
        uint32_t found = 0;
        std::memcpy(&found, group3 + 100, sizeof found);
        ASSERT_TRUE(found == lastSeen || found == k) << "operation " << at << ": image " << found << " was never written";
        ASSERT_TRUE(isImage(group3, size, found)) << "operation " << at << ": image " << found << " is mixed";
        if (!killed) {
            EXPECT_EQ(k, found) << "a save that ran to its end is on NAND";
        }
        newImages += found == k;
        lastSeen = found;
    }
    RecordProperty("new_images", newImages);
    RecordProperty("killed_while_writing", killedWhileWriting);
    EXPECT_GT(newImages, 1) << "no kill came after the rename";
    EXPECT_GT(killedWhileWriting, 0) << "no kill came in the middle of a save";

    // The temporaries of the killed savers go with the next save.
    ASSERT_EQ(0, pref_save(3));
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        EXPECT_EQ("group3.bin", entry.path().filename().string());
    }
}

} // namespace
