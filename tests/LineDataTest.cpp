// The ten line values in preference group 1: keys, loading once, saving, and the
// reports of a wrong id and of a failing store.
#include "LineData.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "pref.h"
#include "pref_sim.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using testing::HasSubstr;
using namespace pm::line;

namespace {

class LineDataTest : public testing::Test {
protected:
    void SetUp() override { pref_sim_reset(); }
    TestRoot root;
    bool loaded = false;
};

TEST_F(LineDataTest, EachIdHasItsOwnKeyAndOnlySavedValuesSurviveARestart)
{
    auto valueOf = [](int id) { return id % 2 == 0 ? id * 1000L : -id; };
    for (int id = 134; id < 144; ++id) {
        EXPECT_EQ(0, readLineData(loaded, id)) << "id " << id;
        ASSERT_TRUE(writeLineData(loaded, id, valueOf(id), false)) << "id " << id;
        EXPECT_EQ(8ul + 4ul * (id - 134), getLineDataOffset(id)) << "id " << id;
    }
    for (int id = 134; id < 144; ++id) {
        EXPECT_EQ(valueOf(id), readLineData(loaded, id)) << "id " << id;
        EXPECT_EQ(valueOf(id), pref_get_long(1, 8 + 4 * (id - 134))) << "id " << id;
    }
    EXPECT_EQ(0, pref_get_long(1, 0) | pref_get_long(1, 4)) << "the first 8 bytes are not line data";
    EXPECT_EQ(0, pref_sim_save_count(1)) << "nothing saved without save";
    ASSERT_TRUE(writeLineData(loaded, 135, 12, true));
    EXPECT_EQ(1, pref_sim_save_count(1));
    ASSERT_TRUE(writeLineData(loaded, 139, 1, false));
    pref_sim_forget_images();
    loaded = false;
    EXPECT_EQ(12, readLineData(loaded, 135));
    EXPECT_EQ(valueOf(137), readLineData(loaded, 137)) << "saved together with 135";
    EXPECT_EQ(valueOf(139), readLineData(loaded, 139)) << "1 was never saved";
    EXPECT_EQ(0ul, pm::AssertionCount());
}

TEST_F(LineDataTest, WrongLineIdIsReportedAndTouchesNothing)
{
    ASSERT_TRUE(writeLineData(loaded, 143, 77, false));
    for (int id : {144, 133, 0, -1, 1000}) {
        SCOPED_TRACE("id " + std::to_string(id));
        const unsigned long before = pm::AssertionCount();
        testing::internal::CaptureStdout();
        EXPECT_EQ(0, readLineData(loaded, id));
        EXPECT_FALSE(writeLineData(loaded, id, 5, true));
        EXPECT_EQ(0ul, getLineDataOffset(id));
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    testing::AllOf(HasSubstr("Wrong Line ID " + std::to_string(id)),
                                   HasSubstr("Assertion Failed! --- File lib/production-util/src/LineData.cpp")));
        EXPECT_EQ(before + 3, pm::AssertionCount());
    }
    EXPECT_EQ(77, readLineData(loaded, 143));
    EXPECT_EQ(0, pref_get_long(1, 0) | pref_get_long(1, 48));
    EXPECT_EQ(0, pref_sim_save_count(1));
}

TEST_F(LineDataTest, StoreFailuresAreReportedAndLeaveADefinedResult)
{
    pref_sim_fail_next(PREF_SIM_OP_LOAD, 1);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(writeLineData(loaded, 136, 9, false));
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::AllOf(HasSubstr("Error to load PREF_ID_LINE"), HasSubstr("Assertion Failed!")));
    EXPECT_FALSE(loaded);
    EXPECT_TRUE(writeLineData(loaded, 136, 9, false)) << "the next access loads again";
    pref_sim_fail_next(PREF_SIM_OP_LOAD, 1);
    EXPECT_EQ(9, readLineData(loaded, 136)) << "loaded once: the failing load is never reached";

    pref_sim_reset();
    pref_sim_fail_next(PREF_SIM_OP_SET_LONG, 1);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(writeLineData(loaded, 137, 94, true));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("Error to set Line Data [137, 14]"));
    EXPECT_EQ(0, pref_sim_save_count(1)) << "a failed set is not saved";
    EXPECT_EQ(0, readLineData(loaded, 137));
    pref_sim_fail_next(PREF_SIM_OP_SAVE, 1);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(writeLineData(loaded, 135, 21, true));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("Error to save Line Data [135]"));
    EXPECT_EQ(21, readLineData(loaded, 135)) << "the value stays in memory";
    pref_sim_forget_images();
    loaded = false;
    EXPECT_EQ(0, readLineData(loaded, 135)) << "but never reached NAND";
}

} // namespace
