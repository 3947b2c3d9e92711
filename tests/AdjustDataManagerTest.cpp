// The adjust data manager: a store built from the catalogue, restarts, access by id,
// the country table, line data, resets and concurrent callers.
#include "AdjustStoreImage.h"
#include "CAdjustData.h"
#include "CAdjustDataManager.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "pref.h"
#include "pref_sim.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

using namespace adjtest;

namespace {

CAdjustDataManager* Manager()
{
    return CAdjustDataManager::GetInstance();
}

unsigned long OldOffset(int id)
{
    CAdjustData* item = Manager()->find(id);
    return item == nullptr ? ~0UL : static_cast<unsigned long>(item->Infomation(CAdjustData::ADJ_INFO_OLD_OFFSET));
}

bool IsCountryDerived(int id)
{
    for (int derived : {70, 71, 72, 73, 74, 75, 76, 95, 96, 97, 98, 101})
        if (derived == id) return true;
    return false;
}

void SetShipmentCountry(uint16_t code)
{
    ASSERT_TRUE(Manager()->SetData(ADJUST_SHIPMENT_COUNTRY, &code, sizeof(code), true));
}

TEST(AdjustDataManagerTest, FreshStoreFollowsTheCatalogueAndSurvivesRestart)
{
    TestRoot root;
    MakeDeviceDirs(root);
    Manager()->Initialize();

    EXPECT_EQ(kFreshHeaderBytes, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(kFreshBodyBytes, pref_get_long(kAdjustGroup, kBodyLengthAt));
    EXPECT_EQ(133u, ReadRecords().size());
    EXPECT_EQ("", LayoutProblem());
    EXPECT_EQ(320u, OldOffset(114));
    EXPECT_EQ(8720u, OldOffset(115));
    EXPECT_EQ(2388720u, OldOffset(116));

    char code[3] = {};
    ASSERT_TRUE(Manager()->GetData(ADJUST_5GHZ_WIFI_CONTRY_CODE, code, sizeof(code)));
    EXPECT_STREQ("00", code);

    for (int pass = 0; pass < 2; ++pass) {
        for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
            SCOPED_TRACE("pass " + std::to_string(pass) + ", item " + std::to_string(id));
            EXPECT_EQ(DefaultBytes(id), ItemBytes(id));
            if (IsCountryDerived(id)) continue;
            Bytes read(ADJUST_DATA_LIST[id].size, 0xAA);
            EXPECT_TRUE(Manager()->GetData(id, read.data(), read.size()));
            EXPECT_EQ(DefaultBytes(id), read);
        }
        Restart();
    }
    EXPECT_EQ(133u, ReadRecords().size());
    const std::string writeLog = root.ReadFile("/mnt/ubi1/log/adj_log.inf");
    EXPECT_NE(std::string::npos, writeLog.find("makeAdjustHeaderInfo(): start [sync] \n"));
    EXPECT_NE(std::string::npos, writeLog.find("makeAdjustHeaderInfo(): sync done \n"));
    EXPECT_NE(std::string::npos, root.ReadFile("/adj/AdjLog.txt").find("#New ADJUST_GYRO_DSP_THERM\n"));
}

TEST(AdjustDataManagerTest, RestartOnAMatchingStorePlansNothingAndWritesNothing)
{
    TestRoot root;
    MakeDeviceDirs(root);
    Manager()->Initialize();
    uint32_t serial = 0x12345678;
    ASSERT_TRUE(Manager()->SetData(ADJUST_CIS_SN, &serial, sizeof(serial), true));

    const int savesBefore = pref_sim_save_count(kAdjustGroup);
    const std::string changeLog = root.ReadFile("/adj/AdjLog.txt");
    const std::string writeLog = root.ReadFile("/mnt/ubi1/log/adj_log.inf");
    Restart();

    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
        CAdjustData* item = Manager()->find(id);
        ASSERT_NE(nullptr, item) << "item " << id;
        EXPECT_EQ(0, item->Infomation(CAdjustData::ADJ_INFO_CHANGED)) << "item " << id;
        EXPECT_EQ(id, item->Infomation(CAdjustData::ADJ_INFO_ID));
    }
    EXPECT_EQ(savesBefore, pref_sim_save_count(kAdjustGroup));
    EXPECT_EQ(changeLog, root.ReadFile("/adj/AdjLog.txt"));
    EXPECT_EQ(writeLog, root.ReadFile("/mnt/ubi1/log/adj_log.inf"));
    EXPECT_EQ(Bytes({0x78, 0x56, 0x34, 0x12}), ItemBytes(ADJUST_CIS_SN));
}

