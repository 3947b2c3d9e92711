// The preference-backed block store: areas of group 3, Insert and Remove against a
// model, bounds, markers, failures of the temporary and of the preference store,
// and the snapshot-boot preparation.
#include "CAdjustPreference.h"
#include "PMReport.h"
#include "FileSizeLimit.h"
#include "TestRoot.h"
#include "kernel.h"
#include "kernel_sim.h"
#include "pref.h"
#include "pref_sim.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr unsigned long kBodyData = 51217;
constexpr unsigned long kBodyLength = 51213;
constexpr unsigned long kHeaderData = 13;
constexpr unsigned long kHeaderLength = 9;

const std::string kTemporary = "/tmp/adj_back.dat";
const std::string kAttach = "ubiattach -p /dev/mtd2 -d 2";
const std::string kMount = "mount(/dev/ubi2_0, /mnt/ubi2, ubifs, 0xc00, bulk_read,no_chk_data_crc)";
const std::string kRemount = "mount(/dev/ubi2_0, /mnt/ubi2, ubifs, 0xc20, bulk_read,no_chk_data_crc)";
const std::string kDirty = "echo 1 > /pref/dirty_adj; sync; ";
const std::string kUbi2Listed = "/dev/ubi2_0 /mnt/ubi2 ubifs ro,noatime 0 0\n";

std::vector<std::string> g_traces;
void recordTrace(const char* text)
{
    g_traces.emplace_back(text);
}

std::string trace(const std::string& text)
{
    return "\x1b[m" + text + "\x1b[m\n";
}

bool traced(const std::string& text)
{
    for (const std::string& t : g_traces) {
        if (t == trace(text)) return true;
    }
    return false;
}

std::string randomBytes(size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

/// Exposes the stream helpers.
class TestablePreference : public CAdjustPreference {
public:
    using CAdjustPreference::copy;
};

class AdjustPreferenceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        pref_sim_reset();
        kernel_sim_reset();
        g_traces.clear();
        pm::SetTraceSink(&recordTrace);
    }
    void TearDown() override
    {
        pm::SetTraceSink(nullptr);
        pref_sim_reset();
        kernel_sim_reset();
    }

    /// Puts `content` into the body area of group 3 (length word included), zero
    /// bytes behind it.
    void SetBody(const std::string& content)
    {
        const std::string withZeros = content + std::string(4096, '\0');
        ASSERT_EQ(4, pref_set_long(3, kBodyLength, static_cast<long>(content.size())));
        ASSERT_EQ(static_cast<int>(withZeros.size()), pref_set_bytes(3, kBodyData, withZeros.data(), withZeros.size()));
    }

    /// The body area as the preference store holds it (length word and bytes).
    std::string Body()
    {
        const long length = pref_get_long(3, kBodyLength);
        const unsigned char* image = pref_get_addr(3, nullptr);
        return std::string(reinterpret_cast<const char*>(image + kBodyData), static_cast<size_t>(length));
    }

    bool MountBody(CAdjustPreference& store)
    {
        return store.Mount(kBodyData, kBodyLength, pref_get_long(3, kBodyLength));
    }

    /// Replaces the device's /tmp with a plain file, so no temporary can be created there.
    void BreakTmp()
    {
        std::filesystem::remove_all(root.Host("/tmp"));
        root.WriteFile("/tmp", "not a directory");
    }

    TestRoot root;
};

