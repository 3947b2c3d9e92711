// The preference-backed block store: bounds, markers, failures of the temporary and of the
// preference store, and the snapshot-boot preparation.
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

TEST_F(AdjustPreferenceTest, MarkersAndTheRecordCountAreReadAndAccessesStayInsideTheAreaAndTheImage)
{
    for (auto [length, records] : {std::pair{280L, 2UL}, {279L, 1UL}, {0L, 0UL}, {-140L, 0UL}}) {
        CAdjustPreference store;
        EXPECT_EQ(length > 0, store.Mount(BODY_DATA_OFFSET, BODY_SIZE_OFFSET, length)) << length;
        EXPECT_EQ(records, store.GetItemNum()) << length;
        char byte = 0;
        EXPECT_EQ(length >= 0, store.Read(0, &byte, 0)) << length;
    }
    const unsigned long before = pm::AssertionCount();
    Printed([&] { EXPECT_FALSE(header.Mount(BODY_DATA_OFFSET, BODY_SIZE_OFFSET, 1000)) << "a store is mounted once"; });
    EXPECT_EQ(before + 1, pm::AssertionCount());
    EXPECT_EQ(0u, header.GetItemNum()) << "the first mount stays";

    EXPECT_TRUE(header.crcCheck()) << "a fresh group holds both markers, 0x11 and 0x26";
    ASSERT_EQ(1, pref_set_bytes(PREF_ID_ADJUST, MARKER2_OFFSET, "\x25", 1));
    EXPECT_FALSE(header.crcCheck()) << "the second marker is checked too";
    const std::string original = RandomBytes(300, 3);
    SetBody(original);
    for (auto [offset, size] : {std::pair{160UL, 141UL}, {~0UL - 1, 5UL}}) {
        traces.clear();
        EXPECT_EQ(-5, body.Remove(offset, size)) << offset;
        EXPECT_EQ((std::vector<std::string>{Trace("CAdjustPreference::Remove Error : -5")}), traces);
    }
    traces.clear();
    EXPECT_EQ(0, body.Remove(160, 140)) << "up to the last byte";
    EXPECT_FALSE(root.Exists(kTemporary));
    EXPECT_EQ(0, body.Insert(100, 1100)) << "inside: the tail moves through a temporary";
    EXPECT_EQ(std::vector<std::string>{}, traces) << "moves that succeed trace no error";
    EXPECT_EQ(original.substr(0, 100) + std::string(1100, '\0') + original.substr(100, 60), Body());
    EXPECT_FALSE(root.Exists(kTemporary));
    SetBody(original);
    char buffer[301] = {};
    for (auto [offset, size, fits] : {std::tuple{200UL, 100UL, true}, {300UL, 0UL, true}, {200UL, 101UL, false}, {~0UL, 2UL, false}}) {
        std::memset(buffer, 0x5A, sizeof buffer);
        EXPECT_EQ(fits, body.Read(offset, buffer, size)) << offset << "+" << size;
        EXPECT_EQ(fits, body.Write(offset, buffer, size)) << offset << "+" << size;
    }
    EXPECT_TRUE(Traced("CAdjustPreference::Read Error 200, 101, 300"));
    EXPECT_EQ(original, Body()) << "a refused write lands nothing; Write never grows the area";
    SetBody("\x7E"); // the smallest areas: the last byte can go, and an empty area takes an empty removal
    EXPECT_EQ(0, body.Remove(0, 1));
    EXPECT_EQ(0, body.Remove(0, 0));
    EXPECT_EQ("", Body());

    body.Umount();
    traces.clear();
    EXPECT_FALSE(body.Read(0, buffer, 1));
    EXPECT_FALSE(body.Write(0, buffer, 1));
    EXPECT_EQ(-7, body.Insert(0, 1));
    EXPECT_EQ(-7, body.Remove(0, 1));
    EXPECT_EQ((std::vector<std::string>{Trace("CAdjustPreference::Read Error : No memory"), Trace("CAdjustPreference::Write Error : No memory"),
                                        Trace("CAdjustPreference::Insert Error : -7"), Trace("CAdjustPreference::Remove Error : -7")}),
              traces);

    // A corrupt length word: the image's end still bounds every access.
    ASSERT_TRUE(body.Mount(BODY_DATA_OFFSET, BODY_SIZE_OFFSET, 0x7FFFFFFF));
    EXPECT_FALSE(body.Read(5300000, buffer, 64)) << "inside the length, outside the image";
    EXPECT_FALSE(body.Write(5300000, buffer, 64));
    EXPECT_LT(body.Insert(0x7FFFFFFE, 16), 0);
    EXPECT_LT(body.Remove(5300000, 16), 0);
    body.Umount();
    ASSERT_TRUE(body.Mount(BODY_DATA_OFFSET, BODY_SIZE_OFFSET, 5294098 - BODY_DATA_OFFSET + 8)); // the tail ends 8 bytes past the image
    EXPECT_EQ(-1, body.Remove(0, 16)) << "refused before any byte moves";
}

