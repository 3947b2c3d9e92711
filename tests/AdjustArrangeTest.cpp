// Re-arrangement of stores written by other software versions: unknown items deleted,
// missing rows appended, resized items, duplicate names. After each start every value
// is where it was, the layout is gap-free and a second start changes nothing.
#include "AdjustStoreImage.h"
#include "CAdjustData.h"
#include "CAdjustDataManager.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "pref.h"
#include "pref_sim.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>

using namespace adjtest;

namespace {

CAdjustDataManager* Manager()
{
    return CAdjustDataManager::GetInstance();
}

void ExpectStoreHolds(const std::map<int, Bytes>& expected, const std::vector<std::string>& recordOrder)
{
    EXPECT_EQ("", LayoutProblem());
    const std::vector<Record> records = ReadRecords();
    ASSERT_EQ(recordOrder.size(), records.size());
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(recordOrder[i], records[i].name) << "record " << i;
        const int id = CatalogueId(records[i].name);
        ASSERT_GE(id, 0) << records[i].name;
        EXPECT_EQ(ADJUST_DATA_LIST[id].size, records[i].size) << records[i].name;
        EXPECT_TRUE(expected.at(id) == ReadBody(records[i])) << "stored bytes of " << records[i].name;
    }
    for (const auto& [id, bytes] : expected) EXPECT_TRUE(bytes == ItemBytes(id)) << "item " << id;
}

std::vector<std::string> NamesOf(const std::vector<StoredItem>& items)
{
    std::vector<std::string> names;
    for (const StoredItem& item : items) names.push_back(item.name);
    return names;
}

// Starts the manager on the store, checks the result, then starts it again and checks
// that the second start plans nothing and writes nothing.
void StartTwiceAndCheck(const std::vector<StoredItem>& stored, const std::vector<std::string>& recordOrder)
{
    pref_sim_forget_images();
    const unsigned long assertions = pm::AssertionCount();
    Manager()->Initialize();
    EXPECT_EQ(assertions, pm::AssertionCount());
    const std::map<int, Bytes> expected = ExpectedValues(stored);
    {
        SCOPED_TRACE("first start");
        ExpectStoreHolds(expected, recordOrder);
    }

    const int saves = pref_sim_save_count(kAdjustGroup);
    Restart();
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id)
        EXPECT_EQ(0, Manager()->find(id)->Infomation(CAdjustData::ADJ_INFO_CHANGED)) << "item " << id;
    EXPECT_EQ(saves, pref_sim_save_count(kAdjustGroup)) << "a second start writes nothing";
    SCOPED_TRACE("second start");
    ExpectStoreHolds(expected, recordOrder);
}

