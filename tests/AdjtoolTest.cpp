// adjtool run as a production engineer would: on the test's device root (PMODE_ROOT) or on a dump file (--image).
#include "AdjustStoreImage.h"
#include "FileSizeLimit.h"
#include "PmodeToolRun.h"
#include "TestRoot.h"
#include "pref.h"
#include "pref_sim.h"

using namespace adjtest;
using pmtool::ExpectRuns;

class AdjtoolTest : public ::testing::Test {
protected:
    void SetUp() override { MakeDeviceDirs(root); }

    TestRoot root;
    const std::string dump = root.Dir() + "/saved.dump", image = "adjtool --image " + dump + " ";
};

TEST_F(AdjtoolTest, ListSetGetResetDumpDiffAndLoadWorkOnTheDeviceAndOnAnImage)
{
    const std::string list = ExpectRuns({{"adjtool list", 0, {"114  ADJUST_PRESET_DEFECT_PIXEL_ADR", "  0  ADJUST_CHECKSUM1", "17 (0x11)",
                                          "      320     8400  all zero (8400 bytes)", "\"00\"", "139  LINE_PTP_AUTO_ENABLE"}}});
    EXPECT_EQ(pmtool::Count(list, "\n"), 1 + 133 + 10) << list;
    ExpectRuns({{"adjtool set ADJUST_CIS_SN 305419896", 0, {}}, {"adjtool get ADJUST_CIS_SN", 0, {"305419896 (0x12345678)"}},
                {"adjtool set adjust_cis_clamp_level -1", 0, {}}, {"adjtool get adjust_cis_clamp_level", 0, {"65535 (0xffff)"}},
                {"adjtool set ADJUST_CIS_LOT_NUMBER text:LOT-42", 0, {}}, {"adjtool get ADJUST_CIS_LOT_NUMBER", 0, {"\"LOT-42\""}},
                {"adjtool set 94 hex:00:11:22:33:44:55:66:77:88:99:aa:bb", 0, {}}, {"adjtool get 94", 0, {"00 11 22 33 44 55 66 77 88 99 aa bb"}},
                {"adjtool set 135 12", 0, {}}, {"adjtool get 135", 0, {"4  12\n"}}, {"adjtool set 27 0x10", 0, {}}});
    pref_sim_forget_images();
    CAdjustDataManager::GetInstance()->Initialize();
    EXPECT_EQ(Bytes({0x10, 0, 0, 0}), ItemBytes(ADJUST_CIS_SN));

    ExpectRuns({{"adjtool reset ADJUST_CIS_SN", 0, {}}, {"adjtool get 27", 0, {" 0 (0x00000000)"}}, {"adjtool set ADJUST_CIS_SN 7", 0, {}},
                {"adjtool dump " + dump, 0, {}}, {"adjtool diff " + dump, 0, {"diff: no difference in 133 items"}},
                {"adjtool set ADJUST_CIS_SN 8", 0, {}}, {"adjtool set 120 hex:ff", 0, {}},
                {"adjtool diff " + dump + " @device", 1, {"27 ADJUST_CIS_SN: 7 (0x00000007) in " + dump, "diff: 2 of 133 items differ",
                                                          "first difference at byte 0, 1 of 50000 bytes differ"}},
                {"adjtool dump " + dump + "2", 0, {}}, {"env -u PMODE_ROOT adjtool diff " + dump + " " + dump + "2", 1, // no device
                 {"27 ADJUST_CIS_SN: 7 (0x00000007) in " + dump + ", 8 (0x00000008) in " + dump + "2", "diff: 2 of 133 items differ"}},
                {"env -u PMODE_ROOT adjtool diff " + dump, 2, {"no device root"}}, // the second image is the device's
                {"adjtool load " + dump, 0, {}}, {"adjtool diff " + dump, 0, {}}, // --image: the file itself, never the device
                {image + "set ADJUST_CIS_SN 99", 0, {}}, {image + "get 27", 0, {"99 (0x00000063)"}},
                {"adjtool get 27", 0, {" 7 (0x00000007)"}}, {image + "verify", 0, {}}});
}

