// The error log and the traces (failed checks are counted and matched where they happen);
// the operator display, which shows nothing.
#include "CProductionOSD.h"
#include "TestRoot.h"
#include "TraceCapture.h"

#include <gtest/gtest.h>

namespace {

TEST(ReportTest, ErrorLogIsRedOnStdoutCutToTheBufferAndInTheSystemLogAndTracesReachOnlyASink)
{
    TestRoot root;
    testing::internal::CaptureStdout();
    PM_ERROR_LOG("Wrong Line ID %d\n", 144);
    PM_ERROR_LOG("%s", std::string(400, 'x').c_str());
    EXPECT_EQ("\x1b[31mWrong Line ID 144\x1b[m\n\n\x1b[31m" + std::string(255 - 9, 'x') + "\x1b[m\n\n",
              testing::internal::GetCapturedStdout())
        << "puts adds its own newline; a long text keeps the colour reset and the newline";
    EXPECT_NE(std::string::npos, root.ReadFile("/var/log/dlog.log").find(" E/PMODE(3): ReportTest.cpp: TestBody("));

    {
        TraceCapture traces;
        PM_TRACE("Finalize-Done");
        PM_TRACE_RED("line %d\n", 3);
    }
    PM_TRACE("not seen");
    EXPECT_EQ((std::vector<std::string>{"\x1b[mFinalize-Done\x1b[m\n", "\x1b[31mline 3\x1b[m\n"}), TraceCapture::lines);
}

TEST(ProductionOSDTest, TextTakesAnyInputAndTheTouchResultIsZero)
{
    CProductionOSD* osd = CProductionOSD::GetInstance();
    osd->Text(7, "CMD FAIL: %s, %s\n", "line_process", "strobe");
    osd->Text(0, "%s", std::string(2000, 'x').c_str());
    osd->Text(0, nullptr);
    EXPECT_EQ(0, osd->OSD_getTouchResult());
}

} // namespace
