// The adjust change log: indexes across restarts, the 256-line window, the item form, unusable files.
#include "AdjustDataList.h"
#include "CAdjustData.h"
#include "CAdjustLogMachine.h"
#include "FileSizeLimit.h"
#include "PMReport.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

std::atomic<int> g_syncCalls{0};
std::atomic<bool> g_failSync{false};

// Stands in for the C library's fdatasync, to count the flushes and to make one fail.
extern "C" int fdatasync(int fd)
{
    ++g_syncCalls;
    if (!g_failSync) return reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fdatasync"))(fd);
    errno = EIO;
    return -1;
}

namespace {

const char* kLog = "/adj/AdjLog.txt";

class AdjustLogMachineTest : public testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directories(root.Host("/adj")); }
    void TearDown() override { log->TurnOff(); }

    /// The lines of the log, each without its line feed.
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

    static std::string numberedLines(int count)
    {
        std::string text;
        for (int i = 1; i <= count; ++i) text += std::to_string(i) + "#line " + std::to_string(i) + "\n";
        return text;
    }

    /// What the log printed on standard output while recording text.
    std::string outputOf(const char* text)
    {
        testing::internal::CaptureStdout();
        EXPECT_FALSE(log->Log("%s", text));
        return testing::internal::GetCapturedStdout();
    }

    TestRoot root;
    CAdjustLogMachine* log = CAdjustLogMachine::GetInstance();
};

TEST_F(AdjustLogMachineTest, FirstRecordCreatesTheFileAndEveryLineIsFlushed)
{
    const unsigned long checks = pm::AssertionCount();
    log->TurnOn();
    log->TurnOff();
    EXPECT_EQ(checks, pm::AssertionCount()) << "no log file yet is no failure";
    EXPECT_TRUE(log->Log("x"));
    EXPECT_EQ(1, g_syncCalls.load());
    EXPECT_TRUE(log->Log("Header Write Fail %d, %d\n", 280, 140)) << "one trailing line feed is dropped";
    EXPECT_EQ(2, g_syncCalls.load());
    EXPECT_TRUE(log->Log("%s", std::string(600, 'y').c_str()));
    EXPECT_EQ("1#x\n2#Header Write Fail 280, 140\n3#" + std::string(511, 'y') + "\n", root.ReadFile(kLog))
        << "the text is cut at 511 characters";
    EXPECT_EQ(std::filesystem::perms::owner_read | std::filesystem::perms::owner_write,
              std::filesystem::status(root.Host(kLog)).permissions());
}

TEST_F(AdjustLogMachineTest, IndexContinuesFromTheLastLineTurnedOnOrOff)
{
    const struct { std::string content; const char* next; } cases[] = {
        {"3#a\n41#something\n", "42"},    {"12#ok\nno index here\n", "13"}, {"000000000000000000000000000041#thirty digits\n", "42"},
        {"0000000000000000000000000000041#31 digits\n", "1"}, {"-5#negative\n", "1"}, {"99999999999#too large for an index\n", "1"},
        {"no hash at all\n\n\n", "1"}, {std::string("5#a\n\0\0\x01\xff binary\n", 16), "6"},
    };
    for (bool turnedOn : {false, true}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(turnedOn ? "on, " : "off, ") + "case \"" + c.content + "\"");
            root.WriteFile(kLog, c.content);
            if (turnedOn) log->TurnOn();
            EXPECT_TRUE(log->Log("next"));
            EXPECT_EQ(std::string(c.next) + "#next", lines().back());
            std::filesystem::remove(root.Host(kLog));
            EXPECT_TRUE(log->Log("again"));
            EXPECT_EQ(turnedOn ? std::to_string(std::stoi(c.next) + 1) + "#again\n" : "1#again\n", root.ReadFile(kLog))
                << "turned on the index lives in memory, turned off every record reads the file afresh";
            log->TurnOff();
        }
    }
}