TEST_F(AdjustPreferenceTest, FailingTemporaryOrSetterLeavesTheAreaAsItWasAndIsReported)
{
    const std::string original = RandomBytes(2400 * 1024 + 333, 4);
    SetBody(original);
    // A failing preference setter: -4 for the length word, -3 for the bytes.
    for (auto [op, insert, result] : {std::tuple{PREF_SIM_OP_SET_LONG, true, -4}, {PREF_SIM_OP_SET_BYTES, false, -3}}) {
        pref_sim_fail_next(op, 1);
        EXPECT_EQ(result, insert ? body.Insert(0, 140) : body.Remove(0, 140)) << insert;
        EXPECT_TRUE(Traced(std::string("CAdjustPreference::") + (insert ? "Insert" : "Remove") + " Error : " + std::to_string(result)));
        EXPECT_FALSE(root.Exists(kTemporary));
    }
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

    // No /tmp at all: a failed check; appending needs no temporary.
    std::filesystem::remove_all(root.Host("/tmp"));
    root.WriteFile("/tmp", "not a directory");
    const unsigned long before = pm::AssertionCount();
    const std::string out = Printed([&] {
        EXPECT_LT(body.Insert(10, 10), 0);
        EXPECT_LT(body.Remove(10, 10), 0);
    });
    EXPECT_EQ(before + 2, pm::AssertionCount());
    EXPECT_EQ(0u, out.find("Assertion Failed! --- File lib/production-util/src/CAdjustPreference.cpp Line "));
    EXPECT_EQ(0, body.Insert(original.size(), 40));
    EXPECT_TRUE(original + std::string(40, '\0') == Body());

}

TEST_F(AdjustPreferenceTest, SnapshotBootRunsOncePerProcessAndAFailedMountIsTriedAgain)
{
    SetBody(RandomBytes(500, 8));
    ASSERT_EQ(0, body.Insert(0, 140)); // not selected at the body's first change
    header.SelectSnapshotMaking(true);
    EXPECT_TRUE(KernelSimRecords().empty()) << "no change of the header yet";
    kernel_sim_fail_next_mount(EIO, 1);
    char bytes[8] = {};
    EXPECT_FALSE(header.Write(0, bytes, 8)) << "a refused write is still the header's first change";
    EXPECT_TRUE(Traced("fopen(/proc/mounts) failed ")) << "no /proc/mounts: not mounted";
    EXPECT_TRUE(Traced("[/mnt/ubi2] rw mount failed [Input/output error] "));
    ASSERT_EQ(0, header.Insert(0, 140));
    EXPECT_EQ(2, kernel_sim_record_count()) << "only the first change of a store runs the command";
    body.SelectSnapshotMaking(true); // a modified store: tries again
    EXPECT_EQ((std::vector<std::string>{kAttach, kMount, kAttach, kMount, kDirty}), KernelSimRecords());
    EXPECT_TRUE(Traced("[/mnt/ubi2] rw mount done! "));
    header.SelectSnapshotMaking(true);
    body.Reset();
    EXPECT_EQ(5, kernel_sim_record_count()) << "prepared once per process";
}

TEST_F(AdjustPreferenceTest, ResetRemountsAListedPartitionWhateverTheSelectionAndOnlyAWholeEntryIsListed)
{
    for (auto [content, state] : {std::pair<std::string, int>{"rootfs / rootfs rw 0 0\n/dev/ubi2_0 /mnt/ubi2 ubifs rw 0 0\n", 1},
                                  {"/dev/ubi2_0 /mnt/ubi2 vfat rw 0 0\n", 0},
                                  {"/dev/ubi2_0 /mnt/ubi2/x ubifs rw 0 0\n", 0},
                                  {"garbage\nx y z w not numbers\n/dev/ubi2_0 /mnt/ubi2 ubifs rw 0 0\n", 0},
                                  {std::string(600, 'd') + " /mnt/ubi2 ubifs rw 0 0\n", 0}}) {
        ASSERT_EQ(0, kernel_sim_set_proc_mounts(content.c_str()));
        EXPECT_EQ(state, body.checkMountState("ubifs", "/mnt/ubi2")) << content;
    }

    ASSERT_EQ(0, kernel_sim_set_proc_mounts("/dev/ubi2_0 /mnt/ubi2 ubifs ro,noatime 0 0\n"));
    ASSERT_EQ(0, kernel_system(kAttach.c_str())); // attached at boot
    kernel_sim_reset();
    pref_sim_fail_next(PREF_SIM_OP_RESET, 1);
    pref_sim_fail_next(PREF_SIM_OP_SAVE, 1);
    traces.clear();
    CAdjustPreference never; // Reset needs no mount
    never.Reset();
    EXPECT_EQ((std::vector<std::string>{"mount(/dev/ubi2_0, /mnt/ubi2, ubifs, 0xc20, bulk_read,no_chk_data_crc)", kDirty}), KernelSimRecords())
        << "no ubiattach for a mounted partition";
    EXPECT_EQ((std::vector<std::string>{Trace("[/mnt/ubi2] rw remount done! "), Trace("CAdjustPreference::Reset Error1"),
                                        Trace("CAdjustPreference::Reset Error2")}),
              traces);
}

} // namespace
