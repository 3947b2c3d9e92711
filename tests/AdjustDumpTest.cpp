// Dump and load of the whole adjust group.
#include "AdjustStoreImage.h"
#include "CAdjustData.h"
#include "CAdjustDataManager.h"
#include "TestRoot.h"
#include "pref.h"
#include "pref_sim.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <string>

using namespace adjtest;

namespace {

CAdjustDataManager* Manager()
{
    return CAdjustDataManager::GetInstance();
}

char* Path(std::string& path)
{
    return path.data();
}

std::map<int, Bytes> AllItemBytes()
{
    std::map<int, Bytes> values;
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) values[id] = ItemBytes(id);
    return values;
}

void WriteSomeValues(uint8_t seed)
{
    uint32_t serial = 0x01020304u * seed;
    ASSERT_TRUE(Manager()->SetData(ADJUST_CIS_SN, &serial, 4, false));
    Bytes table = Pattern(seed, ADJUST_DATA_LIST[ADJUST_CAPTURE_LV1_DEFECT_PIXEL_ADR].size);
    ASSERT_TRUE(Manager()->SetData(ADJUST_CAPTURE_LV1_DEFECT_PIXEL_ADR, table.data(), table.size(), false));
    char lot[32] = {};
    std::snprintf(lot, sizeof(lot), "LOT-%u", seed);
    ASSERT_TRUE(Manager()->SetData(ADJUST_CIS_LOT_NUMBER, lot, sizeof(lot), true));
}

TEST(AdjustDumpTest, DumpThenLoadGivesBackEveryValueAndSavesIt)
{
    TestRoot root;
    MakeDeviceDirs(root);
    Manager()->Initialize();
    WriteSomeValues(3);
    const std::map<int, Bytes> dumped = AllItemBytes();
    std::string path = "/mnt/mmc/adjust.dump";
    root.WriteFile("/mnt/mmc/.keep", "");
    ASSERT_TRUE(Manager()->DumpData2File(Path(path)));
    ASSERT_TRUE(root.Exists(path));

    WriteSomeValues(9);
    ASSERT_NE(dumped, AllItemBytes());
    ASSERT_TRUE(Manager()->LoadDataFromFile(Path(path)));
    EXPECT_EQ(dumped, AllItemBytes());

    Restart();
    EXPECT_EQ(dumped, AllItemBytes()) << "the loaded group was saved";
    EXPECT_EQ("", LayoutProblem());
}

TEST(AdjustDumpTest, LoadOfAnOlderDumpAddsTheMissingItemWithItsDefault)
{
    TestRoot root;
    MakeDeviceDirs(root);
    std::vector<StoredItem> older = CatalogueWithPatterns();
    older.erase(older.begin() + ADJUST_PS_DUTY_RATIO);
    WriteStore(older);
    root.WriteFile("/mnt/mmc/.keep", "");
    ASSERT_LE(0, pref_save_to_file(kAdjustGroup, "/mnt/mmc/older.dump"));

    // The device itself holds a current store with other values.
    pref_reset(kAdjustGroup);
    pref_save(kAdjustGroup);
    pref_sim_forget_images();
    Manager()->Initialize();
    WriteSomeValues(5);

    std::string path = "/mnt/mmc/older.dump";
    ASSERT_TRUE(Manager()->LoadDataFromFile(Path(path)));
    for (int pass = 0; pass < 2; ++pass) {
        SCOPED_TRACE(pass == 0 ? "after the load" : "after a restart");
        for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
            const Bytes expected = id == ADJUST_PS_DUTY_RATIO ? DefaultBytes(id) : Pattern(id, ADJUST_DATA_LIST[id].size);
            EXPECT_TRUE(expected == ItemBytes(id)) << "item " << id;
        }
        EXPECT_EQ(kFreshHeaderBytes, pref_get_long(kAdjustGroup, kHeaderLengthAt));
        EXPECT_EQ("", LayoutProblem());
        Restart();
    }
}

TEST(AdjustDumpTest, RefusedFilesLeaveTheManagerFinalisedAndNandUntouched)
{
    TestRoot root;
    MakeDeviceDirs(root);
    Manager()->Initialize();
    WriteSomeValues(4);
    std::string good = "/mnt/mmc/good.dump";
    root.WriteFile("/mnt/mmc/.keep", "");
    ASSERT_TRUE(Manager()->DumpData2File(Path(good)));
    const std::string image = root.ReadFile(good);
    ASSERT_GT(image.size(), 5294098u);

    std::string corrupt = image;
    corrupt[corrupt.size() / 2] ^= 0x40;
    const struct {
        const char* name;
        std::string content;
    } cases[] = {
        {"truncated", image.substr(0, image.size() - 100)},
        {"one byte flipped", corrupt},
        {"empty", ""},
        {"text", "not an adjust dump\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Manager()->Initialize();
        const std::map<int, Bytes> before = AllItemBytes();
        const int saves = pref_sim_save_count(kAdjustGroup);
        root.WriteFile("/mnt/mmc/bad.dump", c.content);
        std::string path = "/mnt/mmc/bad.dump";
        EXPECT_FALSE(Manager()->LoadDataFromFile(Path(path)));
        uint32_t serial = 0;
        EXPECT_FALSE(Manager()->GetData(ADJUST_CIS_SN, &serial, 4)) << "the manager is finalised";
        EXPECT_EQ(saves, pref_sim_save_count(kAdjustGroup));
        Manager()->Initialize();
        EXPECT_EQ(before, AllItemBytes()) << "the image was left as it was";
    }

    std::string missing = "/mnt/mmc/none.dump";
    EXPECT_FALSE(Manager()->LoadDataFromFile(Path(missing)));
    EXPECT_FALSE(Manager()->DumpData2File(nullptr));
    EXPECT_FALSE(Manager()->LoadDataFromFile(nullptr));
}

} // namespace
