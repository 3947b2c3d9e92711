// The adjust write log: time stamp, cut text, directory creation, enable switch, unopenable file.
#include "AdjWriteLog.h"
#include "TestRoot.h"
#include "kernel_sim.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <ctime>
#include <filesystem>

namespace {

const std::string kLog = "/mnt/ubi1/log/adj_log.inf";

time_t g_now = 1767582245; // 2026-01-05 03:04:05 UTC, the test's local time

TEST(AdjWriteLogTest, EntriesAreStampedCutAndAppendedOnlyWhenEnabledAndTheFlashIsThere)
{
    TestRoot root;
    setenv("TZ", "UTC0", 1);
    tzset();
    adj_write_log_set_clock([](time_t*) { return g_now; });
    kernel_sim_reset();
    std::filesystem::create_directories(root.Host("/mnt/ubi1"));
    adj_disable_write_log();
    adj_write_log("dropped \n");
    EXPECT_FALSE(root.Exists("/mnt/ubi1/log"));
    adj_enable_write_log();
    adj_write_log("SetData(): %s, %d %s \n", "ADJUST_CIS_SN", 16, "[sync]");
    EXPECT_EQ((std::vector<std::string>{"mkdir -p /mnt/ubi1/log/ --mode=0755"}), KernelSimRecords());
    struct stat info {};
    ASSERT_EQ(0, stat(root.Host(kLog).c_str(), &info));
    EXPECT_EQ(0755u & ~0022u, info.st_mode & 0777 & ~0022u) << "created with 0755 (less the umask)";
    g_now = 1798761598; // 2026-12-31 23:59:58
    adj_write_log("%s", std::string(3000, 'x').c_str());
    EXPECT_EQ("Jan 05 03:04:05 : SetData(): ADJUST_CIS_SN, 16 [sync] \nDec 31 23:59:58 : " + std::string(2047, 'x'),
              root.ReadFile(kLog));
    EXPECT_EQ(1, kernel_sim_record_count()) << "the directory is there now";

    std::filesystem::remove_all(root.Host("/mnt/ubi1"));
    adj_write_log("lost \n");
    EXPECT_FALSE(root.Exists("/mnt/ubi1"));
    EXPECT_EQ(1, kernel_sim_record_count()) << "no directory is made without the flash partition";
    std::filesystem::create_directories(root.Host(kLog)); // a directory where the file should be
    testing::internal::CaptureStderr();
    adj_write_log("not written \n");
    EXPECT_EQ("write_log: : Is a directory\n", testing::internal::GetCapturedStderr());
}

} // namespace
