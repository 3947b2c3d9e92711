// The error log, the traces and the failed-check report; the operator display,
// which is inert: nothing reaches standard output, standard error or the system log.
#include "CProductionOSD.h"
#include "TestRoot.h"
#include "TraceCapture.h"

#include <gtest/gtest.h>

namespace {

int checkedHalf(int value)
{
    PM_CHECK(value % 2 == 0, -1);
    return value / 2;
}

TEST(ReportTest, ErrorLogIsRedOnStdoutCutToTheBufferAndAnErrorLineInTheSystemLog)
{
    TestRoot root;
    testing::internal::CaptureStdout();
    PM_ERROR_LOG("Wrong Line ID %d\n", 144);
    PM_ERROR_LOG("%s", std::string(400, 'x').c_str());
    EXPECT_EQ("\x1b[31mWrong Line ID 144\x1b[m\n\n\x1b[31m" + std::string(255 - 9, 'x') + "\x1b[m\n\n",
              testing::internal::GetCapturedStdout())
        << "puts adds its own newline; a long text keeps the colour reset and the newline";
    const std::string log = root.ReadFile("/var/log/dlog.log");
    EXPECT_NE(std::string::npos, log.find(" E/PMODE(3): ReportTest.cpp: TestBody("));
    EXPECT_NE(std::string::npos, log.find(") > \x1b[31mWrong Line ID 144\x1b[m\n"));
}

TEST(ReportTest, TracesReachOnlyAnInstalledSinkAndAFailedCheckStopsTheOperation)
{
    {
        TraceCapture traces;
        PM_TRACE("Finalize-Done");
        PM_TRACE_RED("line %d\n", 3);
    }
    PM_TRACE("not seen");
    EXPECT_EQ((std::vector<std::string>{"\x1b[mFinalize-Done\x1b[m\n", "\x1b[31mline 3\x1b[m\n"}), TraceCapture::lines);

    const unsigned long before = pm::AssertionCount();
    testing::internal::CaptureStdout();
    EXPECT_EQ(2, checkedHalf(4));
    EXPECT_EQ(-1, checkedHalf(3));
    EXPECT_EQ(0u, testing::internal::GetCapturedStdout().find("Assertion Failed! --- File tests/ReportTest.cpp Line "));
    EXPECT_EQ(before + 1, pm::AssertionCount());
}

TEST(ProductionOSDTest, EveryOperationIsSilentAndTouchResultIsZero)
{
    TestRoot root;
    CProductionOSD* osd = CProductionOSD::GetInstance();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    osd->Initialize();
    osd->Text(7, "CMD FAIL: %s, %s, %s", "line_process", "strobe", "flash_write");
    osd->Text(0, "%s", std::string(2000, 'x').c_str());
    osd->Text(0, nullptr);
    osd->OSDtouchScreenTest(10, 20);
    EXPECT_EQ(0, osd->OSD_getTouchResult());
    osd->CleanWindow();
    EXPECT_EQ("", testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr());
    EXPECT_FALSE(root.Exists("/var/log/dlog.log"));
}

} // namespace