TEST_F(AdjtoolTest, VerifyNamesEachProblemOfAStore)
{
    // A store of another version (one unknown record, one row missing, a gap) with a broken marker byte.
    std::vector<StoredItem> items = CatalogueWithPatterns();
    items.insert(items.begin() + 3, StoredItem{"ADJUST_RETIRED", Bytes(8, 1)});
    items.erase(items.begin() + 60);
    WriteStore(items);
    const uint32_t shifted = 1000;
    const uint8_t broken = 0x10;
    pref_set_bytes(PREF_ID_ADJUST, HEADER_DATA_OFFSET + ADJ_HEADER_RECORD_SIZE * 10 + 128, &shifted, 4);
    pref_set_bytes(PREF_ID_ADJUST, 8, &broken, 1);
    pref_save(PREF_ID_ADJUST);
    ExpectRuns({{"adjtool verify", 1, {"record 3 (ADJUST_RETIRED): not in the catalogue", "record 10 (", "offset 1000, expected",
                                       "catalogue item 59 (ADJUST_CIS_P_PIXEL_NUM) has no record", "(gap)",
                                       "marker byte at 8 is 0x10, expected 0x11"}}});
}

TEST_F(AdjtoolTest, BadInputGetsAMessageAndANonZeroStatusAndChangesNothing)
{
    const std::string garbage = root.Dir() + "/garbage.dump";
    root.WriteFile("/garbage.dump", "this is not a dump");
    ExpectRuns({{"adjtool list", 0, {}}, {"adjtool get ADJUST_NO_SUCH", 2, {"unknown item 'ADJUST_NO_SUCH'"}},
                {"adjtool set ADJUST_CHECKSUM1 256", 2, {"does not fit ADJUST_CHECKSUM1 (1 bytes)"}},
                {"adjtool set ADJUST_CIS_SN twelve", 2, {"is not a number"}}, {"adjtool set 85 0x5", 2, {"holds 32 bytes: give text:, hex: or file:"}},
                {"adjtool set 101 text:KOR", 2, {"does not fit ADJUST_5GHZ_WIFI_CONTRY_CODE"}}, {"adjtool set 94 hex:abc", 2, {"even number of digits"}},
                {"adjtool load " + garbage, 1, {"was refused"}},
                {"adjtool load " + root.Dir() + "/none", 2, {"no such file"}}, {"adjtool diff " + garbage, 2, {"is not an adjust dump"}},
                {"adjtool --image " + garbage + " list", 2, {"is not an adjust dump"}},
                {"adjtool verify", 0, {"verify: OK, 133 items, header 18620 bytes, body 3606101 bytes"}}});
}

TEST_F(AdjtoolTest, NothingIsShownOrPassedThatWasNotSaved)
{
    ExpectRuns({{"adjtool set ADJUST_CIS_SN 9", 0, {}}, {"adjtool dump " + dump, 0, {}}});
    const std::vector<pmtool::Expected> cases = { // absent: what a report of the work done would show
        {"adjtool set ADJUST_CIS_SN 5", 1, {"ADJUST_CIS_SN was not saved"}, {"5 (0x00000005)"}},
        {"adjtool reset ADJUST_CIS_SN", 1, {"ADJUST_CIS_SN was not reset"}, {"0 (0x00000000)"}},
        {"adjtool set 135 7", 1, {"LINE_CONTROL_NEXT_STEP was not saved"}, {"line        4  7"}},
        {"adjtool reset line", 1, {"the line values were not reset"}, {"line values reset"}},
        {"adjtool dump " + root.Dir() + "/again.dump", 1, {"dump to"}, {"dumped"}},
        {"adjtool load " + dump, 1, {"loading " + dump + " failed"}, {"loaded"}},
        {image + "set ADJUST_CIS_SN 6", 1, {"ADJUST_CIS_SN was not saved"}, {"6 (0x00000006)"}}};
    {
        FileSizeLimit full(64); // NAND and image file too small for any group: every save fails
        ExpectRuns(cases);
    }
    ExpectRuns({{"adjtool get 27", 0, {" 9 (0x00000009)"}}, {"adjtool get 135", 0, {"  0\n"}}, {image + "get 27", 0, {" 9 (0x00000009)"}}});
}
