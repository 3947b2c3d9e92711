// The simulated kernel: shell commands and mounts carried out below the root
// directory, recorded, and refused when unknown.
#include "TestRoot.h"
#include "kernel.h"
#include "kernel_sim.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

class KernelSimTest : public ::testing::Test {
protected:
    void SetUp() override { kernel_sim_reset(); }
    void TearDown() override { kernel_sim_reset(); }
    TestRoot root;
};

int exitCode(int status)
{
    return (status >> 8) & 0xFF;
}

TEST_F(KernelSimTest, KnownCommandsTakeEffectBelowTheRootAndAreRecorded)
{
    EXPECT_EQ(0, kernel_sim_ubi_attached(2));
    EXPECT_EQ(0, kernel_system("ubiattach -p /dev/mtd2 -d 2"));
    EXPECT_EQ(1, kernel_sim_ubi_attached(2));
    EXPECT_TRUE(root.Exists("/dev/ubi2_0"));
    EXPECT_EQ(1, exitCode(kernel_system("ubiattach -p /dev/mtd2 -d 2"))) << "attached already";

    EXPECT_EQ(0, kernel_system("echo 1 > /pref/dirty_adj; sync; "));
    EXPECT_EQ("1\n", root.ReadFile("/pref/dirty_adj"));

    EXPECT_EQ(0, kernel_system("mkdir -p /mnt/ubi1/log/ --mode=0755"));
    struct stat info {};
    ASSERT_EQ(0, stat(root.Host("/mnt/ubi1/log").c_str(), &info));
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(0755u, info.st_mode & 07777);
    EXPECT_EQ(0, kernel_system("mkdir -p /mnt/ubi1/log/ --mode=0755")) << "an existing directory is fine";

    EXPECT_EQ((std::vector<std::string>{"ubiattach -p /dev/mtd2 -d 2", "ubiattach -p /dev/mtd2 -d 2",
                                        "echo 1 > /pref/dirty_adj; sync; ", "mkdir -p /mnt/ubi1/log/ --mode=0755",
                                        "mkdir -p /mnt/ubi1/log/ --mode=0755"}),
              KernelSimRecords());
    EXPECT_EQ(1 << 8, kernel_sim_record_result(1));
    EXPECT_EQ(-1, kernel_sim_record_result(5));
}

TEST_F(KernelSimTest, UnknownCommandsAreRefusedWholeAndDoNothing)
{
    const char* refused[] = {
        "rm -rf /",
        "echo 1 > /pref/dirty_adj; rm -rf /mnt",
        "reboot",
        "mkdir -p relative/dir --mode=0755",
        "mkdir -p /mnt/x --mode=0999",
        "ubiattach -p /dev/sda1 -d 2",
        "echo 1 > relative",
        "",
        " ; ; ",
    };
    for (const char* command : refused) {
        EXPECT_EQ(127, exitCode(kernel_system(command))) << "case \"" << command << "\"";
    }
    EXPECT_EQ(127, exitCode(kernel_system(nullptr)));
    EXPECT_FALSE(root.Exists("/pref/dirty_adj")) << "the known part of a refused command did not run";
    EXPECT_FALSE(root.Exists("/mnt/x"));
    EXPECT_EQ(static_cast<int>(sizeof refused / sizeof refused[0]) + 1, kernel_sim_record_count());
    EXPECT_EQ("rm -rf /", KernelSimRecords().front());
}

TEST_F(KernelSimTest, MountNeedsAnAttachedUbifsVolumeAndListsItInProcMounts)
{
    const char* options = "bulk_read,no_chk_data_crc";
    const unsigned long flags = MS_NOATIME | MS_NODIRATIME;
    EXPECT_EQ(-1, kernel_mount("/dev/ubi2_0", "/mnt/ubi2", "ubifs", flags, options));
    EXPECT_EQ(ENOENT, errno) << "not attached";
    ASSERT_EQ(0, kernel_system("ubiattach -p /dev/mtd2 -d 2"));
    EXPECT_EQ(-1, kernel_mount("/dev/ubi2_0", "/mnt/ubi2", "vfat", flags, options));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(-1, kernel_mount("/dev/ubi2_0", "/mnt/ubi2", "ubifs", MS_REMOUNT | flags, options));
    EXPECT_EQ(EINVAL, errno) << "remount of a target that is not mounted";

    ASSERT_EQ(0, kernel_mount("/dev/ubi2_0", "/mnt/ubi2", "ubifs", flags, options));
    const std::string line = "/dev/ubi2_0 /mnt/ubi2 ubifs rw,noatime,nodiratime,bulk_read,no_chk_data_crc 0 0\n";
    EXPECT_EQ(line, root.ReadFile("/proc/mounts"));
    EXPECT_TRUE(std::filesystem::is_directory(root.Host("/mnt/ubi2")));
    EXPECT_EQ(-1, kernel_mount("/dev/ubi2_0", "/mnt/ubi2", "ubifs", flags, options));
    EXPECT_EQ(EBUSY, errno);

    ASSERT_EQ(0, kernel_sim_set_proc_mounts("rootfs / rootfs rw 0 0\n/dev/ubi2_0 /mnt/ubi2 ubifs ro 0 0\n"));
    EXPECT_EQ(0, kernel_mount("/dev/ubi2_0", "/mnt/ubi2", "ubifs", MS_REMOUNT | flags, options));
    EXPECT_EQ("rootfs / rootfs rw 0 0\n" + line, root.ReadFile("/proc/mounts"));

    kernel_sim_fail_next_mount(EROFS, 1);
    EXPECT_EQ(-1, kernel_mount("/dev/ubi2_0", "/mnt/ubi2", "ubifs", MS_REMOUNT | flags, options));
    EXPECT_EQ(EROFS, errno);
    EXPECT_EQ("rootfs / rootfs rw 0 0\n" + line, root.ReadFile("/proc/mounts")) << "a failed mount changes nothing";

    const std::vector<std::string> records = KernelSimRecords();
    ASSERT_EQ(8u, records.size());
    EXPECT_EQ("mount(/dev/ubi2_0, /mnt/ubi2, ubifs, 0xc00, bulk_read,no_chk_data_crc)", records[0]);
    EXPECT_EQ("mount(/dev/ubi2_0, /mnt/ubi2, ubifs, 0xc20, bulk_read,no_chk_data_crc)", records[6]);
    EXPECT_EQ(ENOENT, kernel_sim_record_result(0));
    EXPECT_EQ(0, kernel_sim_record_result(6));
    EXPECT_EQ(EROFS, kernel_sim_record_result(7));

    ASSERT_EQ(0, kernel_sim_set_proc_mounts(nullptr));
    EXPECT_FALSE(root.Exists("/proc/mounts"));
}

TEST(KernelSimNoRootTest, WithoutARootNothingTouchesTheHost)
{
    unsetenv("PMODE_ROOT");
    kernel_sim_reset();
    EXPECT_EQ(127, exitCode(kernel_system("mkdir -p /pmode-sim-must-not-exist --mode=0755")));
    EXPECT_FALSE(std::filesystem::exists("/pmode-sim-must-not-exist"));
    EXPECT_EQ(-1, kernel_mount("/dev/ubi2_0", "/mnt/ubi2", "ubifs", 0, ""));
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(2, kernel_sim_record_count());
}

TEST(KernelRootTest, EveryRootHasATmpDirectory)
{
    TestRoot root;
    EXPECT_EQ(root.Dir() + "/tmp/adj_back.dat", KernelPath("/tmp/adj_back.dat"));
    EXPECT_TRUE(std::filesystem::is_directory(root.Host("/tmp")));
}

} // namespace
