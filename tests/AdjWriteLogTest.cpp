// The adjust write log: time stamp, cut text, directory creation, the enable
// switch and a file that cannot be opened.
#include "AdjWriteLog.h"
#include "AdjWriteLogClock.h"
#include "TestRoot.h"
#include "kernel_sim.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>

namespace {

const std::string kLog = "/mnt/ubi1/log/adj_log.inf";

time_t g_now = 0;
time_t fixedClock(time_t* out)
{
    if (out != nullptr) *out = g_now;
    return g_now;
}

/// 2026-month-day hh:mm:ss in UTC, which the tests make the local time.
time_t utc(int month, int day, int hour, int minute, int second)
{
    tm at{};
    at.tm_year = 2026 - 1900;
    at.tm_mon = month;
    at.tm_mday = day;
    at.tm_hour = hour;
    at.tm_min = minute;
    at.tm_sec = second;
    return timegm(&at);
}

class AdjWriteLogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC0", 1);
        tzset();
        adj_write_log_set_clock(&fixedClock);
        adj_enable_write_log();
        kernel_sim_reset();
        std::filesystem::create_directories(root.Host("/mnt/ubi1"));
    }
    void TearDown() override { adj_write_log_set_clock(nullptr); }
    TestRoot root;
};

TEST_F(AdjWriteLogTest, FirstEntryCreatesTheDirectoryAndTheFileWithItsTimeStamp)
{
    g_now = utc(0, 5, 3, 4, 5);
    adj_write_log("SetData(): %s, %d %s \n", "ADJUST_CIS_SN", 16, "[sync]");
    EXPECT_EQ("Jan 05 03:04:05 : SetData(): ADJUST_CIS_SN, 16 [sync] \n", root.ReadFile(kLog));
    EXPECT_EQ((std::vector<std::string>{"mkdir -p /mnt/ubi1/log/ --mode=0755"}), KernelSimRecords());
    struct stat info {};
    ASSERT_EQ(0, stat(root.Host(kLog).c_str(), &info));
    EXPECT_EQ(0755u & ~0022u, info.st_mode & 0777 & ~0022u) << "created with 0755 (less the umask)";

    g_now = utc(11, 31, 23, 59, 58);
    adj_write_log("arrangeData(): start \n");
    EXPECT_EQ("Jan 05 03:04:05 : SetData(): ADJUST_CIS_SN, 16 [sync] \n"
              "Dec 31 23:59:58 : arrangeData(): start \n",
              root.ReadFile(kLog));
    EXPECT_EQ(1, kernel_sim_record_count()) << "the directory is there now";
}

TEST_F(AdjWriteLogTest, EveryMonthHasItsAbbreviation)
{
    const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::string expected;
    for (int month = 0; month < 12; ++month) {
        g_now = utc(month, 7, 9, 5, 31);
        adj_write_log("%d \n", month);
        expected += std::string(months[month]) + " 07 09:05:31 : " + std::to_string(month) + " \n";
    }
    EXPECT_EQ(expected, root.ReadFile(kLog));
}

TEST_F(AdjWriteLogTest, LongTextsAreCutTo2047Characters)
{
    g_now = utc(2, 7, 9, 5, 31);
    const std::string text(3000, 'x');
    adj_write_log("%s", text.c_str());
    adj_write_log("%s", std::string(2047, 'y').c_str());
    EXPECT_EQ("Mar 07 09:05:31 : " + std::string(2047, 'x') + "Mar 07 09:05:31 : " + std::string(2047, 'y'),
              root.ReadFile(kLog));
}

TEST_F(AdjWriteLogTest, DisabledLogTouchesNothingAndEnablingResumesIt)
{
    adj_disable_write_log();
    adj_write_log("makeAdjustHeaderInfo(): start %s \n", "");
    EXPECT_FALSE(root.Exists("/mnt/ubi1/log"));
    EXPECT_EQ(0, kernel_sim_record_count());

    adj_enable_write_log();
    g_now = utc(5, 1, 0, 0, 0);
    adj_write_log("arrangeData(): sync done \n");
    adj_disable_write_log();
    adj_write_log("dropped \n");
    EXPECT_EQ("Jun 01 00:00:00 : arrangeData(): sync done \n", root.ReadFile(kLog));
}

TEST_F(AdjWriteLogTest, MissingFlashDropsTheEntryAndAnUnopenableFileIsReported)
{
    std::filesystem::remove_all(root.Host("/mnt/ubi1"));
    adj_write_log("lost \n");
    EXPECT_FALSE(root.Exists("/mnt/ubi1"));
    EXPECT_EQ(0, kernel_sim_record_count()) << "no directory is made without the flash partition";

    std::filesystem::create_directories(root.Host(kLog)); // a directory where the file should be
    testing::internal::CaptureStderr();
    adj_write_log("not written \n");
    EXPECT_EQ("write_log: : Is a directory\n", testing::internal::GetCapturedStderr());
}

} // namespace