TEST(AdjustArrangeTest, UnknownItemIsDeletedAndTheGapClosed)
{
    TestRoot root;
    MakeDeviceDirs(root);
    std::vector<StoredItem> stored = CatalogueWithPatterns();
    const std::vector<std::string> catalogueOrder = NamesOf(stored);
    stored.insert(stored.begin() + 5, StoredItem{"ADJUST_RETIRED_TABLE", Bytes(24, 0xC5)});
    WriteStore(stored);
    EXPECT_EQ(kFreshHeaderBytes + 140, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(kFreshBodyBytes + 24, pref_get_long(kAdjustGroup, kBodyLengthAt));

    StartTwiceAndCheck(stored, catalogueOrder);
    EXPECT_EQ(kFreshHeaderBytes, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(kFreshBodyBytes, pref_get_long(kAdjustGroup, kBodyLengthAt));
    EXPECT_EQ(nullptr, Manager()->find("ADJUST_RETIRED_TABLE"));
    EXPECT_NE(std::string::npos, root.ReadFile("/adj/AdjLog.txt").find("#Will be Del ADJUST_RETIRED_TABLE\n"));
    EXPECT_NE(std::string::npos, root.ReadFile("/mnt/ubi1/log/adj_log.inf").find("arrangeData(): sync done \n"));
}

TEST(AdjustArrangeTest, MissingRowsAreAppendedInCatalogueOrderWithDefaults)
{
    TestRoot root;
    MakeDeviceDirs(root);
    std::vector<StoredItem> stored = CatalogueWithPatterns();
    // Rows 40 and 7 were not known to the software that wrote this store.
    stored.erase(stored.begin() + 40);
    stored.erase(stored.begin() + 7);
    WriteStore(stored);

    std::vector<std::string> order = NamesOf(stored);
    order.push_back(ADJUST_DATA_LIST[7].name);
    order.push_back(ADJUST_DATA_LIST[40].name);
    StartTwiceAndCheck(stored, order);
    EXPECT_EQ(kFreshHeaderBytes, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(kFreshBodyBytes, pref_get_long(kAdjustGroup, kBodyLengthAt));
    const std::string changeLog = root.ReadFile("/adj/AdjLog.txt");
    EXPECT_NE(std::string::npos, changeLog.find("#Add ADJUST_SHUTTER_PROCESS_MARK last Off:"));
    EXPECT_LT(changeLog.find("Add ADJUST_SHUTTER_PROCESS_MARK"), changeLog.find("Add ADJUST_ISOCAPTURE_GAIN_00"));
}

TEST(AdjustArrangeTest, GrownAndShrunkItemsKeepTheirValuesAndLaterItemsMove)
{
    TestRoot root;
    MakeDeviceDirs(root);
    std::vector<StoredItem> stored = CatalogueWithPatterns();
    stored[ADJUST_CIS_CLAMP_LEVEL].bytes = Bytes{0x42};                 // 1 byte, catalogue 2
    stored[ADJUST_CIS_LOT_NUMBER].bytes = Pattern(ADJUST_CIS_LOT_NUMBER, 40); // 40 bytes, catalogue 32
    stored[ADJUST_GYRO_DSP_THERM].bytes = Pattern(ADJUST_GYRO_DSP_THERM, 9);  // the last item shrinks to 4
    WriteStore(stored);

    StartTwiceAndCheck(stored, NamesOf(stored));
    EXPECT_EQ(Bytes({0x42, 0x00}), ItemBytes(ADJUST_CIS_CLAMP_LEVEL));
    EXPECT_EQ(kFreshBodyBytes, pref_get_long(kAdjustGroup, kBodyLengthAt));
}

TEST(AdjustArrangeTest, OfTwoRecordsWithOneNameTheLaterIsKept)
{
    TestRoot root;
    MakeDeviceDirs(root);
    std::vector<StoredItem> stored = CatalogueWithPatterns();
    stored.insert(stored.begin() + 50, StoredItem{ADJUST_DATA_LIST[10].name, Bytes{0xD0}});
    WriteStore(stored);

    std::vector<std::string> order = NamesOf(stored);
    order.erase(order.begin() + 10);
    StartTwiceAndCheck(stored, order);
    // The earlier record is gone, the later one (now in its place in body order) holds D0.
    EXPECT_EQ(Bytes{0xD0}, ItemBytes(10));
    const std::vector<Record> records = ReadRecords();
    EXPECT_EQ(1, std::count_if(records.begin(), records.end(),
                               [](const Record& r) { return r.name == ADJUST_DATA_LIST[10].name; }));
}

TEST(AdjustArrangeTest, AllChangesAtOnceWithValuesWrittenBefore)
{
    TestRoot root;
    MakeDeviceDirs(root);
    std::vector<StoredItem> stored = CatalogueWithPatterns();
    stored[ADJUST_CIS_SN].bytes = Bytes{1, 2};                               // grows to 4
    stored.insert(stored.begin() + 120, StoredItem{"ADJUST_OLD_LUT", Bytes(5000, 0x77)});
    stored.insert(stored.begin() + 3, StoredItem{"ADJUST_OLD_FLAG", Bytes{9}});
    stored.erase(stored.begin() + 100);                                       // one row missing
    const std::string missing = ADJUST_DATA_LIST[99].name;
    WriteStore(stored);

    std::vector<std::string> order;
    for (const StoredItem& item : stored)
        if (CatalogueId(item.name) >= 0) order.push_back(item.name);
    order.push_back(missing);
    StartTwiceAndCheck(stored, order);
    EXPECT_EQ(kFreshHeaderBytes, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(kFreshBodyBytes, pref_get_long(kAdjustGroup, kBodyLengthAt));
}

TEST(AdjustArrangeTest, ArrangementLostToAFailedSaveIsPlannedAgainAtTheNextStart)
{
    TestRoot root;
    MakeDeviceDirs(root);
    std::vector<StoredItem> stored = CatalogueWithPatterns();
    const std::vector<std::string> catalogueOrder = NamesOf(stored);
    stored.insert(stored.begin() + 5, StoredItem{"ADJUST_RETIRED_TABLE", Bytes(24, 0xC5)});
    stored[ADJUST_CIS_SN + 1].bytes = Bytes{7, 7};
    WriteStore(stored);
    pref_sim_forget_images();

    // The re-laid group cannot reach NAND: the save fails, also in the start again from
    // NAND that follows. The manager then holds no items and NAND the old store.
    pref_sim_fail_next(PREF_SIM_OP_SAVE, 2);
    Manager()->Initialize();
    EXPECT_EQ(nullptr, Manager()->find(ADJUST_CIS_SN));
    Manager()->Finalize();
    pref_sim_forget_images();
    EXPECT_EQ(kFreshHeaderBytes + 140, pref_get_long(kAdjustGroup, kHeaderLengthAt)) << "NAND holds the old store";

    StartTwiceAndCheck(stored, catalogueOrder);
}

TEST(AdjustArrangeTest, RowsThatCannotBePlacedAreReportedAndTheStoreIsLeftUntouched)
{
    TestRoot root;
    MakeDeviceDirs(root);
    // A single record at body offset 0: no stored item lies beyond it, so the missing
    // rows have no place to go.
    WriteStore({StoredItem{ADJUST_DATA_LIST[0].name, Bytes{0x5C}}});
    pref_sim_forget_images();
    const unsigned long assertions = pm::AssertionCount();
    const int saves = pref_sim_save_count(kAdjustGroup);
    Manager()->Initialize();

    EXPECT_LT(assertions, pm::AssertionCount()) << "the failed matching is reported";
    // A half-matched store is not served: nothing could keep its writes in place.
    uint8_t checksum = 0;
    EXPECT_FALSE(Manager()->GetData(ADJUST_CHECKSUM1, &checksum, 1));
    EXPECT_FALSE(Manager()->SetData(ADJUST_CHECKSUM1, &checksum, 1, true));
    EXPECT_EQ(saves, pref_sim_save_count(kAdjustGroup)) << "nothing is re-laid";
    EXPECT_EQ(1u, ReadRecords().size());
    EXPECT_EQ(Bytes{0x5C}, ReadBody(ReadRecords()[0]));
}

} // namespace
