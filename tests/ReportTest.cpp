// The error log, the traces and the failed-check report.
#include "PMReport.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> g_traces;
void recordTrace(const char* text)
{
    g_traces.emplace_back(text);
}

TEST(ReportTest, ErrorLogIsRedOnStdoutAndAnErrorLineInTheSystemLog)
{
    TestRoot root;
    testing::internal::CaptureStdout();
    PM_ERROR_LOG("Wrong Line ID %d\n", 144);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ("\x1b[31mWrong Line ID 144\x1b[m\n\n", out) << "puts adds its own newline";
    const std::string log = root.ReadFile("/var/log/dlog.log");
    EXPECT_NE(std::string::npos, log.find(" E/PMODE(3): ReportTest.cpp: TestBody("));
    EXPECT_NE(std::string::npos, log.find(") > \x1b[31mWrong Line ID 144\x1b[m\n"));
}

TEST(ReportTest, LongTextsAreCutToTheBufferKeepingTheEnd)
{
    TestRoot root;
    testing::internal::CaptureStdout();
    PM_ERROR_LOG("%s", std::string(400, 'x').c_str());
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_FALSE(out.empty());
    out.pop_back(); // the newline of puts
    EXPECT_EQ(255u, out.size());
    EXPECT_EQ("\x1b[m\n", out.substr(out.size() - 4));
}

TEST(ReportTest, TracesAreSilentUnlessASinkListens)
{
    g_traces.clear();
    PM_TRACE("not seen");
    pm::SetTraceSink(&recordTrace);
    PM_TRACE("Finalize-Done");
    PM_TRACE_RED("line %d\n", 3);
    pm::SetTraceSink(nullptr);
    PM_TRACE("not seen either");
    EXPECT_EQ((std::vector<std::string>{"\x1b[mFinalize-Done\x1b[m\n", "\x1b[31mline 3\x1b[m\n"}), g_traces);
}

int checkedHalf(int value)
{
    PM_CHECK(value % 2 == 0, -1);
    return value / 2;
}

TEST(ReportTest, FailedCheckIsReportedWithTheRepositoryPathAndTheOperationStops)
{
    const unsigned long before = pm::AssertionCount();
    testing::internal::CaptureStdout();
    EXPECT_EQ(2, checkedHalf(4));
    EXPECT_EQ(-1, checkedHalf(3));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(before + 1, pm::AssertionCount());
    EXPECT_EQ(0u, out.find("Assertion Failed! --- File tests/ReportTest.cpp Line "));
}

} // namespace