TEST_F(AdjustPreferenceTest, InsertAndRemoveChangeTheAreaAsTheModelSays)
{
    const std::string original = randomBytes(3000, 1);
    struct Case {
        const char* name;
        bool insert;
        unsigned long offset;
        unsigned long size;
        int result;
        std::string expected;
    } cases[] = {
        {"insert at 0", true, 0, 140, 0, std::string(140, '\0') + original},
        {"insert in the middle", true, 1500, 1025, 0,
         original.substr(0, 1500) + std::string(1025, '\0') + original.substr(1500)},
        {"insert at the end", true, 3000, 7, 0, original + std::string(7, '\0')},
        {"insert of nothing", true, 1234, 0, 0, original},
        {"insert past the end grows by the size", true, 3010, 5, 0, original + std::string(5, '\0')},
        {"remove at 0", false, 0, 140, 0, original.substr(140)},
        {"remove in the middle", false, 1024, 1024, 0, original.substr(0, 1024) + original.substr(2048)},
        {"remove the last bytes", false, 2860, 140, 0, original.substr(0, 2860)},
        {"remove of nothing", false, 17, 0, 0, original},
        {"remove everything", false, 0, 3000, 0, ""},
        {"remove one past the end", false, 2860, 141, -5, original},
        {"remove far past the end", false, ~0UL - 1, 5, -5, original},
    };
    for (const Case& c : cases) {
        SetBody(original);
        CAdjustPreference store;
        ASSERT_TRUE(MountBody(store));
        g_traces.clear();
        const int result = c.insert ? store.Insert(c.offset, c.size) : store.Remove(c.offset, c.size);
        EXPECT_EQ(c.result, result) << "case " << c.name;
        EXPECT_TRUE(c.expected == Body()) << "case " << c.name << ": wrong area";
        EXPECT_EQ(c.expected.size() / 140, store.GetItemNum()) << "case " << c.name;
        EXPECT_FALSE(root.Exists(kTemporary)) << "case " << c.name;
        if (c.result < 0) {
            EXPECT_TRUE(traced("CAdjustPreference::Remove Error : -5")) << "case " << c.name;
        }
        store.Umount();
    }
}

TEST_F(AdjustPreferenceTest, InsertAndRemoveMoveALongTail)
{
    const std::string original = randomBytes(2400 * 1024 + 333, 2);
    SetBody(original);
    CAdjustPreference store;
    ASSERT_TRUE(MountBody(store));
    ASSERT_EQ(0, store.Insert(140, 140));
    EXPECT_TRUE(original.substr(0, 140) + std::string(140, '\0') + original.substr(140) == Body());
    ASSERT_EQ(0, store.Remove(140, 140));
    EXPECT_TRUE(original == Body());
    EXPECT_FALSE(root.Exists(kTemporary));
}

TEST_F(AdjustPreferenceTest, EmptyAndNegativeAreasAndTheRecordCount)
{
    struct Case {
        long length;
        bool mounted;
        unsigned long items;
    } cases[] = {{280, true, 2}, {279, true, 1}, {140, true, 1}, {139, true, 0}, {0, false, 0}, {-140, false, 0}};
    for (const Case& c : cases) {
        CAdjustPreference store;
        EXPECT_EQ(c.mounted, store.Mount(kBodyData, kBodyLength, c.length)) << "length " << c.length;
        EXPECT_EQ(c.items, store.GetItemNum()) << "length " << c.length;
        char byte = 0;
        EXPECT_EQ(c.length >= 0, store.Read(0, &byte, 0)) << "length " << c.length;
    }

    CAdjustPreference empty;
    ASSERT_FALSE(empty.Mount(kHeaderData, kHeaderLength, 0));
    char buffer[1] = {};
    EXPECT_TRUE(empty.Write(0, buffer, 0));
    ASSERT_EQ(0, empty.Insert(0, 280)) << "an empty area grows by appending";
    EXPECT_EQ(280, pref_get_long(3, kHeaderLength));
    EXPECT_EQ(2u, empty.GetItemNum());
    EXPECT_FALSE(root.Exists(kTemporary));

    const unsigned long before = pm::AssertionCount();
    testing::internal::CaptureStdout();
    EXPECT_FALSE(empty.Mount(kBodyData, kBodyLength, 1000)) << "a store is mounted once";
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(before + 1, pm::AssertionCount());
    EXPECT_EQ(2u, empty.GetItemNum()) << "the first mount stays";
}

