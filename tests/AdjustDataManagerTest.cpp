// The adjust data manager: a store built from the catalogue, restarts, access by id and
// name, the country table, line data, resets, unmountable areas and concurrent callers.
#include "AdjustStoreImage.h"
#include "PMReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <cstring>
#include <thread>

using namespace adjtest;
using testing::HasSubstr;

namespace {

class AdjustDataManagerTest : public testing::Test {
protected:
    void SetUp() override { MakeDeviceDirs(root); }
    std::string writeLog() const { return root.ReadFile("/mnt/ubi1/log/adj_log.inf"); }
    void setCountry(uint16_t code) { ASSERT_TRUE(manager->SetData(ADJUST_SHIPMENT_COUNTRY, &code, 2, true)); }

    TestRoot root;
    CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
};

TEST_F(AdjustDataManagerTest, FreshStoreFollowsTheCatalogueAndARestartKeepsEveryValueWritingNothing)
{
    manager->Initialize();
    EXPECT_EQ(kFreshHeaderBytes, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(kFreshBodyBytes, pref_get_long(kAdjustGroup, kBodyLengthAt));
    EXPECT_EQ("", StoreProblem(ExpectedValues({})));
    auto oldOffset = [&](int id) { return manager->find(id)->Infomation(CAdjustData::ADJ_INFO_OLD_OFFSET); };
    EXPECT_EQ(320, oldOffset(114));
    EXPECT_EQ(8720, oldOffset(115));
    EXPECT_EQ(2388720, oldOffset(116));
    char code[3] = {};
    ASSERT_TRUE(manager->GetData(ADJUST_5GHZ_WIFI_CONTRY_CODE, code, sizeof(code)));
    EXPECT_STREQ("00", code);

    uint16_t clamp = 0x0BEE;
    ASSERT_TRUE(manager->SetData(ADJUST_CIS_CLAMP_LEVEL, &clamp, 2, false));
    uint16_t seen = 0;
    ASSERT_TRUE(manager->GetData(ADJUST_CIS_CLAMP_LEVEL, &seen, 2));
    EXPECT_EQ(clamp, seen) << "a deferred value reads back before the sync";
    uint32_t serial = 0x12345678;
    ASSERT_TRUE(manager->SetData(ADJUST_CIS_SN, &serial, 4, true));
    const int saves = pref_sim_save_count(kAdjustGroup);
    const std::string changeLog = root.ReadFile("/adj/AdjLog.txt");
    const std::string writeLogBefore = writeLog();
    Restart();
    EXPECT_EQ(saves, pref_sim_save_count(kAdjustGroup));
    EXPECT_EQ(changeLog, root.ReadFile("/adj/AdjLog.txt"));
    EXPECT_EQ(writeLogBefore, writeLog());
    EXPECT_THAT(changeLog, HasSubstr("#New ADJUST_GYRO_DSP_THERM\n"));
    EXPECT_THAT(writeLogBefore,
                testing::AllOf(HasSubstr("makeAdjustHeaderInfo(): start [sync] \n"),
                               HasSubstr("makeAdjustHeaderInfo(): sync done \n"),
                               HasSubstr("SetData(): ADJUST_CIS_CLAMP_LEVEL, 2  \n"), HasSubstr("SetData(): done \n"),
                               HasSubstr("SetData(): ADJUST_CIS_SN, 4 [sync] \n"), HasSubstr("SetData(): sync done \n")));

    std::map<int, Bytes> expected = ExpectedValues({});
    expected[ADJUST_CIS_CLAMP_LEVEL] = {0xEE, 0x0B};
    expected[ADJUST_CIS_SN] = {0x78, 0x56, 0x34, 0x12};
    EXPECT_EQ("", StoreProblem(expected));
    const std::set<int> countryDerived = {70, 71, 72, 73, 74, 75, 76, 95, 96, 97, 98, 101};
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) {
        SCOPED_TRACE("item " + std::to_string(id));
        EXPECT_EQ(0, manager->find(id)->Infomation(CAdjustData::ADJ_INFO_CHANGED));
        EXPECT_EQ(id, manager->find(id)->Infomation(CAdjustData::ADJ_INFO_ID));
        if (countryDerived.count(id) != 0) continue;
        Bytes read(expected[id].size(), 0xAA);
        EXPECT_TRUE(manager->GetData(id, read.data(), read.size()));
        EXPECT_EQ(expected[id], read);
    }
}

TEST_F(AdjustDataManagerTest, ItemsAreFoundByIdOrNameAndBadIdsOrLengthsAreRefused)
{
    uint8_t buffer[8] = {};
    EXPECT_FALSE(manager->GetData(ADJUST_CIS_SN, buffer, 4)) << "before Initialize";
    EXPECT_FALSE(manager->SetData(ADJUST_CIS_SN, buffer, 4, false)) << "before Initialize";
    manager->Initialize();
    EXPECT_EQ(nullptr, manager->find(133));
    EXPECT_EQ(nullptr, manager->find(-1));
    EXPECT_EQ(nullptr, manager->find("ADJUST_NO_SUCH_ITEM"));
    EXPECT_EQ(manager->find(ADJUST_CIS_SN), manager->find("ADJUST_CIS_SN"));
    EXPECT_FALSE(manager->GetData(-1, buffer, 1));
    EXPECT_FALSE(manager->GetData(133, buffer, 1));
    EXPECT_FALSE(manager->SetData(133, buffer, 1, true));
    uint32_t serial = 0xA1B2C3D4;
    ASSERT_TRUE(manager->SetData(ADJUST_CIS_SN, &serial, 4, true));
    EXPECT_TRUE(manager->GetData(ADJUST_CIS_SN, buffer, 2)) << "a 4-byte item gives its first two bytes";
    EXPECT_EQ(Bytes({0xD4, 0xC3, 0}), Bytes(buffer, buffer + 3));
    EXPECT_FALSE(manager->GetData(ADJUST_CIS_SN, buffer, 8)) << "more than the item holds";
    EXPECT_FALSE(manager->SetData(ADJUST_CIS_SN, buffer, 8, true));
}

TEST_F(AdjustDataManagerTest, CountryDerivedItemsAreAnsweredFromTheShipmentCountryTable)
{
    manager->Initialize();
    setCountry(55);
    uint16_t stored = 99;
    ASSERT_TRUE(manager->SetData(ADJUST_DEFAULT_LANGUAGE, &stored, 2, true));
    ASSERT_TRUE(manager->SetData(ADJUST_5GHZ_WIFI_CONTRY_CODE, const_cast<char*>("XY"), 2, true));
    EXPECT_EQ(Bytes({99, 0}), ItemBytes(ADJUST_DEFAULT_LANGUAGE)) << "the item itself is stored";

    const struct {
        int country;
        int id; // ADJUST_5GHZ_WIFI_CONTRY_CODE answers text, the others a 4-byte number
        uint32_t number;
        const char* text;
    } cases[] = {
        {55, ADJUST_DEFAULT_LANGUAGE, 1, ""},          {55, ADJUST_WIFI_SNS_GATEWAY, 3, ""},
        {55, ADJUST_DEFAULT_QWERTY, 2, ""},            {2, ADJUST_DEFAULT_LANGUAGE, 28, ""},
        {2, ADJUST_ADDITIONAL_LANGUAGE, 3, ""},        {132, ADJUST_WIFI_SNS_GATEWAY, 1, ""},
        {132, ADJUST_WIFI_COUNTRY_CHANNEL, 11, ""},    {142, ADJUST_WIFI_COUNTRY_CHANNEL, 13, ""},
        {0, ADJUST_DEFAULT_QWERTY, 1, ""},             {55, ADJUST_5GHZ_WIFI_CONTRY_CODE, 0, "KR"},
        {2, ADJUST_5GHZ_WIFI_CONTRY_CODE, 0, "AL"},    {132, ADJUST_5GHZ_WIFI_CONTRY_CODE, 0, "US"},
        {0, ADJUST_5GHZ_WIFI_CONTRY_CODE, 0, "00"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("country " + std::to_string(c.country) + ", item " + std::to_string(c.id));
        setCountry(static_cast<uint16_t>(c.country));
        Bytes expected(8, 0xEE); // a wide buffer gets the answer and nothing more
        if (*c.text != '\0') std::memcpy(expected.data(), c.text, 3);
        else std::memcpy(expected.data(), &c.number, 4);
        Bytes answer(8, 0xEE);
        EXPECT_TRUE(manager->GetData(c.id, answer.data(), answer.size()));
        EXPECT_EQ(expected, answer);
    }
    for (int country : {143, 200, 65535}) {
        SCOPED_TRACE("country " + std::to_string(country));
        setCountry(static_cast<uint16_t>(country));
        Bytes untouched(4, 0x5A);
        EXPECT_FALSE(manager->GetData(ADJUST_DEFAULT_LANGUAGE, untouched.data(), 4));
        EXPECT_FALSE(manager->GetData(ADJUST_5GHZ_WIFI_CONTRY_CODE, untouched.data(), 3));
        EXPECT_EQ(Bytes(4, 0x5A), untouched);
    }
}

TEST_F(AdjustDataManagerTest, LineValuesWorkWithoutInitializeAndResetTogether)
{
    int32_t value = 5, seen = 0;
    EXPECT_TRUE(manager->GetData(139, &seen, 4)) << "line data need no Initialize";
    EXPECT_EQ(0, seen);
    ASSERT_TRUE(manager->SetData(135, &value, 4, true));
    value = -7;
    ASSERT_TRUE(manager->SetData(137, &value, 4, false));
    ASSERT_TRUE(manager->GetData(137, &seen, 4));
    EXPECT_EQ(-7, seen) << "an unsaved line value reads back";
    value = 1;
    ASSERT_TRUE(manager->SetData(143, &value, 4, true));
    EXPECT_EQ(1, pref_get_long(1, 44));
    EXPECT_EQ(5, pref_get_long(1, 12));
    EXPECT_FALSE(manager->SetData(139, &value, 2, true)) << "line values are 4 bytes";
    EXPECT_FALSE(manager->GetData(139, &seen, 2));
    EXPECT_THAT(writeLog(), HasSubstr("SetData(): LINE_CONTROL_NEXT_STEP, 4 value = 5 [sync] \n"));
    EXPECT_THAT(writeLog(), testing::Not(HasSubstr("value = -7"))) << "id 137 is not logged";
    EXPECT_TRUE(manager->ResetData(140));
    for (int id = 134; id < 144; ++id) {
        seen = 99;
        EXPECT_TRUE(manager->GetData(id, &seen, 4));
        EXPECT_EQ(0, seen) << "line id " << id;
    }
}

TEST_F(AdjustDataManagerTest, ResetDataWritesTheDefaultOrResetsTheWholeGroupOnce)
{
    manager->Initialize();
    uint16_t pulses = 400;
    ASSERT_TRUE(manager->SetData(ADJUST_PS_PULSE_COUNT, &pulses, 2, true));
    ASSERT_TRUE(manager->ResetData(ADJUST_PS_PULSE_COUNT));
    EXPECT_EQ(DefaultBytes(ADJUST_PS_PULSE_COUNT), ItemBytes(ADJUST_PS_PULSE_COUNT));

    // Without items the whole adjust group goes back to its defaults, on NAND too.
    uint32_t serial = 1234;
    ASSERT_TRUE(manager->SetData(ADJUST_CIS_SN, &serial, 4, true));
    manager->Finalize();
    const int saves = pref_sim_save_count(kAdjustGroup);
    EXPECT_TRUE(manager->ResetData(ADJUST_CIS_SN));
    EXPECT_EQ(saves + 1, pref_sim_save_count(kAdjustGroup));
    EXPECT_EQ(0, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_TRUE(manager->ResetData(ADJUST_CIS_SN)) << "the second time only reports";
    EXPECT_EQ(saves + 1, pref_sim_save_count(kAdjustGroup));
    Restart();
    EXPECT_EQ(kFreshHeaderBytes, pref_get_long(kAdjustGroup, kHeaderLengthAt));
    EXPECT_EQ(DefaultBytes(ADJUST_CIS_SN), ItemBytes(ADJUST_CIS_SN));
}

TEST_F(AdjustDataManagerTest, AreasThatCannotBeMountedAreRebuiltAndACorruptMarkerIsNot)
{
    const struct {
        const char* name;
        long headerLength;
        long bodyLength;
    } cases[] = {
        {"header past its capacity", 51340, 100}, {"negative body", 280, -4},
        {"empty body under records", 280, 0},      {"body past its capacity", 280, 5242881},
        {"marker byte cleared", -1, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        manager->Finalize();
        WriteStore(CatalogueWithPatterns());
        const uint8_t cleared = 0;
        if (c.headerLength < 0) pref_set_bytes(kAdjustGroup, 8, &cleared, 1);
        if (c.headerLength >= 0) pref_set_long(kAdjustGroup, kHeaderLengthAt, c.headerLength);
        if (c.headerLength >= 0) pref_set_long(kAdjustGroup, kBodyLengthAt, c.bodyLength);
        pref_save(kAdjustGroup);
        pref_sim_forget_images();
        const unsigned long assertions = pm::AssertionCount();
        manager->Initialize();
        EXPECT_EQ(assertions, pm::AssertionCount());
        const std::vector<StoredItem> kept = c.headerLength < 0 ? CatalogueWithPatterns() : std::vector<StoredItem>{};
        EXPECT_EQ("", StoreProblem(ExpectedValues(kept)));
    }
}

TEST_F(AdjustDataManagerTest, ConcurrentCallersNeverSeeATornValue)
{
    manager->Initialize();
    // Every value written is one byte over the whole 32-byte item: a read during a write
    // would show mixed bytes. Now and then a synced write of another item saves it.
    constexpr int kRounds = 300;
    std::atomic<int> torn{0}, failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &torn, &failed, this] {
            uint8_t value[32], seen[32], mark = static_cast<uint8_t>(t);
            for (int32_t round = 0; round < kRounds; ++round) {
                std::memset(value, (t * kRounds + round) & 0xFF, sizeof(value));
                failed += !manager->SetData(ADJUST_CIS_LOT_NUMBER, value, sizeof(value), false);
                if (round % 50 == 0) failed += !manager->SetData(ADJUST_CHECKSUM2, &mark, 1, true);
                failed += !manager->GetData(ADJUST_CIS_LOT_NUMBER, seen, sizeof(seen));
                torn += Bytes(seen, seen + 32) != Bytes(32, seen[0]);
                failed += !manager->SetData(136, &round, 4, false);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, torn.load());
    EXPECT_EQ(0, failed.load());
    uint8_t last[32];
    ASSERT_TRUE(manager->GetData(ADJUST_CIS_LOT_NUMBER, last, sizeof(last)));
    ASSERT_TRUE(manager->SetData(ADJUST_CHECKSUM1, last, 1, true));
    Restart();
    EXPECT_EQ(Bytes(last, last + 32), ItemBytes(ADJUST_CIS_LOT_NUMBER));
}

} // namespace
