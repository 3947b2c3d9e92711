// The operator display is inert: nothing reaches standard output, standard
// error or the system log, and over-long messages are cut, not overrun.
#include "CProductionOSD.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(ProductionOSDTest, EveryOperationIsSilentAndTouchResultIsZero)
{
    TestRoot root;
    CProductionOSD* osd = CProductionOSD::GetInstance();
    EXPECT_EQ(osd, CProductionOSD::GetInstance());
    const std::string longArg(2000, 'x');
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    osd->Initialize();
    osd->SetTextSize(3);
    osd->SetTextColor(0xFF0000);
    osd->Text(7, "CMD FAIL: %s, %s, %s", "line_process", "strobe", "flash_write");
    osd->Text(3, "AdjustData Get Error\n%s's size is %d.\n But You request %d", "ADJUST_CIS_SN", 4, 8);
    osd->Text(3, "Adjust Data is corrupted.\n");
    osd->Text(0, "%s", longArg.c_str());
    osd->Text(0, nullptr);
    osd->OSDtouchScreenTest(10, 20);
    osd->OSDtouchProductTest(1);
    EXPECT_EQ(0, osd->OSD_getTouchResult());
    osd->Fill(0);
    osd->SetHdmiPBDisplay();
    osd->SetLcdDisplay();
    osd->Clean();
    osd->CleanWindow();
    EXPECT_EQ(0, osd->OSD_getTouchResult());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_FALSE(root.Exists("/var/log/dlog.log"));
}

} // namespace