TEST(AdjustDataManagerTest, WriteOnAFullNandIsLostWholeAndTheOldValueSurvives)
{
    TestRoot root;
    MakeDeviceDirs(root);
    Manager()->Initialize();
    uint32_t serial = 1111;
    ASSERT_TRUE(Manager()->SetData(ADJUST_CIS_SN, &serial, 4, true));

    pref_sim_set_disk_full(1);
    const unsigned long assertions = pm::AssertionCount();
    serial = 2222;
    Manager()->SetData(ADJUST_CIS_SN, &serial, 4, true);
    EXPECT_EQ(assertions + 1, pm::AssertionCount()) << "the failed save is reported";
    pref_sim_set_disk_full(0);

    Restart();
    EXPECT_EQ(Bytes({0x57, 0x04, 0, 0}), ItemBytes(ADJUST_CIS_SN)) << "1111 is still on NAND";
    EXPECT_EQ("", LayoutProblem());
    serial = 3333;
    ASSERT_TRUE(Manager()->SetData(ADJUST_CIS_SN, &serial, 4, true));
    Restart();
    EXPECT_EQ(Bytes({0x05, 0x0D, 0, 0}), ItemBytes(ADJUST_CIS_SN));
}

TEST(AdjustDataManagerTest, LookupByIdAndNameAndOutOfRangeIds)
{
    TestRoot root;
    MakeDeviceDirs(root);
    uint8_t buffer[4] = {};
    EXPECT_FALSE(Manager()->GetData(ADJUST_CIS_SN, buffer, 4)) << "before Initialize";
    EXPECT_FALSE(Manager()->SetData(ADJUST_CIS_SN, buffer, 4, false)) << "before Initialize";
    Manager()->Initialize();

    EXPECT_EQ(nullptr, Manager()->find(133));
    EXPECT_EQ(nullptr, Manager()->find(-1));
    EXPECT_EQ(nullptr, Manager()->find("ADJUST_NO_SUCH_ITEM"));
    EXPECT_EQ(Manager()->find(ADJUST_CIS_SN), Manager()->find("ADJUST_CIS_SN"));
    EXPECT_FALSE(Manager()->GetData(-1, buffer, 1));
    EXPECT_FALSE(Manager()->GetData(133, buffer, 1));
    EXPECT_FALSE(Manager()->SetData(133, buffer, 1, true));

    // A 4-byte item gives its first two bytes; more than it holds is refused.
    uint32_t serial = 0xA1B2C3D4;
    ASSERT_TRUE(Manager()->SetData(ADJUST_CIS_SN, &serial, 4, true));
    uint8_t two[2] = {};
    EXPECT_TRUE(Manager()->GetData(ADJUST_CIS_SN, two, 2));
    EXPECT_EQ(0xD4, two[0]);
    EXPECT_EQ(0xC3, two[1]);
    uint8_t eight[8] = {};
    EXPECT_FALSE(Manager()->GetData(ADJUST_CIS_SN, eight, 8));
    EXPECT_FALSE(Manager()->SetData(ADJUST_CIS_SN, eight, 8, true));
}