TEST_F(AdjustLogMachineTest, FileStaysAt256Lines)
{
    const struct { bool turnedOn; int lines, records; const char* first; } cases[] = { // turned on, the lines written count too
        {false, 256, 3, "4#line 4"}, {false, 255, 1, "1#line 1"}, {true, 250, 10, "5#line 5"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.lines) + " lines" + (c.turnedOn ? ", turned on" : ""));
        root.WriteFile(kLog, numberedLines(c.lines));
        if (c.turnedOn) log->TurnOn();
        for (int record = 0; record < c.records; ++record) EXPECT_TRUE(log->Log("new %d", record));
        const std::vector<std::string> written = lines();
        ASSERT_EQ(256u, written.size());
        EXPECT_EQ(c.first, written.front());
        EXPECT_EQ(std::to_string(c.lines + c.records) + "#new " + std::to_string(c.records - 1), written.back());
        EXPECT_EQ(std::to_string(c.lines + 1) + "#new 0", written[256 - c.records]);
        log->TurnOff();
    }
}

TEST_F(AdjustLogMachineTest, ItemFormWritesBaseRecordsBeforeTheMainOneUnderOneIndex)
{
    auto makeItem = [](int id, uint32_t offset, uint32_t size, int position, uint32_t newOffset) {
        auto item = std::make_unique<CAdjustData>(nullptr, nullptr);
        CAdjustData::_tAdjDataExtHeader header;
        header.offset = offset;
        header.size = size;
        header.position = position;
        *item = header;
        item->Setup(id, ADJUST_DATA_LIST[id]);
        *item = _TArrangeInfo{newOffset};
        return item;
    };
    const auto main = makeItem(ADJUST_GYRO_DSP_THERM, 3606097, 4, 132 * 140, 3606093);
    const auto base = makeItem(ADJUST_CIS_SN, 100, 2, 27 * 140, 100);
    root.WriteFile(kLog, "9#before Arrange\n");
    EXPECT_TRUE(log->Log(main.get(), base.get(), nullptr, nullptr));
    EXPECT_EQ("9#before Arrange\n"
              "10#[BASE1] Name: ADJUST_CIS_SN, O_OFF: 100, O_SIZE: 2, N_OFF: 100, N_SIZE: 4, INDEX: 3780\n"
              "10#[MAIN] Name: ADJUST_GYRO_DSP_THERM, O_OFF: 3606097, O_SIZE: 4, N_OFF: 3606093, N_SIZE: 4, INDEX: 18480\n",
              root.ReadFile(kLog));

    // Past 255 lines: one line removed per base item given and one for the main record.
    root.WriteFile(kLog, numberedLines(256));
    EXPECT_TRUE(log->Log(main.get(), base.get(), nullptr, nullptr));
    const std::vector<std::string> written = lines();
    ASSERT_EQ(256u, written.size());
    EXPECT_EQ("3#line 3", written.front());
    EXPECT_EQ(0u, written[254].find("257#[BASE1]"));
    EXPECT_EQ(0u, written[255].find("257#[MAIN]"));
}

TEST_F(AdjustLogMachineTest, UnusableLogFileIsReportedNotFatal)
{
    g_failSync = true; // the line may be in the file, but the record is reported as lost
    EXPECT_EQ(std::string("write1line[S]: ") + std::to_string(EIO) + ", " + std::strerror(EIO), outputOf("unsynced"));
    g_failSync = false;
    root.WriteFile(kLog, numberedLines(20));
    {
        FileSizeLimit full(100); // the log already holds more: nothing can be added
        EXPECT_EQ(std::string("write1line[W]: ") + std::to_string(EFBIG) + ", " + std::strerror(EFBIG), outputOf("full"));
    }

    std::filesystem::remove(root.Host(kLog));
    std::filesystem::create_directories(root.Host(kLog)); // it can be neither read nor written
    EXPECT_EQ(std::string("AdjLog Create Error: ") + std::to_string(EISDIR) + ", " + std::strerror(EISDIR) +
                  "\nwrite1line[O]: " + std::to_string(EISDIR) + ", " + std::strerror(EISDIR),
              outputOf("nowhere"));
    std::filesystem::remove(root.Host(kLog));
    EXPECT_TRUE(log->Log("back"));
    EXPECT_EQ("1#back\n", root.ReadFile(kLog));
}

} // namespace
