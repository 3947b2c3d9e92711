#include "AdjustGroupLayout.h"
#include "FileFaults.h"
#include "TestRoot.h"
#include "pref.h"
#include "pref_sim.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>

namespace {

using namespace pm::adjust;
constexpr unsigned long kGroup3Size = GROUP_SIZE;

std::vector<unsigned char> image(int group)
{
    unsigned long size = 0;
    unsigned char* at = pref_get_addr(group, &size);
    return std::vector<unsigned char>(at, at + size);
}

// Image k: every byte is k's low byte but the stamp k at offset 100, so a mix of two shows at once.
std::vector<unsigned char> numberedImage(uint32_t k)
{
    std::vector<unsigned char> bytes(kGroup3Size, static_cast<unsigned char>(k));
    std::memcpy(&bytes[100], &k, sizeof k);
    return bytes;
}

class PrefStoreTest : public ::testing::Test {
protected:
    void SetUp() override { pref_sim_reset(); }
    long nandFiles() const
    {
        return std::distance(std::filesystem::directory_iterator(root.Host("/mnt/ubi1/pref/store")), {});
    }
    TestRoot root;
};

TEST_F(PrefStoreTest, DefaultsOutsideAccessAndBadFilesAreRefusedAndFailedKilledOrConcurrentSavesLoseNothing)
{
    std::vector<unsigned char> defaults(kGroup3Size, 0);
    defaults[MARKER1_OFFSET] = MARKER1;
    defaults[MARKER2_OFFSET] = MARKER2;
    EXPECT_TRUE(defaults == image(3)) << "all zero but the two markers";
    const unsigned char bytes[4] = {1, 2, 3, 4};
    unsigned long size = 1;
    ASSERT_EQ(4, pref_set_bytes(1, 40, bytes, 4));
    ASSERT_EQ(4, pref_set_long(1, 44, -18620)) << "the last word";
    const std::pair<const char*, int> refused[] = {
        {"set_long one byte past", pref_set_long(1, 45, 1)}, {"set_long far past", pref_set_long(1, ~0UL, 1)},
        {"set_bytes one past", pref_set_bytes(1, 45, bytes, 4)}, {"set_bytes wrapping", pref_set_bytes(1, 8, bytes, ~0UL)},
        {"set_bytes without a source", pref_set_bytes(1, 0, nullptr, 4)}, {"unknown group save", pref_save(7)},
        {"set_bytes of nothing at the end (accepted: 0)", pref_set_bytes(1, 48, nullptr, 0) - 1},
        {"unknown group set_long", pref_set_long(2, 0, 1)}, {"unknown group reset", pref_reset(0)},
        {"unknown group load", pref_load(-3)}, {"unknown group address", pref_get_addr(2, &size) == nullptr && size == 0 ? -1 : 0},
    };
    for (const auto& [name, result] : refused) EXPECT_EQ(-1, result) << name;
    std::vector<unsigned char> expected(40, 0);
    expected.insert(expected.end(), {1, 2, 3, 4, 0x44, 0xB7, 0xFF, 0xFF});
    EXPECT_EQ(expected, image(1)) << "only the accepted writes landed, little-endian";
    ASSERT_EQ(0, pref_save_to_file(1, "/tmp/one.dump"));
    EXPECT_EQ(std::string("PMPREF01\x01\0\0\0\x30\0\0\0\xF8\x26\xB2\xF2", 20), root.ReadFile("/tmp/one.dump").substr(0, 20)) << "zlib's CRC-32";
    EXPECT_EQ(-18620, pref_get_long(1, 44)) << "lengths are signed 32-bit";
    EXPECT_EQ(0, pref_get_byte(1, 48));
    EXPECT_EQ(0, pref_get_long(3, kGroup3Size - 3));

    ASSERT_EQ(4, pref_set_long(3, BODY_SIZE_OFFSET, 0x5A5A));
    ASSERT_EQ(0, pref_save_to_file(3, "/tmp/good.dump"));
    const std::string good = root.ReadFile("/tmp/good.dump");
    ASSERT_EQ(20u + kGroup3Size, good.size());
    ASSERT_EQ(4, pref_set_long(3, BODY_SIZE_OFFSET, 77));
    const std::vector<unsigned char> before = image(3);
    std::vector<std::pair<std::string, std::string>> cases = {
        {"empty", ""}, {"last byte missing", good.substr(0, good.size() - 1)}, {"one byte too many", good + "x"}};
    for (size_t at : {0UL, 8UL, 12UL, 16UL, 20UL, 20UL + MARKER2_OFFSET}) {
        cases.emplace_back("byte " + std::to_string(at) + " changed", good);
        cases.back().second[at] ^= 0x01;
    }
    for (const auto& [name, content] : cases) {
        root.WriteFile("/tmp/bad.dump", content);
        root.WriteFile("/mnt/ubi1/pref/store/group3.bin", content);
        EXPECT_LT(pref_load_from_file(3, "/tmp/bad.dump"), 0) << name;
        EXPECT_LT(pref_load(3), 0) << name << " on NAND";
        EXPECT_TRUE(before == image(3)) << name << ": the image changed";
    }
    EXPECT_LT(pref_load_from_file(3, nullptr), 0);
    EXPECT_LT(pref_load_from_file(2, "/tmp/good.dump"), 0);
    const std::string log = root.ReadFile("/var/log/dlog.log");
    EXPECT_NE(std::string::npos, log.find(" W/PREF(3): pref_load_from_file: refused (checksum mismatch), group 3\n"));

    pref_sim_forget_images();
    EXPECT_EQ(0, pref_get_long(3, BODY_SIZE_OFFSET)) << "first use of a refused copy starts from the defaults";
    EXPECT_EQ(-1, pref_save(3)) << "defaults nobody asked for are not saved over the unread copy";
    ASSERT_EQ(0, pref_load_from_file(3, "/tmp/good.dump"));
    EXPECT_EQ(0x5A5A, pref_get_long(3, BODY_SIZE_OFFSET));
    EXPECT_EQ(0, pref_sim_save_count(3)) << "loading a file changes memory only";
    EXPECT_EQ(0, pref_save(3)) << "a loaded image may be saved";
    root.WriteFile("/mnt/ubi1/pref/store/group3.bin", good.substr(1));
    pref_sim_forget_images();
    EXPECT_EQ(-1, pref_save(3));
    ASSERT_EQ(0, pref_reset(3));
    EXPECT_EQ(0, pref_save(3)) << "an explicit reset may be saved over a refused copy";

    unsigned char* group3 = pref_get_addr(3, nullptr);
    std::memcpy(group3, numberedImage(1).data(), kGroup3Size);
    ASSERT_EQ(0, pref_save(3));
    pref_sim_set_disk_full(1);
    EXPECT_EQ(-1, pref_save(3));
    pref_sim_set_disk_full(0);
    EXPECT_EQ(1, nandFiles()) << "a failed save leaves no temporary";
    filefaults::Arm(filefaults::Action::Count); // each file operation of a save is a moment for the power to go
    ASSERT_EQ(0, pref_save(3));
    filefaults::Disarm();
    const long operations = filefaults::Count();
    uint32_t lastSeen = 1;
    int newImages = 0, killedWhileWriting = 0;
    for (long at = 1, filesBefore = 1; at <= operations + 1; ++at, filesBefore = nandFiles()) {
        SCOPED_TRACE("killed at file operation " + std::to_string(at));
        const uint32_t k = static_cast<uint32_t>(at) + 1;
        const pid_t child = fork();
        if (child == 0) {
            std::memcpy(group3, numberedImage(k).data(), kGroup3Size);
            filefaults::Arm(filefaults::Action::Kill, at);
            _exit(pref_save(3) == 0 ? 0 : 2);
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        ASSERT_TRUE(killed || (WIFEXITED(status) && WEXITSTATUS(status) == 0));
        killedWhileWriting += nandFiles() > filesBefore; // a saver killed while writing leaves its temporary
        pref_sim_forget_images();
        ASSERT_EQ(0, pref_load(3)) << "the group on NAND does not load";
        uint32_t found = 0;
        std::memcpy(&found, group3 + 100, sizeof found);
        ASSERT_TRUE(found == lastSeen || found == k) << "image " << found << " was never written";
        ASSERT_TRUE(numberedImage(found) == image(3)) << "image " << found << " is mixed";
        EXPECT_TRUE(killed || found == k) << "a save that ran to its end is on NAND";
        newImages += found == k;
        lastSeen = found;
    }
    EXPECT_GT(newImages, 1) << "no kill came after the rename";
    EXPECT_GT(killedWhileWriting, 0) << "no kill came in the middle of a save";
    ASSERT_EQ(0, pref_save(3));
    EXPECT_EQ(1, nandFiles()) << "the next save removes the killed savers' temporaries";

    std::vector<std::thread> threads;
    for (unsigned long t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (long round = 1; round <= 20; ++round) {
                EXPECT_EQ(4, pref_set_long(1, 4 * t, static_cast<long>(t) * 1000 + round));
                EXPECT_EQ(0, pref_save(1));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    pref_sim_forget_images();
    for (unsigned long t = 0; t < 4; ++t) EXPECT_EQ(static_cast<long>(t) * 1000 + 20, pref_get_long(1, 4 * t));
}

} // namespace
