// The preference-backed block store: Insert and Remove against a model, bounds, markers,
// failures of the temporary and of the preference store, and the snapshot-boot preparation.
#include "AdjustStoreImage.h"
#include "FileSizeLimit.h"
#include "kernel.h"

#include <filesystem>
#include <random>

using namespace adjtest;

namespace {

using AdjustPreferenceTest = StoreAreas;

const std::string kTemporary = "/tmp/adj_back.dat";
const std::string kAttach = "ubiattach -p /dev/mtd2 -d 2";
const std::string kMount = "mount(/dev/ubi2_0, /mnt/ubi2, ubifs, 0xc00, bulk_read,no_chk_data_crc)";
const std::string kDirty = "echo 1 > /pref/dirty_adj; sync; ";

std::string RandomBytes(size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

std::string Zeros(size_t size)
{
    return std::string(size, '\0');
}

TEST_F(AdjustPreferenceTest, InsertAndRemoveChangeTheAreaAsTheModelSays)
{
    const std::string original = RandomBytes(3000, 1);
    const struct {
        const char* name;
        bool insert;
        unsigned long offset, size;
        int result;
        std::string expected;
    } cases[] = {
        {"insert at 0", true, 0, 140, 0, Zeros(140) + original},
        {"insert inside", true, 1500, 1025, 0, original.substr(0, 1500) + Zeros(1025) + original.substr(1500)},
        {"insert at the end", true, 3000, 7, 0, original + Zeros(7)},
        {"insert of nothing", true, 1234, 0, 0, original},
        {"insert past the end grows by the size", true, 3010, 5, 0, original + Zeros(5)},
        {"remove at 0", false, 0, 140, 0, original.substr(140)},
        {"remove inside", false, 1024, 1024, 0, original.substr(0, 1024) + original.substr(2048)},
        {"remove the last bytes", false, 2860, 140, 0, original.substr(0, 2860)},
        {"remove of nothing", false, 17, 0, 0, original},
        {"remove everything", false, 0, 3000, 0, ""},
        {"remove one past the end", false, 2860, 141, -5, original},
        {"remove far past the end", false, ~0UL - 1, 5, -5, original},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SetBody(original);
        traces.clear();
        EXPECT_EQ(c.result, c.insert ? body.Insert(c.offset, c.size) : body.Remove(c.offset, c.size));
        EXPECT_TRUE(c.expected == Body()) << "wrong area";
        EXPECT_EQ(c.expected.size() / 140, body.GetItemNum());
        EXPECT_FALSE(root.Exists(kTemporary));
        EXPECT_EQ(c.result < 0, Traced("CAdjustPreference::Remove Error : -5"));
    }
}

TEST_F(AdjustPreferenceTest, EmptyAndNegativeAreasAndTheRecordCount)
{
    const struct {
        long length;
        unsigned long items;
    } cases[] = {{280, 2}, {279, 1}, {140, 1}, {139, 0}, {0, 0}, {-140, 0}};
    for (const auto& c : cases) {
        CAdjustPreference store;
        EXPECT_EQ(c.length > 0, store.Mount(kBodyAt, kBodyLengthAt, c.length)) << c.length;
        EXPECT_EQ(c.items, store.GetItemNum()) << c.length;
        char byte = 0;
        EXPECT_EQ(c.length >= 0, store.Read(0, &byte, 0)) << c.length;
    }

    // The fresh header area is empty: it grows by appending, without a temporary.
    char buffer[1] = {};
    EXPECT_TRUE(header.Write(0, buffer, 0));
    ASSERT_EQ(0, header.Insert(0, 280));
    EXPECT_EQ(280, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(2u, header.GetItemNum());
    EXPECT_FALSE(root.Exists(kTemporary));
    const unsigned long before = pm::AssertionCount();
    Printed([&] { EXPECT_FALSE(header.Mount(kBodyAt, kBodyLengthAt, 1000)) << "a store is mounted once"; });
    EXPECT_EQ(before + 1, pm::AssertionCount());
    EXPECT_EQ(2u, header.GetItemNum()) << "the first mount stays";
}

TEST_F(AdjustPreferenceTest, ReadAndWriteStayInsideTheAreaAndTheImage)
{
    const std::string original = RandomBytes(300, 3);
    SetBody(original);
    char buffer[301] = {};
    EXPECT_TRUE(body.Read(200, buffer, 100)) << "up to the last byte";
    EXPECT_EQ(original.substr(200), std::string(buffer, 100));
    EXPECT_FALSE(body.Read(200, buffer, 101));
    EXPECT_TRUE(Traced("CAdjustPreference::Read Error 200, 101, 300"));
    EXPECT_FALSE(body.Read(~0UL, buffer, 2)) << "an offset that wraps is past the end";
    std::memset(buffer, 0x5A, sizeof buffer);
    EXPECT_TRUE(body.Write(290, buffer, 10));
    EXPECT_FALSE(body.Write(291, buffer, 10));
    EXPECT_FALSE(body.Write(~0UL, buffer, 2));
    const std::string written = original.substr(0, 290) + std::string(10, '\x5A');
    EXPECT_EQ(written, Body()) << "only the fitting write landed; Write never grows the area";

    body.Umount();
    traces.clear();
    EXPECT_FALSE(body.Read(0, buffer, 1));
    EXPECT_FALSE(body.Write(0, buffer, 1));
    EXPECT_EQ(-7, body.Insert(0, 1));
    EXPECT_EQ(-7, body.Remove(0, 1));
    EXPECT_EQ((std::vector<std::string>{Trace("CAdjustPreference::Read Error : No memory"),
                                        Trace("CAdjustPreference::Write Error : No memory"),
                                        Trace("CAdjustPreference::Insert Error : -7"),
                                        Trace("CAdjustPreference::Remove Error : -7")}),
              traces);
    EXPECT_EQ(written, Body());

    // A corrupt length word: the image's end still bounds every access.
    ASSERT_TRUE(body.Mount(kBodyAt, kBodyLengthAt, 0x7FFFFFFF));
    EXPECT_FALSE(body.Read(5300000, buffer, 64)) << "inside the length, outside the image";
    EXPECT_FALSE(body.Write(5300000, buffer, 64));
    EXPECT_LT(body.Insert(0x7FFFFFFE, 16), 0);
    EXPECT_LT(body.Remove(5300000, 16), 0);
    EXPECT_TRUE(body.Read(0, buffer, 64)) << "the part inside the image is still readable";
}

TEST_F(AdjustPreferenceTest, CrcCheckTestsBothMarkers)
{
    const struct {
        unsigned char first, second;
        bool valid;
    } cases[] = {{0x11, 0x26, true}, {0x12, 0x26, false}, {0x11, 0x25, false}, {0, 0, false}};
    for (const auto& c : cases) {
        ASSERT_EQ(1, pref_set_bytes(kAdjustGroup, 8, &c.first, 1));
        ASSERT_EQ(1, pref_set_bytes(kAdjustGroup, 5294097, &c.second, 1));
        EXPECT_EQ(c.valid, header.crcCheck()) << int{c.first} << "/" << int{c.second};
    }
}

TEST_F(AdjustPreferenceTest, TemporaryThatCannotBeWrittenLeavesTheAreaAsItWas)
{
    const std::string original = RandomBytes(2400 * 1024 + 333, 4);
    SetBody(original);
    {
        FileSizeLimit full(64 * 1024);
        EXPECT_EQ(-1, body.Insert(140, 140));
        EXPECT_EQ(-1, body.Remove(0, 140));
    }
    EXPECT_TRUE(original == Body()) << "the area and its length are unchanged";
    EXPECT_EQ(original.size() / 140, body.GetItemNum());
    EXPECT_FALSE(root.Exists(kTemporary));
    EXPECT_TRUE(Traced("CAdjustPreference::Insert Error : -1"));
    EXPECT_TRUE(Traced("CAdjustPreference::Remove Error : -1"));
    ASSERT_EQ(0, body.Insert(140, 140)) << "with room again a long tail moves";
    EXPECT_TRUE(original.substr(0, 140) + Zeros(140) + original.substr(140) == Body());
    ASSERT_EQ(0, body.Remove(140, 140));
    EXPECT_TRUE(original == Body());

    // No /tmp at all: a failed check.
    std::filesystem::remove_all(root.Host("/tmp"));
    root.WriteFile("/tmp", "not a directory");
    const unsigned long before = pm::AssertionCount();
    const std::string out = Printed([&] {
        EXPECT_LT(body.Insert(10, 10), 0);
        EXPECT_LT(body.Remove(10, 10), 0);
    });
    EXPECT_EQ(before + 2, pm::AssertionCount());
    EXPECT_EQ(0u, out.find("Assertion Failed! --- File lib/production-util/src/CAdjustPreference.cpp Line "));
    EXPECT_TRUE(original == Body());
    EXPECT_EQ(0, body.Insert(original.size(), 40)) << "appending needs no temporary";
    EXPECT_TRUE(original + Zeros(40) == Body());
}

TEST_F(AdjustPreferenceTest, FailingSettersAreReportedWithTheirCodes)
{
    SetBody(RandomBytes(700, 6));
    const struct {
        pref_sim_op op;
        bool insert;
        int result;
    } cases[] = {{PREF_SIM_OP_SET_LONG, true, -4}, {PREF_SIM_OP_SET_BYTES, true, -3},
                 {PREF_SIM_OP_SET_LONG, false, -4}, {PREF_SIM_OP_SET_BYTES, false, -3}};
    for (const auto& c : cases) {
        const std::string operation = c.insert ? "Insert" : "Remove";
        SCOPED_TRACE(operation + " with failing setter " + std::to_string(c.op));
        pref_sim_fail_next(c.op, 1);
        EXPECT_EQ(c.result, c.insert ? body.Insert(0, 140) : body.Remove(0, 140));
        EXPECT_TRUE(Traced("CAdjustPreference::" + operation + " Error : " + std::to_string(c.result)));
        EXPECT_FALSE(root.Exists(kTemporary));
    }
    pref_sim_fail_next(PREF_SIM_OP_SET_LONG, 1);
    pref_sim_fail_next(PREF_SIM_OP_SET_BYTES, 1);
    EXPECT_EQ(-3, body.Insert(0, 140)) << "the last failure met decides";
}

class TestablePreference : public CAdjustPreference {
public:
    using CAdjustPreference::copy;
};

TEST_F(AdjustPreferenceTest, CopyChecksTheAreaBeforeAnyByteMoves)
{
    SetBody(RandomBytes(3000, 7));
    TestablePreference store;
    ASSERT_TRUE(store.Mount(kBodyAt, kBodyLengthAt, 3000));
    unsigned char* area = pref_get_addr(kAdjustGroup, nullptr) + kBodyAt;
    const std::string path = root.Host("/tmp/copy.dat");
    FILE* file = std::fopen(path.c_str(), "w+b");
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(-5, store.copy(static_cast<unsigned char*>(nullptr), file, 0, 0, 10));
    EXPECT_EQ(-5, store.copy(file, static_cast<unsigned char*>(nullptr), 0, 0, 10));
    EXPECT_EQ(-4, store.copy(area, file, 2000, 0, 1001));
    EXPECT_EQ(-4, store.copy(file, area, 2000, 0, 1001));
    EXPECT_EQ(-1, store.copy(file, area, 0, 0, 10)) << "nothing to read";
    const std::string before = Body();
    ASSERT_EQ(0, store.copy(area, file, 0, 0, 3000));
    EXPECT_EQ(before, root.ReadFile("/tmp/copy.dat"));
    EXPECT_EQ(0, store.copy(file, area, 1000, 0, 2000));
    EXPECT_EQ(before.substr(1000, 2000) + before.substr(2000), Body());
    std::fclose(file);
}

TEST_F(AdjustPreferenceTest, SnapshotBootRunsOncePerProcessAndAFailedMountIsTriedAgain)
{
    SetBody(RandomBytes(500, 8));
    char bytes[4] = {1, 2, 3, 4};
    ASSERT_TRUE(body.Write(0, bytes, 4));
    ASSERT_EQ(0, body.Insert(0, 140));
    header.SelectSnapshotMaking(true);
    EXPECT_TRUE(KernelSimRecords().empty()) << "not selected at the body's change, no change of the header yet";

    kernel_sim_fail_next_mount(EIO, 1);
    ASSERT_EQ(0, header.Insert(0, 140)); // the header store's first change, selected
    EXPECT_TRUE(Traced("[/mnt/ubi2] rw mount failed [Input/output error] "));
    EXPECT_FALSE(root.Exists("/pref/dirty_adj")) << "not marked dirty without the partition";
    ASSERT_EQ(0, header.Insert(0, 140));
    EXPECT_EQ(2, kernel_sim_record_count()) << "only the first change of a store runs the command";

    body.SelectSnapshotMaking(true); // a modified store: tries again
    EXPECT_EQ((std::vector<std::string>{kAttach, kMount, kAttach, kMount, kDirty}), KernelSimRecords());
    EXPECT_EQ("1\n", root.ReadFile("/pref/dirty_adj"));
    EXPECT_NE(std::string::npos, root.ReadFile("/proc/mounts").find("/dev/ubi2_0 /mnt/ubi2 ubifs rw,"));
    EXPECT_TRUE(Traced("[/mnt/ubi2] rw mount done! "));
    header.SelectSnapshotMaking(true);
    body.Reset();
    EXPECT_EQ(5, kernel_sim_record_count()) << "prepared once per process";
}

TEST_F(AdjustPreferenceTest, SnapshotBootRemountsAListedPartitionAndCountsAFailedWrite)
{
    ASSERT_EQ(0, kernel_sim_set_proc_mounts("rootfs / rootfs rw 0 0\n/dev/ubi2_0 /mnt/ubi2 ubifs ro,noatime 0 0\n"));
    ASSERT_EQ(0, kernel_system(kAttach.c_str())); // attached at boot
    kernel_sim_reset();
    SetBody(RandomBytes(100, 9));
    body.SelectSnapshotMaking(true);
    EXPECT_TRUE(KernelSimRecords().empty()) << "nothing changed yet";
    char bytes[8] = {};
    EXPECT_FALSE(body.Write(96, bytes, 8)) << "past the end";
    EXPECT_EQ((std::vector<std::string>{
                  "mount(/dev/ubi2_0, /mnt/ubi2, ubifs, 0xc20, bulk_read,no_chk_data_crc)", kDirty}),
              KernelSimRecords())
        << "a failed write is still the first change; no ubiattach for a mounted partition";
    EXPECT_TRUE(Traced("[/mnt/ubi2] rw remount done! "));
    EXPECT_NE(std::string::npos, root.ReadFile("/proc/mounts").find("ubifs rw,noatime,nodiratime,bulk_read"));
}

TEST_F(AdjustPreferenceTest, CheckMountStateReadsProcMounts)
{
    const std::string overlong = std::string(600, 'd') + " /mnt/ubi2 ubifs rw 0 0\n";
    const struct {
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
    for (const auto& c : cases) {
        ASSERT_EQ(0, kernel_sim_set_proc_mounts(c.content)) << c.name;
        EXPECT_EQ(c.state, body.checkMountState("ubifs", "/mnt/ubi2")) << c.name;
    }
    EXPECT_TRUE(Traced("fopen(/proc/mounts) failed "));
}

TEST_F(AdjustPreferenceTest, ResetPutsGroupThreeBackToItsDefaultsOnNand)
{
    SetBody(RandomBytes(1000, 11));
    ASSERT_EQ(0, pref_save(kAdjustGroup));
    ASSERT_EQ(0, kernel_sim_set_proc_mounts(nullptr));
    CAdjustPreference never; // Reset needs no mount
    never.Reset();
    EXPECT_EQ((std::vector<std::string>{kAttach, kMount, kDirty}), KernelSimRecords())
        << "Reset prepares the snapshot boot whatever the selection";
    pref_sim_forget_images();
    EXPECT_EQ(0, pref_get_long(kAdjustGroup, kBodyLengthAt));
    EXPECT_EQ(0x11, pref_get_byte(kAdjustGroup, 8));
    EXPECT_EQ(0x26, pref_get_byte(kAdjustGroup, 5294097));
    EXPECT_EQ(0, pref_get_byte(kAdjustGroup, kBodyAt));

    pref_sim_fail_next(PREF_SIM_OP_RESET, 1);
    pref_sim_fail_next(PREF_SIM_OP_SAVE, 1);
    traces.clear();
    never.Reset();
    EXPECT_EQ((std::vector<std::string>{Trace("CAdjustPreference::Reset Error1"),
                                        Trace("CAdjustPreference::Reset Error2")}),
              traces);
    EXPECT_EQ(3, kernel_sim_record_count()) << "prepared already";
}

} // namespace