TEST(AdjustDataManagerTest, DeferredWritesReachNandWithTheNextSyncedWrite)
{
    TestRoot root;
    MakeDeviceDirs(root);
    Manager()->Initialize();
    uint16_t clamp = 0x0BEE;
    uint32_t serial = 77;
    ASSERT_TRUE(Manager()->SetData(ADJUST_CIS_CLAMP_LEVEL, &clamp, 2, false));
    uint16_t seen = 0;
    ASSERT_TRUE(Manager()->GetData(ADJUST_CIS_CLAMP_LEVEL, &seen, 2));
    EXPECT_EQ(clamp, seen) << "a deferred value reads back before the sync";
    ASSERT_TRUE(Manager()->SetData(ADJUST_CIS_SN, &serial, 4, true));

    Restart();
    seen = 0;
    uint32_t serialSeen = 0;
    EXPECT_TRUE(Manager()->GetData(ADJUST_CIS_CLAMP_LEVEL, &seen, 2));
    EXPECT_TRUE(Manager()->GetData(ADJUST_CIS_SN, &serialSeen, 4));
    EXPECT_EQ(clamp, seen);
    EXPECT_EQ(serial, serialSeen);

    const std::string writeLog = root.ReadFile("/mnt/ubi1/log/adj_log.inf");
    EXPECT_NE(std::string::npos, writeLog.find("SetData(): ADJUST_CIS_CLAMP_LEVEL, 2  \n"));
    EXPECT_NE(std::string::npos, writeLog.find("SetData(): done \n"));
    EXPECT_NE(std::string::npos, writeLog.find("SetData(): ADJUST_CIS_SN, 4 [sync] \n"));
    EXPECT_NE(std::string::npos, writeLog.find("SetData(): sync done \n"));
}

