// The ten line values in preference group 1: keys, loading once, saving, and the
// reports of a wrong id and of a failing store.
#include "LineData.h"
#include "LineDataList.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "pref.h"
#include "pref_sim.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class LineDataTest : public testing::Test {
protected:
    void SetUp() override { pref_sim_reset(); }
    void TearDown() override { pref_sim_reset(); }

    TestRoot root;
    bool lineLoaded = false;
};

TEST_F(LineDataTest, EveryLineIdReadsAndWritesItsOwnKey)
{
    for (int id = 134; id < 144; ++id) EXPECT_EQ(0, pm::line::readLineData(lineLoaded, id)) << "case id " << id;
    EXPECT_TRUE(lineLoaded);

    for (int id = 134; id < 144; ++id) {
        const long value = (id % 2 == 0) ? id * 1000L : -id;
        ASSERT_TRUE(pm::line::writeLineData(lineLoaded, id, value, false)) << "case id " << id;
        EXPECT_EQ(8ul + 4ul * (id - 134), pm::line::getLineDataOffset(id)) << "case id " << id;
    }
    for (int id = 134; id < 144; ++id) {
        const long value = (id % 2 == 0) ? id * 1000L : -id;
        EXPECT_EQ(value, pm::line::readLineData(lineLoaded, id)) << "case id " << id;
        EXPECT_EQ(value, pref_get_long(1, 8 + 4 * (id - 134))) << "case id " << id;
    }
    EXPECT_EQ(0, pref_get_long(1, 0)) << "the first 8 bytes are not line data";
    EXPECT_EQ(0, pref_get_long(1, 4));
    EXPECT_EQ(0, pref_sim_save_count(1)) << "nothing saved without save";
    EXPECT_EQ(0ul, pm::AssertionCount());
}

TEST_F(LineDataTest, SavedValuesSurviveARestartUnsavedOnesDoNot)
{
    ASSERT_TRUE(pm::line::writeLineData(lineLoaded, 137, 38, false));
    ASSERT_TRUE(pm::line::writeLineData(lineLoaded, 135, 12, true));
    EXPECT_EQ(1, pref_sim_save_count(1));
    ASSERT_TRUE(pm::line::writeLineData(lineLoaded, 139, 1, false)) << "kept in memory only";

    pref_sim_forget_images();
    lineLoaded = false;
    EXPECT_EQ(12, pm::line::readLineData(lineLoaded, 135));
    EXPECT_EQ(38, pm::line::readLineData(lineLoaded, 137)) << "saved together with 135";
    EXPECT_EQ(0, pm::line::readLineData(lineLoaded, 139)) << "never saved";
}

TEST_F(LineDataTest, WrongLineIdIsReportedAndTouchesNothing)
{
    ASSERT_TRUE(pm::line::writeLineData(lineLoaded, 143, 77, false));
    for (int id : {144, 133, 0, -1, 1000}) {
        SCOPED_TRACE("case id " + std::to_string(id));
        const unsigned long before = pm::AssertionCount();
        testing::internal::CaptureStdout();
        EXPECT_EQ(0, pm::line::readLineData(lineLoaded, id));
        EXPECT_FALSE(pm::line::writeLineData(lineLoaded, id, 5, true));
        EXPECT_EQ(0ul, pm::line::getLineDataOffset(id));
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(std::string::npos, out.find("Wrong Line ID " + std::to_string(id))) << out;
        EXPECT_NE(std::string::npos, out.find("Assertion Failed! --- File lib/production-util/src/LineData.cpp")) << out;
        EXPECT_EQ(before + 3, pm::AssertionCount());
    }
    EXPECT_EQ(77, pm::line::readLineData(lineLoaded, 143));
    EXPECT_EQ(0, pref_get_long(1, 0));
    EXPECT_EQ(0, pref_get_long(1, 48));
    EXPECT_EQ(0, pref_sim_save_count(1));
}

TEST_F(LineDataTest, StoreFailuresAreReportedAndLeaveADefinedResult)
{
    // A group that cannot be loaded: reported, nothing read, the next access loads again.
    pref_sim_fail_next(PREF_SIM_OP_LOAD, 1);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(pm::line::writeLineData(lineLoaded, 136, 9, false));
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("Error to load PREF_ID_LINE")) << out;
    EXPECT_NE(std::string::npos, out.find("Assertion Failed!")) << out;
    EXPECT_FALSE(lineLoaded);
    EXPECT_TRUE(pm::line::writeLineData(lineLoaded, 136, 9, false));
    EXPECT_TRUE(lineLoaded);

    // Loaded once: a later failing load is never reached.
    pref_sim_fail_next(PREF_SIM_OP_LOAD, 1);
    EXPECT_EQ(9, pm::line::readLineData(lineLoaded, 136));
    pref_sim_reset();
    lineLoaded = true;

    pref_sim_fail_next(PREF_SIM_OP_SET_LONG, 1);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(pm::line::writeLineData(lineLoaded, 137, 94, true));
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("Error to set Line Data [137, 14]")) << out;
    EXPECT_EQ(0, pref_sim_save_count(1)) << "a failed set is not saved";
    EXPECT_EQ(0, pm::line::readLineData(lineLoaded, 137));

    pref_sim_fail_next(PREF_SIM_OP_SAVE, 1);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(pm::line::writeLineData(lineLoaded, 135, 21, true));
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("Error to save Line Data [135]")) << out;
    EXPECT_EQ(21, pm::line::readLineData(lineLoaded, 135)) << "the value stays in memory";
    pref_sim_forget_images();
    lineLoaded = false;
    EXPECT_EQ(0, pm::line::readLineData(lineLoaded, 135)) << "but never reached NAND";
}

} // namespace
