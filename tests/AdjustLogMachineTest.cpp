// The adjust change log "/adj/AdjLog.txt": record indexes across restarts, the 256-line
// window, the item form, and damaged or unusable log files.
#include "AdjustDataList.h"
#include "CAdjustData.h"
#include "CAdjustLogMachine.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace {

std::atomic<int> g_syncCalls{0};
std::atomic<bool> g_failSync{false};

} // namespace

// Stands in for the C library's fdatasync, to count the flushes and to make one fail.
extern "C" int fdatasync(int fd)
{
    ++g_syncCalls;
    if (g_failSync) {
        errno = EIO;
        return -1;
    }
    using Real = int (*)(int);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "fdatasync"));
    return real != nullptr ? real(fd) : 0;
}

namespace {

const char* kLog = "/adj/AdjLog.txt";

class AdjustLogMachineTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(root.Host("/adj"));
        log->TurnOff();
        g_syncCalls = 0;
        g_failSync = false;
    }
    void TearDown() override { log->TurnOff(); }

    std::vector<std::string> lines() const
    {
        std::vector<std::string> result;
        const std::string content = root.ReadFile(kLog);
        size_t start = 0;
        for (size_t end; (end = content.find('\n', start)) != std::string::npos; start = end + 1)
            result.push_back(content.substr(start, end - start));
        EXPECT_EQ(content.size(), start) << "the file ends with a line feed";
        return result;
    }

    static std::string numberedLines(int from, int count)
    {
        std::string text;
        for (int i = from; i < from + count; ++i) text += std::to_string(i) + "#line " + std::to_string(i) + "\n";
        return text;
    }

    TestRoot root;
    CAdjustLogMachine* log = CAdjustLogMachine::GetInstance();
};

TEST_F(AdjustLogMachineTest, FirstRecordCreatesTheFileAndEveryLineIsFlushed)
{
    ASSERT_FALSE(root.Exists(kLog));
    EXPECT_TRUE(log->Log("x"));
    EXPECT_EQ("1#x\n", root.ReadFile(kLog));
    EXPECT_EQ(1, g_syncCalls.load());

    EXPECT_TRUE(log->Log("Header Write Fail %d, %d\n", 280, 140)) << "one trailing line feed is dropped";
    EXPECT_EQ("1#x\n2#Header Write Fail 280, 140\n", root.ReadFile(kLog));
    EXPECT_EQ(2, g_syncCalls.load());

    const std::string longText(600, 'y');
    EXPECT_TRUE(log->Log("%s", longText.c_str()));
    const std::vector<std::string> written = lines();
    ASSERT_EQ(3u, written.size());
    EXPECT_EQ("3#" + std::string(511, 'y'), written[2]) << "the text is cut at 511 characters";

    const auto mode = std::filesystem::status(root.Host(kLog)).permissions();
    EXPECT_EQ(std::filesystem::perms::owner_read | std::filesystem::perms::owner_write, mode);
}

TEST_F(AdjustLogMachineTest, IndexContinuesFromTheLastLineTurnedOnOrOff)
{
    const struct {
        std::string content;
        const char* next;
    } cases[] = {
        {"41#something\n", "42"},
        {"3#a\n41#something\n", "42"},
        {"7#a#b\n", "8"},
        {"000000000000000000000000000041#thirty digits\n", "42"},
        {"0000000000000000000000000000041#thirty-one digits\n", "1"},
        {"12#ok\nno index here\n", "13"},
        {"-5#negative\n", "1"},
        {"99999999999#too large for an index\n", "1"},
        {"abc#not a number\n", "1"},
        {"no hash at all\n\n\n", "1"},
        {"", "1"},
        {std::string("5#a\n\0\0\x01\xff binary\n", 16), "6"},
    };
    for (bool turnedOn : {false, true}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(turnedOn ? "on, " : "off, ") + "case \"" + c.content + "\"");
            root.WriteFile(kLog, c.content);
            if (turnedOn) log->TurnOn();
            EXPECT_TRUE(log->Log("next"));
            const std::vector<std::string> written = lines();
            ASSERT_FALSE(written.empty());
            EXPECT_EQ(std::string(c.next) + "#next", written.back());
            log->TurnOff();
        }
    }
}

TEST_F(AdjustLogMachineTest, TurnedOnKeepsTheCountersTurnedOffRereadsTheFile)
{
    root.WriteFile(kLog, "41#something\n");
    log->TurnOn();
    std::filesystem::remove(root.Host(kLog));
    EXPECT_TRUE(log->Log("kept"));
    EXPECT_EQ("42#kept\n", root.ReadFile(kLog)) << "the index lives in memory while turned on";

    log->TurnOff();
    std::filesystem::remove(root.Host(kLog));
    EXPECT_TRUE(log->Log("fresh"));
    EXPECT_EQ("1#fresh\n", root.ReadFile(kLog)) << "turned off, every record reads the file afresh";
}

