// Re-arrangement of stores written by other software versions: unknown items deleted,
// missing rows appended, resized items, duplicate names. After each start every value
// is where it was, the layout is gap-free and a second start changes nothing.
#include "AdjustStoreImage.h"

#include <functional>

using namespace adjtest;

namespace {

CAdjustDataManager* Manager()
{
    return CAdjustDataManager::GetInstance();
}

// The records a start must leave: the stored catalogue names in stored order (of two
// records with one name the later one), then the missing rows in catalogue order.
std::vector<std::string> ExpectedOrder(const std::vector<StoredItem>& stored)
{
    std::vector<std::string> order;
    for (size_t i = 0; i < stored.size(); ++i) {
        bool later = false;
        for (size_t j = i + 1; j < stored.size(); ++j) later = later || stored[j].name == stored[i].name;
        if (CatalogueId(stored[i].name) >= 0 && !later) order.push_back(stored[i].name);
    }
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id)
        if (std::find(order.begin(), order.end(), ADJUST_DATA_LIST[id].name) == order.end())
            order.push_back(ADJUST_DATA_LIST[id].name);
    return order;
}

void ExpectStoreHolds(const std::vector<StoredItem>& stored)
{
    EXPECT_EQ("", LayoutProblem());
    const std::map<int, Bytes> expected = ExpectedValues(stored);
    std::vector<std::string> order;
    for (const Record& record : ReadRecords()) {
        order.push_back(record.name);
        const int id = CatalogueId(record.name);
        ASSERT_GE(id, 0) << record.name;
        EXPECT_EQ(ADJUST_DATA_LIST[id].size, record.size) << record.name;
        EXPECT_TRUE(expected.at(id) == ReadBody(record)) << "stored bytes of " << record.name;
        EXPECT_TRUE(expected.at(id) == ItemBytes(id)) << "item " << record.name;
    }
    EXPECT_EQ(ExpectedOrder(stored), order);
}

// Starts the manager on the store and checks it, then starts it again and checks that
// the second start plans nothing and writes nothing.
void StartTwiceAndCheck(const std::vector<StoredItem>& stored)
{
    pref_sim_forget_images();
    const unsigned long assertions = pm::AssertionCount();
    Manager()->Initialize();
    EXPECT_EQ(assertions, pm::AssertionCount());
    ExpectStoreHolds(stored);
    const int saves = pref_sim_save_count(kAdjustGroup);
    Restart();
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id)
        EXPECT_EQ(0, Manager()->find(id)->Infomation(CAdjustData::ADJ_INFO_CHANGED)) << "item " << id;
    EXPECT_EQ(saves, pref_sim_save_count(kAdjustGroup)) << "a second start writes nothing";
    ExpectStoreHolds(stored);
    EXPECT_EQ(kFreshHeaderBytes, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(kFreshBodyBytes, pref_get_long(kAdjustGroup, kBodyLengthAt));
}

TEST(AdjustArrangeTest, StoresOfOtherVersionsAreReLaidOnceKeepingEveryValue)
{
    const struct {
        const char* name;
        std::function<void(std::vector<StoredItem>&)> change;
        std::vector<std::string> changeLog; // in this order
    } cases[] = {
        {"unknown item", [](auto& s) { s.insert(s.begin() + 5, StoredItem{"ADJUST_RETIRED_TABLE", Bytes(24, 0xC5)}); },
         {"#Will be Del ADJUST_RETIRED_TABLE\n"}},
        {"missing rows",
         [](auto& s) {
             s.erase(s.begin() + 40);
             s.erase(s.begin() + 7);
         },
         {"#Add ADJUST_SHUTTER_PROCESS_MARK last Off:", "#Add ADJUST_ISOCAPTURE_GAIN_00"}},
        {"grown and shrunk items, the last one too",
         [](auto& s) {
             s[ADJUST_CIS_CLAMP_LEVEL].bytes = Bytes{0x42};
             s[ADJUST_CIS_LOT_NUMBER].bytes = Pattern(ADJUST_CIS_LOT_NUMBER, 40);
             s[ADJUST_GYRO_DSP_THERM].bytes = Pattern(ADJUST_GYRO_DSP_THERM, 9);
         },
         {}},
        {"two records of one name", [](auto& s) { s.insert(s.begin() + 50, StoredItem{ADJUST_DATA_LIST[10].name, Bytes{0xD0}}); },
         {}},
        {"all at once",
         [](auto& s) {
             s[ADJUST_CIS_SN].bytes = Bytes{1, 2};
             s.insert(s.begin() + 120, StoredItem{"ADJUST_OLD_LUT", Bytes(5000, 0x77)});
             s.insert(s.begin() + 3, StoredItem{"ADJUST_OLD_FLAG", Bytes{9}});
             s.erase(s.begin() + 100);
         },
         {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TestRoot root;
        MakeDeviceDirs(root);
        Manager()->Finalize();
        std::vector<StoredItem> stored = CatalogueWithPatterns();
        c.change(stored);
        WriteStore(stored);
        StartTwiceAndCheck(stored);
        const std::string changeLog = root.ReadFile("/adj/AdjLog.txt");
        size_t at = 0;
        for (const std::string& line : c.changeLog) EXPECT_NE(std::string::npos, at = changeLog.find(line, at)) << line;
        EXPECT_NE(std::string::npos, root.ReadFile("/mnt/ubi1/log/adj_log.inf").find("arrangeData(): sync done \n"));
    }
}

TEST(AdjustArrangeTest, ArrangementLostToAFailedSaveIsPlannedAgainAtTheNextStart)
{
    TestRoot root;
    MakeDeviceDirs(root);
    std::vector<StoredItem> stored = CatalogueWithPatterns();
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
    StartTwiceAndCheck(stored);
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
    EXPECT_EQ("5c", StoreHex());
}

} // namespace
