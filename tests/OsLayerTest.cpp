#include "CEventFlag.h"
#include "FThread.h"
#include "TestRoot.h"
#include "dlog.h"
#include "fx_os.h"
#include "kernel.h"
#include "kernel_sim.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>

namespace {

struct CountingThread : FThread {
    ~CountingThread() override { Destroy(); }
    void t_Main() override { ++runs; }
    std::atomic<int> runs{0};
};

TEST(OsLayerTest, FlagsThreadsAndMutexesWorkAndPathsLogsCommandsAndMountsLandBelowTheRootAndNothingElseRuns)
{
    CEventFlag flag;
    EXPECT_EQ(-1, flag.Set(1)) << "not created yet";
    ASSERT_EQ(0, flag.Create(0x80000002UL));
    unsigned long pattern = 0;
    EXPECT_EQ(0, flag.WaitOr(0x1 | 0x80000000UL, &pattern, -1));
    EXPECT_EQ(0x80000002UL, pattern) << "the flag's bits are handed back whole";
    flag.Clear(0x80000000UL);
    EXPECT_EQ(-1, flag.WaitOr(0x1 | 0x80000000UL, &pattern, 10)) << "no bit of the mask: time-out";
    EXPECT_EQ(0, flag.Delete());
    EXPECT_EQ(-2, flag.WaitOr(0x1, &pattern, -1)) << "a deleted flag releases its waiters";
    EXPECT_EQ(-1, flag.Delete());
    EXPECT_EQ(-1, flag.Clear(1)) << "nor cleared once deleted";

    CountingThread thread;
    ASSERT_TRUE(thread.Start());
    EXPECT_FALSE(thread.Start()) << "a created thread cannot start twice";
    thread.Destroy();
    EXPECT_FALSE(thread.IsCreated());
    EXPECT_EQ(1, thread.runs.load()) << "Destroy waits for the body";
    fx_mutex_t mutex = _fx_mutex_create(__FILE__, __func__, __LINE__);
    EXPECT_EQ(0, _fx_mutex_delete(mutex, __FILE__, __func__, __LINE__));
    EXPECT_EQ(-1, _fx_mutex_lock(nullptr, __FILE__, __func__, __LINE__));

    TestRoot root;
    char out[512];
    EXPECT_EQ(static_cast<int>(root.Dir().size() + 9), kernel_map_path("/mnt/mmc/", out, sizeof out));
    EXPECT_EQ("relative.txt", KernelPath("relative.txt"));
    EXPECT_EQ(-1, kernel_map_path("/mnt/mmc/", out, 4)) << "too small";
    EXPECT_STREQ("", out);
    ASSERT_GT(__dlog_print(3, DLOG_DEBUG, "PMODE", "%s(%d) > %s", "f", 7, "first\n"), 0);
    const std::string log = root.ReadFile("/var/log/dlog.log");
    EXPECT_NE(std::string::npos, log.find(" D/PMODE(3): f(7) > first\n"));
    EXPECT_EQ(1, std::count(log.begin(), log.end(), '\n')) << "one line per call";
    std::filesystem::remove(root.Host("/var/log/dlog.log"));
    std::filesystem::create_directory(root.Host("/var/log/dlog.log"));
    testing::internal::CaptureStderr();
    __dlog_print(3, DLOG_ERROR, "PMODE", "kept\n");
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find(" E/PMODE(3): kept\n")) << "no log file to open";
    std::filesystem::remove(root.Host("/var/log/dlog.log"));

    kernel_sim_reset();
    const std::pair<const char*, int> commands[] = {
        {"ubiattach -p /dev/mtd2 -d 2", 0}, {"ubiattach -p /dev/mtd2 -d 2", 1}, // attached already
        {"mkdir -p --mode=0750 /mnt/ubi1/log/", 0}, {"mkdir -p /mnt/ubi1/log/ --mode=0750;mkdir -p /mnt/ubi1/b --mode=0750", 0},
        {"rm -rf /", 127}, {"echo 1 > /pref/dirty_adj2; rm -rf /mnt", 127}, {"reboot", 127},
        {"mkdir -p relative/dir --mode=0755", 127}, {"mkdir -p /mnt/x --mode=0999", 127},
        {"ubiattach -p /dev/sda1 -d 2", 127}, {"echo 1 > relative", 127}, {"", 127}, {" ; ; ", 127},
        {"echo 1 > /pref/dirty_adj", 0}};
    for (const auto& [command, status] : commands) EXPECT_EQ(status << 8, kernel_system(command)) << command;
    EXPECT_EQ(127 << 8, kernel_system(nullptr));
    EXPECT_EQ("rm -rf /", KernelSimRecords()[4]) << "refused commands are recorded too";
    EXPECT_EQ(1 << 8, kernel_sim_record_result(1));
    EXPECT_FALSE(root.Exists("/pref/dirty_adj2")) << "the known part of a refused command did not run";
    EXPECT_EQ("1\n", root.ReadFile("/pref/dirty_adj"));
    EXPECT_EQ(std::make_pair(1, 0), std::make_pair(kernel_sim_ubi_attached(2), kernel_sim_ubi_attached(5)));
    EXPECT_FALSE(root.Exists("/mnt/x"));
    struct stat info {};
    ASSERT_EQ(0, stat(root.Host("/mnt/ubi1/log").c_str(), &info));
    EXPECT_EQ(S_IFDIR | 0750u, info.st_mode & (S_IFMT | 07777));

    auto mount = [](const char* source, const char* fstype, unsigned long flags) {
        const int result = kernel_mount(source, "/mnt/ubi2", fstype, flags | MS_NOATIME | MS_NODIRATIME, "bulk_read");
        return result == 0 ? 0 : errno;
    };
    EXPECT_EQ(ENOENT, mount("/dev/ubi3_0", "ubifs", 0)) << "not attached";
    EXPECT_EQ(ENODEV, mount("/dev/ubi2_0", "vfat", 0));
    EXPECT_EQ(EINVAL, mount("/dev/ubi2_0", "ubifs", MS_REMOUNT)) << "remount of a target that is not mounted";
    ASSERT_EQ(0, kernel_sim_set_proc_mounts("rootfs / rootfs rw 0 0\n"));
    EXPECT_EQ(0, mount("/dev/ubi2_0", "ubifs", 0));
    EXPECT_TRUE(std::filesystem::is_directory(root.Host("/mnt/ubi2")));
    EXPECT_EQ(EBUSY, mount("/dev/ubi2_0", "ubifs", 0));
    EXPECT_EQ(0, mount("/dev/ubi2_0", "ubifs", MS_REMOUNT | MS_RDONLY));
    EXPECT_EQ("rootfs / rootfs rw 0 0\n/dev/ubi2_0 /mnt/ubi2 ubifs ro,noatime,nodiratime,bulk_read 0 0\n",
              root.ReadFile("/proc/mounts"));

    unsetenv("PMODE_ROOT"); // without a root nothing may touch the host
    kernel_sim_reset();
    EXPECT_EQ("/mnt/mmc/a", KernelPath("/mnt/mmc/a"));
    EXPECT_EQ(127 << 8, kernel_system("mkdir -p /pmode-sim-must-not-exist --mode=0755"));
    EXPECT_FALSE(std::filesystem::exists("/pmode-sim-must-not-exist"));
    EXPECT_EQ(EPERM, mount("/dev/ubi2_0", "ubifs", 0));
    EXPECT_EQ(2, kernel_sim_record_count());
}

} // namespace