TEST(AdjustDataManagerTest, CountryDerivedItemsAreAnsweredFromTheShipmentCountryTable)
{
    TestRoot root;
    MakeDeviceDirs(root);
    Manager()->Initialize();
    SetShipmentCountry(55);

    uint16_t stored = 99;
    ASSERT_TRUE(Manager()->SetData(ADJUST_DEFAULT_LANGUAGE, &stored, 2, true));
    ASSERT_TRUE(Manager()->SetData(ADJUST_5GHZ_WIFI_CONTRY_CODE, const_cast<char*>("XY"), 2, true));
    EXPECT_EQ(Bytes({99, 0}), ItemBytes(ADJUST_DEFAULT_LANGUAGE)) << "the item itself is stored";

    struct Case {
        int country;
        int id;
        uint32_t expected;
    };
    const Case cases[] = {
        {55, ADJUST_DEFAULT_LANGUAGE, 1},   {55, ADJUST_WIFI_SNS_GATEWAY, 3},  {55, ADJUST_DEFAULT_QWERTY, 2},
        {2, ADJUST_DEFAULT_LANGUAGE, 28},   {2, ADJUST_ADDITIONAL_LANGUAGE, 3}, {132, ADJUST_WIFI_SNS_GATEWAY, 1},
        {132, ADJUST_WIFI_COUNTRY_CHANNEL, 11}, {142, ADJUST_WIFI_COUNTRY_CHANNEL, 13}, {0, ADJUST_DEFAULT_QWERTY, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("country " + std::to_string(c.country) + ", item " + std::to_string(c.id));
        SetShipmentCountry(static_cast<uint16_t>(c.country));
        uint32_t value = 0xFFFFFFFF;
        EXPECT_TRUE(Manager()->GetData(c.id, &value, 4));
        EXPECT_EQ(c.expected, value);
    }

    const struct {
        int country;
        const char* code;
    } codes[] = {{55, "KR"}, {2, "AL"}, {132, "US"}, {0, "00"}};
    for (const auto& c : codes) {
        SetShipmentCountry(static_cast<uint16_t>(c.country));
        char text[8];
        std::memset(text, 'Z', sizeof(text));
        EXPECT_TRUE(Manager()->GetData(ADJUST_5GHZ_WIFI_CONTRY_CODE, text, sizeof(text))) << c.code;
        EXPECT_STREQ(c.code, text);
        EXPECT_EQ('Z', text[3]) << "no more than the answer is copied";
    }

    // A wide buffer gets four bytes of a numeric answer and nothing more.
    SetShipmentCountry(55);
    uint8_t wide[8];
    std::memset(wide, 0xEE, sizeof(wide));
    EXPECT_TRUE(Manager()->GetData(ADJUST_DEFAULT_LANGUAGE, wide, sizeof(wide)));
    EXPECT_EQ(Bytes({1, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE}), Bytes(wide, wide + 8));

    for (int country : {143, 200, 65535}) {
        SCOPED_TRACE("country " + std::to_string(country));
        SetShipmentCountry(static_cast<uint16_t>(country));
        uint8_t untouched[4];
        std::memset(untouched, 0x5A, sizeof(untouched));
        EXPECT_FALSE(Manager()->GetData(ADJUST_DEFAULT_LANGUAGE, untouched, 4));
        EXPECT_FALSE(Manager()->GetData(ADJUST_5GHZ_WIFI_CONTRY_CODE, untouched, 3));
        EXPECT_EQ(Bytes(4, 0x5A), Bytes(untouched, untouched + 4));
    }
}

TEST(AdjustDataManagerTest, LineValuesWorkWithoutInitializeAndResetTogether)
{
    TestRoot root;
    MakeDeviceDirs(root);
    int32_t value = 5;
    int32_t seen = 0;
    EXPECT_TRUE(Manager()->GetData(139, &seen, 4)) << "line data need no Initialize";
    EXPECT_EQ(0, seen);

    ASSERT_TRUE(Manager()->SetData(135, &value, 4, true));
    value = -7;
    ASSERT_TRUE(Manager()->SetData(137, &value, 4, false));
    ASSERT_TRUE(Manager()->GetData(137, &seen, 4));
    EXPECT_EQ(-7, seen) << "an unsaved line value reads back";
    value = 1;
    ASSERT_TRUE(Manager()->SetData(143, &value, 4, true));
    EXPECT_EQ(1, pref_get_long(1, 44));
    EXPECT_EQ(5, pref_get_long(1, 12));
    EXPECT_FALSE(Manager()->SetData(139, &value, 2, true)) << "line values are 4 bytes";
    EXPECT_FALSE(Manager()->GetData(139, &seen, 2));

    const std::string writeLog = root.ReadFile("/mnt/ubi1/log/adj_log.inf");
    EXPECT_NE(std::string::npos, writeLog.find("SetData(): LINE_CONTROL_NEXT_STEP, 4 value = 5 [sync] \n"));
    EXPECT_EQ(std::string::npos, writeLog.find("value = -7")) << "id 137 is not logged";

    EXPECT_TRUE(Manager()->ResetData(140));
    for (int id = 134; id < 144; ++id) {
        seen = 99;
        EXPECT_TRUE(Manager()->GetData(id, &seen, 4));
        EXPECT_EQ(0, seen) << "line id " << id;
    }
}

TEST(AdjustDataManagerTest, ResetDataWritesTheDefaultOrResetsTheWholeGroupOnce)
{
    TestRoot root;
    MakeDeviceDirs(root);
    Manager()->Initialize();
    uint16_t pulses = 400;
    ASSERT_TRUE(Manager()->SetData(ADJUST_PS_PULSE_COUNT, &pulses, 2, true));
    ASSERT_TRUE(Manager()->ResetData(ADJUST_PS_PULSE_COUNT));
    EXPECT_EQ(DefaultBytes(ADJUST_PS_PULSE_COUNT), ItemBytes(ADJUST_PS_PULSE_COUNT));

    // Without items the whole adjust group goes back to its defaults, on NAND too.
    uint32_t serial = 1234;
    ASSERT_TRUE(Manager()->SetData(ADJUST_CIS_SN, &serial, 4, true));
    Manager()->Finalize();
    const int saves = pref_sim_save_count(kAdjustGroup);
    EXPECT_TRUE(Manager()->ResetData(ADJUST_CIS_SN));
    EXPECT_EQ(saves + 1, pref_sim_save_count(kAdjustGroup));
    EXPECT_EQ(0, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_TRUE(Manager()->ResetData(ADJUST_CIS_SN)) << "the second time only reports";
    EXPECT_EQ(saves + 1, pref_sim_save_count(kAdjustGroup));

    Restart();
    EXPECT_EQ(kFreshHeaderBytes, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(DefaultBytes(ADJUST_CIS_SN), ItemBytes(ADJUST_CIS_SN));
}

TEST(AdjustDataManagerTest, AreasThatCannotBeMountedAreRebuilt)
{
    struct Case {
        const char* name;
        long headerLength;
        long bodyLength;
        uint32_t record7Offset;
    };
    const Case cases[] = {
        {"header past its capacity", 51340, 100, 0},
        {"negative body", 280, -4, 0},
        {"empty body under records", 280, 0, 0},
        {"body past its capacity", 280, 5242881, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TestRoot root;
        MakeDeviceDirs(root);
        Manager()->Finalize();
        WriteStore(CatalogueWithPatterns());
        pref_set_long(kAdjustGroup, kHeaderLengthAt, c.headerLength);
        pref_set_long(kAdjustGroup, kBodyLengthAt, c.bodyLength);
        if (c.record7Offset != 0) pref_set_bytes(kAdjustGroup, kHeaderAt + kRecordSize * 7 + 128, &c.record7Offset, 4);
        pref_save(kAdjustGroup);
        pref_sim_forget_images();
        const unsigned long assertions = pm::AssertionCount();
        Manager()->Initialize();
        EXPECT_EQ(assertions, pm::AssertionCount());
        EXPECT_EQ(kFreshHeaderBytes, pref_get_long(kAdjustGroup, kHeaderLengthAt));
        EXPECT_EQ(kFreshBodyBytes, pref_get_long(kAdjustGroup, kBodyLengthAt));
        EXPECT_EQ("", LayoutProblem());
        EXPECT_EQ(DefaultBytes(ADJUST_CIS_CLAMP_LEVEL), ItemBytes(ADJUST_CIS_CLAMP_LEVEL));
    }
}

TEST(AdjustDataManagerTest, CorruptMarkerStillLoadsTheItems)
{
    TestRoot root;
    MakeDeviceDirs(root);
    WriteStore(CatalogueWithPatterns());
    const uint8_t broken = 0;
    pref_set_bytes(kAdjustGroup, 8, &broken, 1);
    pref_save(kAdjustGroup);
    pref_sim_forget_images();

    Manager()->Initialize();
    EXPECT_EQ(Pattern(ADJUST_CIS_SN, 4), ItemBytes(ADJUST_CIS_SN));
}

TEST(AdjustDataManagerTest, ConcurrentCallersNeverSeeATornValue)
{
    TestRoot root;
    MakeDeviceDirs(root);
    Manager()->Initialize();
    // Every value written is one byte repeated over the whole 32-byte item, so a value
    // read while another thread writes shows up as mixed bytes.
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    std::atomic<int> torn{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &torn, &failed] {
            uint8_t value[32];
            uint8_t seen[32];
            for (int round = 0; round < kRounds; ++round) {
                std::memset(value, (t * kRounds + round) & 0xFF, sizeof(value));
                if (!Manager()->SetData(ADJUST_CIS_LOT_NUMBER, value, sizeof(value), false)) ++failed;
                // Now and then a synced write of another item carries the pending value out.
                uint8_t mark = static_cast<uint8_t>(t);
                if (round % 50 == 0 && !Manager()->SetData(ADJUST_CHECKSUM2, &mark, 1, true)) ++failed;
                if (!Manager()->GetData(ADJUST_CIS_LOT_NUMBER, seen, sizeof(seen))) ++failed;
                for (uint8_t byte : seen)
                    if (byte != seen[0]) {
                        ++torn;
                        break;
                    }
                int32_t step = round;
                if (!Manager()->SetData(136, &step, 4, false)) ++failed;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, torn.load());
    EXPECT_EQ(0, failed.load());

    uint8_t last[32];
    ASSERT_TRUE(Manager()->GetData(ADJUST_CIS_LOT_NUMBER, last, sizeof(last)));
    ASSERT_TRUE(Manager()->SetData(ADJUST_CHECKSUM1, last, 1, true));
    Restart();
    EXPECT_EQ(Bytes(last, last + 32), ItemBytes(ADJUST_CIS_LOT_NUMBER));
}

} // namespace