TEST_F(AdjustLogMachineTest, FileStaysAt256Lines)
{
    for (bool turnedOn : {false, true}) {
        SCOPED_TRACE(turnedOn ? "turned on" : "turned off");
        root.WriteFile(kLog, numberedLines(1, 256));
        if (turnedOn) log->TurnOn();
        for (int record = 0; record < 3; ++record) EXPECT_TRUE(log->Log("new %d", record));
        const std::vector<std::string> written = lines();
        ASSERT_EQ(256u, written.size());
        EXPECT_EQ("4#line 4", written.front()) << "the three oldest lines are gone";
        EXPECT_EQ("257#new 0", written[253]);
        EXPECT_EQ("259#new 2", written.back());
        log->TurnOff();
    }

    // 255 lines are not yet too many: the record is appended.
    root.WriteFile(kLog, numberedLines(1, 255));
    EXPECT_TRUE(log->Log("appended"));
    EXPECT_EQ(256u, lines().size());

    // Turned on, the lines written count towards the window as well.
    root.WriteFile(kLog, numberedLines(1, 250));
    log->TurnOn();
    for (int record = 0; record < 10; ++record) EXPECT_TRUE(log->Log("more %d", record));
    const std::vector<std::string> written = lines();
    ASSERT_EQ(256u, written.size());
    EXPECT_EQ("5#line 5", written.front());
    EXPECT_EQ("260#more 9", written.back());
}

TEST_F(AdjustLogMachineTest, RemoveOneLineNeedsACountedLine)
{
    root.WriteFile(kLog, numberedLines(1, 3));
    EXPECT_FALSE(log->remove1line()) << "counter 0";
    EXPECT_EQ(numberedLines(1, 3), root.ReadFile(kLog));

    ASSERT_TRUE(log->create());
    EXPECT_TRUE(log->remove1line());
    EXPECT_EQ(numberedLines(2, 2), root.ReadFile(kLog));

    root.WriteFile(kLog, std::string("1#a\n2#b\0c\n", 10));
    ASSERT_TRUE(log->create());
    EXPECT_TRUE(log->remove1line());
    EXPECT_EQ(std::string("2#b\0c\n", 6), root.ReadFile(kLog)) << "the rest is kept byte for byte";
    log->destroy();
}

TEST_F(AdjustLogMachineTest, ItemFormWritesBaseRecordsBeforeTheMainOneUnderOneIndex)
{
    auto makeItem = [](int id, uint32_t offset, uint32_t size, int position, uint32_t newOffset) {
        auto* item = new CAdjustData(nullptr, nullptr);
        CAdjustData::_tAdjDataExtHeader header;
        header.offset = offset;
        header.size = size;
        header.position = position;
        *item = header;
        item->Setup(id, ADJUST_DATA_LIST[id]);
        _TArrangeInfo arrange{newOffset};
        *item = arrange;
        return item;
    };
    CAdjustData* main = makeItem(ADJUST_GYRO_DSP_THERM, 3606097, 4, 132 * 140, 3606093);
    CAdjustData* base1 = makeItem(ADJUST_CIS_SN, 100, 2, 27 * 140, 100);

    root.WriteFile(kLog, "9#before Arrange\n");
    EXPECT_TRUE(log->Log(main, base1, nullptr, nullptr));
    std::vector<std::string> written = lines();
    ASSERT_EQ(3u, written.size());
    EXPECT_EQ("10#[BASE1] Name: ADJUST_CIS_SN, O_OFF: 100, O_SIZE: 2, N_OFF: 100, N_SIZE: 4, INDEX: 3780", written[1]);
    EXPECT_EQ("10#[MAIN] Name: ADJUST_GYRO_DSP_THERM, O_OFF: 3606097, O_SIZE: 4, N_OFF: 3606093, N_SIZE: 4, INDEX: 18480",
              written[2]);

    // Past 255 lines: one line removed per base item given and one for the main record.
    root.WriteFile(kLog, numberedLines(1, 256));
    EXPECT_TRUE(log->Log(main, base1, nullptr, nullptr));
    written = lines();
    ASSERT_EQ(256u, written.size());
    EXPECT_EQ("3#line 3", written.front());
    EXPECT_EQ(0u, written[254].find("257#[BASE1]"));
    EXPECT_EQ(0u, written[255].find("257#[MAIN]"));

    root.WriteFile(kLog, numberedLines(1, 256));
    EXPECT_TRUE(log->Log(nullptr, nullptr, base1, nullptr));
    written = lines();
    EXPECT_EQ(255u, written.size()) << "the absent main record still removes a line";
    EXPECT_EQ(0u, written.back().find("257#[BASE2] Name: ADJUST_CIS_SN"));

    delete main;
    delete base1;
}

TEST_F(AdjustLogMachineTest, UnusableLogFileIsReportedNotFatal)
{
    // A failing flush: the line may be in the file, but the record is reported as lost.
    g_failSync = true;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(log->Log("unsynced"));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::string("write1line[S]: ") + std::to_string(EIO) + ", " + std::strerror(EIO), out);
    g_failSync = false;

    // The log path is a directory: it can be neither read nor written.
    std::filesystem::remove(root.Host(kLog));
    std::filesystem::create_directories(root.Host(kLog));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(log->Log("nowhere"));
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find(std::string("AdjLog Create Error: ") + std::to_string(EISDIR) + ", " +
                                          std::strerror(EISDIR) + "\n"))
        << out;
    EXPECT_NE(std::string::npos, out.find(std::string("write1line[O]: ") + std::to_string(EISDIR))) << out;

    // The directory "/adj" is not created by the log.
    std::filesystem::remove_all(root.Host("/adj"));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(log->Log("no directory"));
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::string("write1line[O]: ") + std::to_string(ENOENT) + ", " + std::strerror(ENOENT), out);
    EXPECT_FALSE(root.Exists("/adj"));

    // Once the file can be written again, the log goes on.
    std::filesystem::create_directories(root.Host("/adj"));
    EXPECT_TRUE(log->Log("back"));
    EXPECT_EQ("1#back\n", root.ReadFile(kLog));
}

} // namespace
