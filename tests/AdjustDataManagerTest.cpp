// The adjust data manager: restarts, access, country table, line values, resets, mounts, dump/load, threads.
#include "AdjustStoreImage.h"
#include "PMReport.h"

#include <atomic>
#include <thread>

using namespace adjtest;
using testing::AllOf;
using testing::HasSubstr;

namespace {

class AdjustDataManagerTest : public testing::Test {
protected:
    void SetUp() override { MakeDeviceDirs(root); }

    std::string writeLog() const { return root.ReadFile("/mnt/ubi1/log/adj_log.inf"); }

    /// A 2.4 MB table written deferred and a serial number synced, both after seed.
    void writeSomeValues(uint8_t seed)
    {
        Bytes table = Pattern(seed, ADJUST_DATA_LIST[ADJUST_CAPTURE_LV1_DEFECT_PIXEL_ADR].size);
        ASSERT_TRUE(manager->SetData(ADJUST_CAPTURE_LV1_DEFECT_PIXEL_ADR, table.data(), table.size(), false));
        ASSERT_TRUE(manager->SetData(ADJUST_CIS_SN, table.data(), 4, true));
    }

    static std::map<int, Bytes> AllItemBytes()
    {
        std::map<int, Bytes> values;
        for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) values[id] = ItemBytes(id);
        return values;
    }

    /// What `run` prints to standard output.
    template <class Run> static std::string Printed(Run run)
    {
        testing::internal::CaptureStdout();
        run();
        return testing::internal::GetCapturedStdout();
    }

    TestRoot root;
    CAdjustDataManager* manager = CAdjustDataManager::GetInstance();
};

TEST_F(AdjustDataManagerTest, FreshStoreSurvivesARestartWritingNothingAndAResetWithoutItemsRestoresTheWholeGroupOnce)
{
    manager->Initialize();
    uint16_t clamp = 0x0BEE;
    ASSERT_TRUE(manager->SetData(ADJUST_CIS_CLAMP_LEVEL, &clamp, 2, false));
    uint32_t serial = 0x12345678;
    ASSERT_TRUE(manager->SetData(ADJUST_CIS_SN, &serial, 4, true));

    const int saves = pref_sim_save_count(PREF_ID_ADJUST);
    const std::string changeLog = root.ReadFile("/adj/AdjLog.txt"), logged = writeLog();
    Restart();
    EXPECT_EQ(saves, pref_sim_save_count(PREF_ID_ADJUST));
    EXPECT_EQ(changeLog, root.ReadFile("/adj/AdjLog.txt"));
    EXPECT_EQ(logged, writeLog());
    EXPECT_THAT(changeLog, HasSubstr("#New ADJUST_GYRO_DSP_THERM\n"));
    EXPECT_THAT(logged, AllOf(HasSubstr("makeAdjustHeaderInfo(): start [sync] \n"), HasSubstr("makeAdjustHeaderInfo(): sync done \n"),
                              HasSubstr("SetData(): ADJUST_CIS_CLAMP_LEVEL, 2  \n"), HasSubstr("SetData(): done \n"),
                              HasSubstr("SetData(): ADJUST_CIS_SN, 4 [sync] \n"), HasSubstr("SetData(): sync done \n")));
    std::map<int, Bytes> expected = ExpectedValues({});
    expected[ADJUST_CIS_CLAMP_LEVEL] = {0xEE, 0x0B};
    expected[ADJUST_CIS_SN] = {0x78, 0x56, 0x34, 0x12};
    EXPECT_EQ("", StoreProblem(expected));
    for (int id = 0; id < ADJUST_DATA_ID_MAX; ++id) EXPECT_EQ(id, manager->find(id)->Infomation(CAdjustData::ADJ_INFO_ID));
    manager->Finalize(); // without items the whole group goes back to its defaults, on NAND too
    const int resetSaves = pref_sim_save_count(PREF_ID_ADJUST);
    EXPECT_TRUE(manager->ResetData(ADJUST_CIS_SN));
    EXPECT_EQ(resetSaves + 1, pref_sim_save_count(PREF_ID_ADJUST));
    EXPECT_EQ(0, pref_get_long(PREF_ID_ADJUST, HEADER_SIZE_OFFSET));
    EXPECT_TRUE(manager->ResetData(ADJUST_CIS_SN)) << "the second time only reports";
    EXPECT_EQ(resetSaves + 1, pref_sim_save_count(PREF_ID_ADJUST));
    Restart();
    EXPECT_EQ("", StoreProblem(ExpectedValues({})));
}

