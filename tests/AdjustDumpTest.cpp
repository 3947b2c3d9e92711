// Dump and load of the whole adjust group.
#include "AdjustStoreImage.h"

#include <gtest/gtest.h>

#include <cstdio>

using namespace adjtest;

namespace {

CAdjustDataManager* const manager = CAdjustDataManager::GetInstance();

std::map<int, Bytes> AllItemBytes()
{
    std::map<int, Bytes> values;
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) values[id] = ItemBytes(id);
    return values;
}

void WriteSomeValues(uint8_t seed)
{
    uint32_t serial = 0x01020304u * seed;
    ASSERT_TRUE(manager->SetData(ADJUST_CIS_SN, &serial, 4, false));
    Bytes table = Pattern(seed, ADJUST_DATA_LIST[ADJUST_CAPTURE_LV1_DEFECT_PIXEL_ADR].size);
    ASSERT_TRUE(manager->SetData(ADJUST_CAPTURE_LV1_DEFECT_PIXEL_ADR, table.data(), table.size(), false));
    char lot[32] = {};
    std::snprintf(lot, sizeof(lot), "LOT-%u", seed);
    ASSERT_TRUE(manager->SetData(ADJUST_CIS_LOT_NUMBER, lot, sizeof(lot), true));
}

class AdjustDumpTest : public testing::Test {
protected:
    void SetUp() override
    {
        MakeDeviceDirs(root);
        root.WriteFile("/mnt/mmc/.keep", "");
    }
    TestRoot root;
    std::string good = "/mnt/mmc/good.dump", bad = "/mnt/mmc/bad.dump";
};

TEST_F(AdjustDumpTest, LoadGivesBackEveryDumpedValueAndSavesItAndRefusedFilesChangeNothing)
{
    manager->Initialize();
    WriteSomeValues(3);
    const std::map<int, Bytes> dumped = AllItemBytes();
    ASSERT_TRUE(manager->DumpData2File(good.data()));
    const std::string image = root.ReadFile(good);
    ASSERT_GT(image.size(), 5294098u);
    WriteSomeValues(9);
    const std::map<int, Bytes> current = AllItemBytes();
    ASSERT_NE(dumped, current);

    std::string flipped = image;
    flipped[flipped.size() / 2] ^= 0x40;
    for (const std::string& content : {image.substr(0, image.size() - 100), flipped, std::string(), std::string("text\n")}) {
        SCOPED_TRACE("a file of " + std::to_string(content.size()) + " bytes");
        manager->Initialize();
        const int saves = pref_sim_save_count(kAdjustGroup);
        root.WriteFile(bad, content);
        EXPECT_FALSE(manager->LoadDataFromFile(bad.data()));
        uint32_t serial = 0;
        EXPECT_FALSE(manager->GetData(ADJUST_CIS_SN, &serial, 4)) << "the manager is finalised";
        EXPECT_EQ(saves, pref_sim_save_count(kAdjustGroup));
        manager->Initialize();
        EXPECT_EQ(current, AllItemBytes()) << "the image was left as it was";
    }
    std::string missing = "/mnt/mmc/none.dump";
    EXPECT_FALSE(manager->LoadDataFromFile(missing.data()));
    EXPECT_FALSE(manager->DumpData2File(nullptr));
    EXPECT_FALSE(manager->LoadDataFromFile(nullptr));

    manager->Initialize();
    ASSERT_TRUE(manager->LoadDataFromFile(good.data()));
    EXPECT_EQ(dumped, AllItemBytes());
    Restart();
    EXPECT_EQ(dumped, AllItemBytes()) << "the loaded group was saved";
    EXPECT_EQ("", LayoutProblem());
}

TEST_F(AdjustDumpTest, LoadOfAnOlderDumpAddsTheMissingItemWithItsDefault)
{
    std::vector<StoredItem> older = CatalogueWithPatterns();
    older.erase(older.begin() + ADJUST_PS_DUTY_RATIO);
    WriteStore(older);
    ASSERT_LE(0, pref_save_to_file(kAdjustGroup, good.c_str()));
    pref_reset(kAdjustGroup); // the camera itself holds a current store with other values
    pref_save(kAdjustGroup);
    pref_sim_forget_images();
    manager->Initialize();
    WriteSomeValues(5);
    ASSERT_TRUE(manager->LoadDataFromFile(good.data()));
    std::map<int, Bytes> expected = ExpectedValues(older);
    EXPECT_EQ("", StoreProblem(expected));
    Restart();
    EXPECT_EQ("", StoreProblem(expected));
}

} // namespace