TEST_F(AdjustPreferenceTest, ReadAndWriteStayInsideTheArea)
{
    const std::string original = randomBytes(300, 3);
    SetBody(original);
    CAdjustPreference store;
    ASSERT_TRUE(MountBody(store));
    char buffer[301] = {};

    EXPECT_TRUE(store.Read(200, buffer, 100)) << "up to the last byte";
    EXPECT_TRUE(original.substr(200) == std::string(buffer, 100));
    EXPECT_FALSE(store.Read(200, buffer, 101));
    EXPECT_TRUE(traced("CAdjustPreference::Read Error 200, 101, 300"));
    EXPECT_FALSE(store.Read(~0UL, buffer, 2)) << "an offset that wraps is past the end";

    std::memset(buffer, 0x5A, sizeof buffer);
    EXPECT_TRUE(store.Write(290, buffer, 10));
    EXPECT_FALSE(store.Write(291, buffer, 10));
    EXPECT_FALSE(store.Write(~0UL, buffer, 2));
    EXPECT_TRUE(original.substr(0, 290) + std::string(10, '\x5A') == Body()) << "only the fitting write landed";
    EXPECT_EQ(300, pref_get_long(3, kBodyLength)) << "Write never grows the area";

    store.Umount();
    g_traces.clear();
    EXPECT_FALSE(store.Read(0, buffer, 1));
    EXPECT_FALSE(store.Write(0, buffer, 1));
    EXPECT_EQ(-7, store.Insert(0, 1));
    EXPECT_EQ(-7, store.Remove(0, 1));
    EXPECT_EQ((std::vector<std::string>{trace("CAdjustPreference::Read Error : No memory"),
                                        trace("CAdjustPreference::Write Error : No memory"),
                                        trace("CAdjustPreference::Insert Error : -7"),
                                        trace("CAdjustPreference::Remove Error : -7")}),
              g_traces);
    EXPECT_EQ(original.substr(0, 290) + std::string(10, '\x5A'), Body());
}

TEST_F(AdjustPreferenceTest, ACorruptLengthNeverReachesPastTheImage)
{
    CAdjustPreference store;
    ASSERT_TRUE(store.Mount(kBodyData, kBodyLength, 0x7FFFFFFF));
    std::vector<char> buffer(64);
    EXPECT_FALSE(store.Read(5300000, buffer.data(), 64)) << "inside the length, outside the image";
    EXPECT_FALSE(store.Write(5300000, buffer.data(), 64));
    EXPECT_LT(store.Insert(0x7FFFFFFE, 16), 0);
    EXPECT_LT(store.Remove(5300000, 16), 0);
    EXPECT_TRUE(store.Read(0, buffer.data(), 64)) << "the part inside the image is still readable";
}

TEST_F(AdjustPreferenceTest, CrcCheckTestsBothMarkersForEveryStore)
{
    CAdjustPreference header;
    CAdjustPreference body;
    header.Mount(kHeaderData, kHeaderLength, 0);
    body.Mount(kBodyData, kBodyLength, 0);
    struct Case {
        const char* name;
        unsigned char first;
        unsigned char second;
        bool valid;
    } cases[] = {{"both markers", 0x11, 0x26, true},
                 {"first marker wrong", 0x12, 0x26, false},
                 {"second marker wrong", 0x11, 0x25, false},
                 {"both cleared", 0, 0, false}};
    for (const Case& c : cases) {
        ASSERT_EQ(1, pref_set_bytes(3, 8, &c.first, 1));
        ASSERT_EQ(1, pref_set_bytes(3, 5294097, &c.second, 1));
        EXPECT_EQ(c.valid, header.crcCheck()) << "case " << c.name;
        EXPECT_EQ(c.valid, body.crcCheck()) << "case " << c.name;
    }
}