TEST_F(AdjustDataManagerTest, ItemsAreFoundByIdOrNameAndCallsThatCannotBeServedAnswerFalseAndTouchNothing)
{
    uint8_t buffer[8] = {};
    EXPECT_FALSE(manager->GetData(ADJUST_CIS_SN, buffer, 4)) << "before Initialize";
    EXPECT_FALSE(manager->SetData(ADJUST_CIS_SN, buffer, 4, false)) << "before Initialize";
    manager->Initialize();
    for (int id : {133, -1}) EXPECT_EQ(nullptr, manager->find(id)) << id;
    EXPECT_EQ(nullptr, manager->find("ADJUST_NO_SUCH_ITEM"));
    EXPECT_EQ(manager->find(ADJUST_CIS_SN), manager->find("ADJUST_CIS_SN"));
    EXPECT_FALSE(manager->GetData(-1, buffer, 1));
    EXPECT_FALSE(manager->SetData(133, buffer, 1, true));
    EXPECT_FALSE(manager->GetData(ADJUST_CIS_SN, nullptr, 4));
    EXPECT_FALSE(manager->SetData(ADJUST_CIS_SN, nullptr, 4, true));
    EXPECT_TRUE(manager->GetData(ADJUST_WIFI_COUNTRY_CODE, nullptr, 0)) << "nothing asked, nothing copied";
    pref_sim_fail_next(PREF_SIM_OP_RESET, 1);
    EXPECT_FALSE(manager->ResetData(140));
    int32_t value = 0x1234;
    pref_sim_fail_next(PREF_SIM_OP_LOAD, 1);
    EXPECT_FALSE(manager->GetData(139, &value, 4));
    EXPECT_FALSE(manager->GetData(144, &value, 4));
    EXPECT_EQ(0x1234, value);
}

