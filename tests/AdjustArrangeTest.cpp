// Re-arrangement of stores written by other software versions: unknown items deleted,
// missing rows appended, resized items, duplicate names.
#include "AdjustStoreImage.h"

using namespace adjtest;

namespace {

CAdjustDataManager* const manager = CAdjustDataManager::GetInstance();

TEST(AdjustArrangeTest, StoreOfAnotherVersionIsReLaidOnceKeepingEveryValueAlsoAfterALostSave)
{
    TestRoot root;
    MakeDeviceDirs(root);
    std::vector<StoredItem> stored = CatalogueWithPatterns();
    stored[ADJUST_CIS_CLAMP_LEVEL].bytes = Bytes{0x42}; // grows
    stored[ADJUST_CIS_LOT_NUMBER].bytes = Pattern(ADJUST_CIS_LOT_NUMBER, 40); // shrinks
    stored[ADJUST_GYRO_DSP_THERM].bytes = Pattern(ADJUST_GYRO_DSP_THERM, 9); // the last one shrinks
    stored.insert(stored.begin() + 120, StoredItem{"ADJUST_OLD_LUT", Bytes(5000, 0x77)});
    stored.insert(stored.begin() + 50, StoredItem{ADJUST_DATA_LIST[10].name, Bytes{0xD0}}); // the later record counts
    stored.erase(stored.begin() + 40); // two rows missing
    stored.erase(stored.begin() + 7);
    stored.insert(stored.begin() + 5, StoredItem{"ADJUST_RETIRED_TABLE", Bytes(24, 0xC5)});
    WriteStore(stored);
    pref_sim_forget_images();

    pref_sim_fail_next(PREF_SIM_OP_SAVE, 2); // also in the start again from NAND
    manager->Initialize();
    EXPECT_EQ(nullptr, manager->find(ADJUST_CIS_SN)) << "no items served";
    Restart();
    EXPECT_EQ("", StoreProblem(ExpectedValues(stored)));
    EXPECT_EQ("ADJUST_PROXIMITY_PROCESS_MARK", ReadRecords()[47].name) << "where the later record of the name was";
    const int saves = pref_sim_save_count(PREF_ID_ADJUST);
    Restart();
    EXPECT_EQ(saves, pref_sim_save_count(PREF_ID_ADJUST)) << "a second start writes nothing";
    EXPECT_EQ("", StoreProblem(ExpectedValues(stored)));
    EXPECT_THAT(root.ReadFile("/adj/AdjLog.txt"),
                testing::ContainsRegex("#Add ADJUST_SHUTTER_PROCESS_MARK last Off:.*#Add ADJUST_ISOCAPTURE_GAIN_00.*"
                                       "#Will be Del ADJUST_RETIRED_TABLE\n.*#Will be Del ADJUST_OLD_LUT\n"));
    EXPECT_THAT(root.ReadFile("/mnt/ubi1/log/adj_log.inf"), testing::HasSubstr("arrangeData(): sync done \n"));
}

TEST(AdjustArrangeTest, RowsThatCannotBePlacedAreReportedAndTheStoreIsLeftUntouched)
{
    TestRoot root;
    MakeDeviceDirs(root);
    // A single record at body offset 0: the missing rows have no stored item to go behind.
    WriteStore({StoredItem{ADJUST_DATA_LIST[0].name, Bytes{0x5C}}});
    pref_sim_forget_images();
    const unsigned long assertions = pm::AssertionCount();
    const int saves = pref_sim_save_count(PREF_ID_ADJUST);
    manager->Initialize();
    EXPECT_LT(assertions, pm::AssertionCount()) << "the failed matching is reported";
    uint8_t checksum = 0;
    EXPECT_FALSE(manager->GetData(ADJUST_CHECKSUM1, &checksum, 1)) << "a half-matched store is not served";
    EXPECT_FALSE(manager->SetData(ADJUST_CHECKSUM1, &checksum, 1, true));
    EXPECT_EQ(saves, pref_sim_save_count(PREF_ID_ADJUST)) << "nothing is re-laid";
    EXPECT_EQ("5c", StoreHex());
}

} // namespace