TEST_F(AdjustPreferenceTest, FullDiskForTheTemporaryLeavesTheAreaAsItWas)
{
    const std::string original = randomBytes(2400 * 1024, 4);
    SetBody(original);
    CAdjustPreference store;
    ASSERT_TRUE(MountBody(store));
    {
        FileSizeLimit full(64 * 1024);
        EXPECT_EQ(-1, store.Insert(140, 140));
        EXPECT_EQ(-1, store.Remove(0, 140));
    }
    EXPECT_TRUE(original == Body()) << "the area and its length are unchanged";
    EXPECT_EQ(original.size() / 140, store.GetItemNum());
    EXPECT_FALSE(root.Exists(kTemporary));
    EXPECT_TRUE(traced("CAdjustPreference::Insert Error : -1"));
    EXPECT_TRUE(traced("CAdjustPreference::Remove Error : -1"));
    EXPECT_EQ(0, store.Insert(140, 140)) << "with room again the store works";
}

TEST_F(AdjustPreferenceTest, MissingTmpIsAFailedCheckAndChangesNothing)
{
    const std::string original = randomBytes(1000, 5);
    SetBody(original);
    CAdjustPreference store;
    ASSERT_TRUE(MountBody(store));
    BreakTmp();
    const unsigned long before = pm::AssertionCount();
    testing::internal::CaptureStdout();
    EXPECT_LT(store.Insert(10, 10), 0);
    EXPECT_LT(store.Remove(10, 10), 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(before + 2, pm::AssertionCount());
    EXPECT_EQ(0u, out.find("Assertion Failed! --- File lib/production-util/src/CAdjustPreference.cpp Line "));
    EXPECT_TRUE(original == Body());
    EXPECT_EQ(0, store.Insert(1000, 40)) << "appending needs no temporary";
    EXPECT_TRUE(original + std::string(40, '\0') == Body());
}

TEST_F(AdjustPreferenceTest, FailingSettersAreReportedWithTheirCodes)
{
    SetBody(randomBytes(700, 6));
    CAdjustPreference store;
    ASSERT_TRUE(MountBody(store));
    struct Case {
        const char* name;
        pref_sim_op op;
        bool insert;
        int result;
    } cases[] = {{"insert, length word", PREF_SIM_OP_SET_LONG, true, -4},
                 {"insert, area bytes", PREF_SIM_OP_SET_BYTES, true, -3},
                 {"remove, length word", PREF_SIM_OP_SET_LONG, false, -4},
                 {"remove, area bytes", PREF_SIM_OP_SET_BYTES, false, -3}};
    for (const Case& c : cases) {
        pref_sim_fail_next(c.op, 1);
        g_traces.clear();
        EXPECT_EQ(c.result, c.insert ? store.Insert(0, 140) : store.Remove(0, 140)) << "case " << c.name;
        EXPECT_TRUE(traced(std::string("CAdjustPreference::") + (c.insert ? "Insert" : "Remove") + " Error : "
                           + std::to_string(c.result)))
            << "case " << c.name;
        EXPECT_FALSE(root.Exists(kTemporary)) << "case " << c.name;
    }

    pref_sim_fail_next(PREF_SIM_OP_SET_LONG, 1);
    pref_sim_fail_next(PREF_SIM_OP_SET_BYTES, 1);
    EXPECT_EQ(-3, store.Insert(0, 140)) << "the last failure met decides";
}

TEST_F(AdjustPreferenceTest, CopyChecksTheAreaBeforeAnyByteMoves)
{
    SetBody(randomBytes(3000, 7));
    TestablePreference store;
    ASSERT_TRUE(MountBody(store));
    unsigned char* area = pref_get_addr(3, nullptr) + kBodyData;
    FILE* file = std::fopen(root.Host("/tmp/copy.dat").c_str(), "w+b");
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(-5, store.copy(static_cast<unsigned char*>(nullptr), file, 0, 0, 10));
    EXPECT_EQ(-5, store.copy(file, static_cast<unsigned char*>(nullptr), 0, 0, 10));
    EXPECT_EQ(-4, store.copy(area, file, 2000, 0, 1001));
    EXPECT_EQ(-4, store.copy(file, area, 2000, 0, 1001));
    const std::string before = Body();
    ASSERT_EQ(0, store.copy(area, file, 0, 0, 3000));
    EXPECT_EQ(before, root.ReadFile("/tmp/copy.dat"));
    EXPECT_EQ(0, store.copy(file, area, 1000, 0, 2000));
    EXPECT_EQ(before.substr(1000, 2000) + before.substr(2000), Body());
    std::fclose(file);

    FILE* empty = std::fopen(root.Host("/tmp/empty.dat").c_str(), "w+b");
    ASSERT_NE(nullptr, empty);
    EXPECT_EQ(-1, store.copy(empty, area, 0, 0, 10)) << "nothing to read";
    std::fclose(empty);
}

// ---- snapshot boot ------------------------------------------------------------------------

TEST_F(AdjustPreferenceTest, SnapshotBootRunsOnceWhenSelectedAfterTheFirstChange)
{
    SetBody(randomBytes(500, 8));
    CAdjustPreference header;
    CAdjustPreference body;
    header.Mount(kHeaderData, kHeaderLength, 0);
    ASSERT_TRUE(MountBody(body));
    char bytes[4] = {1, 2, 3, 4};
    ASSERT_TRUE(body.Write(0, bytes, 4));
    ASSERT_EQ(0, body.Insert(0, 140));
    EXPECT_TRUE(KernelSimRecords().empty()) << "snapshot making is not selected";

    body.SelectSnapshotMaking(true);
    EXPECT_EQ((std::vector<std::string>{kAttach, kMount, kDirty}), KernelSimRecords());
    EXPECT_EQ("1\n", root.ReadFile("/pref/dirty_adj"));
    EXPECT_NE(std::string::npos, root.ReadFile("/proc/mounts").find("/dev/ubi2_0 /mnt/ubi2 ubifs rw,"));
    EXPECT_TRUE(traced("[/mnt/ubi2] rw mount done! "));

    header.SelectSnapshotMaking(true);
    ASSERT_EQ(0, header.Insert(0, 140)); // the header store's first change
    body.SelectSnapshotMaking(true);
    body.Reset();
    EXPECT_EQ(3, kernel_sim_record_count()) << "prepared once per process";
}

TEST_F(AdjustPreferenceTest, SnapshotBootRemountsAListedPartitionAndCountsAFailedWrite)
{
    ASSERT_EQ(0, kernel_sim_set_proc_mounts(("rootfs / rootfs rw 0 0\n" + kUbi2Listed).c_str()));
    ASSERT_EQ(0, kernel_system(kAttach.c_str())); // attached at boot
    kernel_sim_reset();
    SetBody(randomBytes(100, 9));
    CAdjustPreference body;
    ASSERT_TRUE(MountBody(body));
    body.SelectSnapshotMaking(true);
    EXPECT_TRUE(KernelSimRecords().empty()) << "nothing changed yet";

    char bytes[8] = {};
    EXPECT_FALSE(body.Write(96, bytes, 8)) << "past the end";
    EXPECT_EQ((std::vector<std::string>{kRemount, kDirty}), KernelSimRecords())
        << "a failed write is still the first change; no ubiattach for a mounted partition";
    EXPECT_TRUE(traced("[/mnt/ubi2] rw remount done! "));
    EXPECT_NE(std::string::npos, root.ReadFile("/proc/mounts").find("ubifs rw,noatime,nodiratime,bulk_read"));
}

TEST_F(AdjustPreferenceTest, FailedMountIsTriedAgainUntilItSucceeds)
{
    SetBody(randomBytes(100, 10));
    CAdjustPreference body;
    ASSERT_TRUE(MountBody(body));
    body.SelectSnapshotMaking(true);
    kernel_sim_fail_next_mount(EIO, 1);
    char bytes[4] = {};
    ASSERT_TRUE(body.Write(0, bytes, 4));
    EXPECT_TRUE(traced("[/mnt/ubi2] rw mount failed [Input/output error] "));
    EXPECT_FALSE(root.Exists("/pref/dirty_adj")) << "not marked dirty without the partition";

    ASSERT_TRUE(body.Write(0, bytes, 4));
    EXPECT_EQ(2, kernel_sim_record_count()) << "only the first change of a store runs the command";

    body.SelectSnapshotMaking(true); // a modified store: tries again
    EXPECT_EQ((std::vector<std::string>{kAttach, kMount, kAttach, kMount, kDirty}), KernelSimRecords());
    EXPECT_EQ("1\n", root.ReadFile("/pref/dirty_adj"));
}

TEST_F(AdjustPreferenceTest, CheckMountStateReadsProcMounts)
{
    CAdjustPreference store;
    const std::string overlong = std::string(600, 'd') + " /mnt/ubi2 ubifs rw 0 0\n";
    struct Case {
        const char* name;
        const char* content; // nullptr: no /proc/mounts
        int state;
    } cases[] = {
        {"listed", "rootfs / rootfs rw 0 0\n/dev/ubi2_0 /mnt/ubi2 ubifs rw 0 0\n", 1},
        {"not listed", "rootfs / rootfs rw 0 0\n/dev/ubi1_0 /mnt/ubi1 ubifs rw 0 0\n", 0},
        {"other file system", "/dev/ubi2_0 /mnt/ubi2 vfat rw 0 0\n", 0},
        {"other mount point", "/dev/ubi2_0 /mnt/ubi2/x ubifs rw 0 0\n", 0},
        {"case differs", "/dev/ubi2_0 /mnt/UBI2 ubifs rw 0 0\n", 0},
        {"garbage shifts the scan and ends", "garbage\nx y z w not numbers\n/dev/ubi2_0 /mnt/ubi2 ubifs rw 0 0\n", 0},
        {"incomplete entry", "/dev/ubi2_0 /mnt/ubi2 ubifs rw\n", 0},
        {"overlong fields", overlong.c_str(), 0},
        {"empty", "", 0},
        {"missing", nullptr, -1},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(0, kernel_sim_set_proc_mounts(c.content)) << "case " << c.name;
        EXPECT_EQ(c.state, store.checkMountState("ubifs", "/mnt/ubi2")) << "case " << c.name;
    }
    EXPECT_TRUE(traced("fopen(/proc/mounts) failed "));
}

TEST_F(AdjustPreferenceTest, ResetPutsGroupThreeBackToItsDefaultsOnNand)
{
    SetBody(randomBytes(1000, 11));
    ASSERT_EQ(0, pref_save(3));
    ASSERT_EQ(0, kernel_sim_set_proc_mounts(nullptr));
    CAdjustPreference never; // Reset needs no mount
    never.Reset();
    EXPECT_EQ((std::vector<std::string>{kAttach, kMount, kDirty}), KernelSimRecords())
        << "Reset prepares the snapshot boot whatever the selection";
    pref_sim_forget_images();
    EXPECT_EQ(0, pref_get_long(3, kBodyLength));
    EXPECT_EQ(0x11, pref_get_byte(3, 8));
    EXPECT_EQ(0x26, pref_get_byte(3, 5294097));
    EXPECT_EQ(0, pref_get_byte(3, kBodyData));

    pref_sim_fail_next(PREF_SIM_OP_RESET, 1);
    pref_sim_fail_next(PREF_SIM_OP_SAVE, 1);
    g_traces.clear();
    never.Reset();
    EXPECT_EQ((std::vector<std::string>{trace("CAdjustPreference::Reset Error1"),
                                        trace("CAdjustPreference::Reset Error2")}),
              g_traces);
    EXPECT_EQ(3, kernel_sim_record_count()) << "prepared already";
}

} // namespace