TEST_F(AdjustDataManagerTest, CountryDerivedItemsAreAnsweredFromTheShipmentCountryTable)
{
    manager->Initialize();
    const struct { uint16_t country; int id; Bytes answer; } cases[] = { // an empty answer: refused
        {55, ADJUST_DEFAULT_LANGUAGE, {1, 0, 0, 0}},       {142, ADJUST_WIFI_COUNTRY_CHANNEL, {13, 0, 0, 0}},
        {55, ADJUST_5GHZ_WIFI_CONTRY_CODE, {'K', 'R', 0}}, {143, ADJUST_DEFAULT_LANGUAGE, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("country " + std::to_string(c.country) + ", item " + std::to_string(c.id));
        uint16_t country = c.country;
        ASSERT_TRUE(manager->SetData(ADJUST_SHIPMENT_COUNTRY, &country, 2, true));
        Bytes answer(8, 0xEE), expected = c.answer;
        expected.resize(8, 0xEE); // a wide buffer gets the answer and nothing more
        EXPECT_EQ(!c.answer.empty(), manager->GetData(c.id, answer.data(), answer.size()));
        EXPECT_EQ(expected, answer);
    }
}

TEST_F(AdjustDataManagerTest, LineValuesHaveTheirOwnKeysNeedNoInitializeAndOnlySavedOnesSurvive)
{
    int32_t value = 0;
    EXPECT_TRUE(manager->GetData(139, &value, 4)) << "line values need no Initialize";
    EXPECT_EQ(0, value);
    for (int32_t id = 134; id < 144; ++id) {
        ASSERT_TRUE(manager->SetData(id, &id, 4, false)) << id;
        EXPECT_EQ(id, pref_get_long(1, 8 + 4 * (id - 134))) << id;
    }
    EXPECT_EQ(0, pref_sim_save_count(1)) << "nothing saved without sync";
    value = 12;
    ASSERT_TRUE(manager->SetData(135, &value, 4, true));
    EXPECT_EQ(1, pref_sim_save_count(1));
    value = 1;
    ASSERT_TRUE(manager->SetData(139, &value, 4, false));
    EXPECT_FALSE(manager->SetData(139, &value, 2, true)) << "line values are 4 bytes";
    EXPECT_FALSE(manager->GetData(139, &value, 2));
    EXPECT_THAT(writeLog(), HasSubstr("SetData(): LINE_CONTROL_NEXT_STEP, 4 value = 12 [sync] \n"));
    EXPECT_THAT(writeLog(), testing::Not(HasSubstr("value = 137"))) << "id 137 is not logged";
    Restart();
    for (auto [id, expected] : {std::pair{135, 12}, {139, 139}}) {
        EXPECT_TRUE(manager->GetData(id, &value, 4));
        EXPECT_EQ(expected, value) << id << ": what was saved with 135, not the unsaved 1";
    }
    EXPECT_TRUE(manager->ResetData(140));
    for (int id = 134; id < 144; ++id) {
        EXPECT_TRUE(manager->GetData(id, &value, 4));
        EXPECT_EQ(0, value) << "line id " << id;
    }
    EXPECT_EQ(0ul, pm::AssertionCount());
}

TEST_F(AdjustDataManagerTest, WrongLineIdsAndFailingLineStoreStepsAreReportedAndAnswerFalse)
{
    int32_t value = 9;
    pref_sim_fail_next(PREF_SIM_OP_LOAD, 1);
    EXPECT_THAT(Printed([&] { EXPECT_FALSE(manager->SetData(136, &value, 4, false)); }), HasSubstr("Error to load PREF_ID_LINE"));
    EXPECT_TRUE(manager->SetData(136, &value, 4, true)) << "the next access loads again";
    EXPECT_THAT(Printed([&] { EXPECT_FALSE(manager->SetData(144, &value, 4, true)); }),
                AllOf(HasSubstr("Wrong Line ID 144"), HasSubstr("Assertion Failed! --- File lib/production-util/src/LineData.cpp")));
    pref_sim_fail_next(PREF_SIM_OP_SET_LONG, 1);
    EXPECT_THAT(Printed([&] { EXPECT_FALSE(manager->SetData(137, &value, 4, true)); }),
                HasSubstr("Error to set Line Data [137, 14]"));
    EXPECT_EQ(1, pref_sim_save_count(1)) << "a failed set is not saved";
    EXPECT_TRUE(manager->GetData(137, &value, 4));
    EXPECT_EQ(0, value);
}

TEST_F(AdjustDataManagerTest, AreasThatCannotBeMountedAreRebuiltAndACorruptMarkerIsNot)
{
    const struct { const char* name; long headerLength, bodyLength; } cases[] = { // header -1: the marker byte is cleared
        {"header past its capacity", 51340, 100}, {"body past its capacity", 280, 5242881}, {"marker byte cleared", -1, -1},
        {"only the header empty", 0, 100}, {"only the body empty", 280, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        manager->Finalize();
        WriteStore(CatalogueWithPatterns());
        const uint8_t cleared = 0;
        if (c.headerLength < 0) pref_set_bytes(PREF_ID_ADJUST, 8, &cleared, 1);
        if (c.headerLength >= 0) pref_set_long(PREF_ID_ADJUST, HEADER_SIZE_OFFSET, c.headerLength);
        if (c.headerLength >= 0) pref_set_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET, c.bodyLength);
        pref_save(PREF_ID_ADJUST);
        pref_sim_forget_images();
        const unsigned long assertions = pm::AssertionCount();
        manager->Initialize();
        EXPECT_EQ(assertions, pm::AssertionCount());
        EXPECT_EQ("", StoreProblem(ExpectedValues(c.headerLength < 0 ? CatalogueWithPatterns() : std::vector<StoredItem>{})));
    }
}

TEST_F(AdjustDataManagerTest, LoadGivesBackEveryDumpedValueAndSavesItAndRefusedFilesChangeNothing)
{
    manager->Initialize();
    writeSomeValues(3);
    const std::map<int, Bytes> dumped = AllItemBytes();
    std::string good = "/mnt/ubi1/good.dump", bad = "/mnt/ubi1/bad.dump", missing = "/mnt/ubi1/none.dump";
    ASSERT_TRUE(manager->DumpData2File(good.data()));
    const std::string image = root.ReadFile(good);
    writeSomeValues(9);
    const std::map<int, Bytes> current = AllItemBytes();
    ASSERT_NE(dumped, current);
    std::string flipped = image;
    flipped[flipped.size() / 2] ^= 0x40;
    for (const std::string& content : {image.substr(0, image.size() - 100), flipped, std::string(), std::string("text\n")}) {
        SCOPED_TRACE("a file of " + std::to_string(content.size()) + " bytes");
        manager->Initialize();
        const int saves = pref_sim_save_count(PREF_ID_ADJUST);
        root.WriteFile(bad, content);
        EXPECT_FALSE(manager->LoadDataFromFile(bad.data()));
        EXPECT_EQ(nullptr, manager->find(ADJUST_CIS_SN)) << "the manager is finalised";
        EXPECT_EQ(saves, pref_sim_save_count(PREF_ID_ADJUST));
        manager->Initialize();
        EXPECT_EQ(current, AllItemBytes()) << "the image was left as it was";
    }
    EXPECT_FALSE(manager->LoadDataFromFile(missing.data()));
    EXPECT_FALSE(manager->DumpData2File(nullptr));
    EXPECT_FALSE(manager->LoadDataFromFile(nullptr));
    manager->Initialize();
    ASSERT_TRUE(manager->LoadDataFromFile(good.data()));
    Restart();
    EXPECT_EQ(dumped, AllItemBytes()) << "the loaded group was saved";
    EXPECT_EQ("", LayoutProblem());
}

TEST_F(AdjustDataManagerTest, ConcurrentCallersNeverSeeATornValue)
{
    manager->Initialize();
    // Each write fills the 32-byte item with one byte: a torn read shows mixed bytes.
    std::atomic<int> torn{0}, failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &torn, &failed, this] {
            uint8_t value[32], seen[32], mark = static_cast<uint8_t>(t);
            for (int32_t round = 0; round < 300; ++round) {
                std::memset(value, (t * 300 + round) & 0xFF, sizeof(value));
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
}

} // namespace
