// The adjust data after a failure: a write that was not saved is never acknowledged, a
// half-done re-arrangement never reaches NAND, broken records keep every value they can,
// and a fault at any file operation (an I/O error, or power lost there) leaves NAND
// holding one whole image and every acknowledged value.
#include "AdjustStoreImage.h"
#include "CAdjustData.h"
#include "CAdjustDataManager.h"
#include "FileFaults.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "pref.h"
#include "pref_sim.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>

using namespace adjtest;

namespace {

CAdjustDataManager* Manager()
{
    return CAdjustDataManager::GetInstance();
}

size_t Occurrences(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

std::string NandImage(const TestRoot& root)
{
    char path[256];
    pref_sim_nand_path(kAdjustGroup, path, sizeof path);
    return root.ReadFile(path);
}

std::map<int, Bytes> CatalogueValues()
{
    return ExpectedValues(CatalogueWithPatterns());
}

// A store of another software version: one unknown item to delete, one item stored
// shorter than the catalogue says (it grows), one row missing (it is added).
std::vector<StoredItem> StoreNeedingEveryKindOfChange()
{
    std::vector<StoredItem> stored = CatalogueWithPatterns();
    stored.erase(stored.begin() + ADJUST_CIS_CLAMP_LEVEL);
    stored[ADJUST_CIS_SN].bytes = Bytes{7, 7};
    stored.insert(stored.begin() + 5, StoredItem{"ADJUST_RETIRED_TABLE", Bytes(24, 0xC5)});
    return stored;
}

void ExpectSyncedWriteSurvivesARestart()
{
    uint32_t value = 0xC0FFEE;
    ASSERT_TRUE(Manager()->SetData(ADJUST_CIS_SN, &value, 4, true));
    Restart();
    EXPECT_EQ(Bytes({0xEE, 0xFF, 0xC0, 0}), ItemBytes(ADJUST_CIS_SN));
}

TEST(AdjustRecoveryTest, SyncedWriteThatIsNotSavedAnswersFalseAndLeavesTheSavedValue)
{
    TestRoot root;
    MakeDeviceDirs(root);
    WriteStore(CatalogueWithPatterns());
    pref_sim_forget_images();
    Manager()->Initialize();

    struct Case {
        const char* name;
        std::function<void()> fault;
    };
    const Case cases[] = {
        {"the save fails once", [] { pref_sim_fail_next(PREF_SIM_OP_SAVE, 1); }},
        {"NAND is full", [] { pref_sim_set_disk_full(1); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const unsigned long assertions = pm::AssertionCount();
        const size_t syncsDone = Occurrences(root.ReadFile("/mnt/ubi1/log/adj_log.inf"), "SetData(): sync done");
        uint32_t value = 0x5EAD;
        c.fault();
        EXPECT_FALSE(Manager()->SetData(ADJUST_CIS_SN, &value, 4, true));
        pref_sim_set_disk_full(0);
        EXPECT_LT(assertions, pm::AssertionCount());
        EXPECT_EQ(syncsDone, Occurrences(root.ReadFile("/mnt/ubi1/log/adj_log.inf"), "SetData(): sync done"));
        EXPECT_EQ(Pattern(ADJUST_CIS_SN, 4), ItemBytes(ADJUST_CIS_SN)) << "the manager is back on NAND's value";
        Restart();
        EXPECT_EQ("", StoreProblem(CatalogueValues()));
    }

    ExpectSyncedWriteSurvivesARestart();
}

TEST(AdjustRecoveryTest, FreshStoreThatCannotBeSavedIsNotServedUntilItIs)
{
    TestRoot root;
    MakeDeviceDirs(root);
    const unsigned long assertions = pm::AssertionCount();
    // The build and the start again from NAND both fail to save.
    pref_sim_fail_next(PREF_SIM_OP_SAVE, 2);
    Manager()->Initialize();
    EXPECT_LT(assertions, pm::AssertionCount());
    EXPECT_EQ(nullptr, Manager()->find(ADJUST_CIS_SN));
    EXPECT_EQ(std::string::npos, root.ReadFile("/mnt/ubi1/log/adj_log.inf").find("makeAdjustHeaderInfo(): sync done"));
    EXPECT_EQ("", NandImage(root)) << "nothing reached NAND";

    // The next call starts again, and this time the save goes through.
    uint8_t checksum = 0xFF;
    EXPECT_TRUE(Manager()->GetData(ADJUST_CHECKSUM1, &checksum, 1));
    EXPECT_EQ(DefaultBytes(ADJUST_CHECKSUM1)[0], checksum);
    Restart();
    EXPECT_EQ("", StoreProblem(ExpectedValues({})));
}

TEST(AdjustRecoveryTest, BlankRecordIsDeletedAndNeverStopsASave)
{
    TestRoot root;
    MakeDeviceDirs(root);
    std::vector<StoredItem> stored = StoreNeedingEveryKindOfChange();
    stored.insert(stored.begin() + 3, StoredItem{"", Bytes()});
    WriteStore(stored);
    pref_sim_forget_images();
    const unsigned long assertions = pm::AssertionCount();
    Manager()->Initialize();
    EXPECT_EQ(assertions, pm::AssertionCount());
    EXPECT_EQ("", StoreProblem(ExpectedValues(stored)));

    ExpectSyncedWriteSurvivesARestart();
}

TEST(AdjustRecoveryTest, RecordPastTheBodyLosesOnlyItsOwnValue)
{
    TestRoot root;
    MakeDeviceDirs(root);
    root.WriteFile("/mnt/mmc/.keep", "");
    // The body's length word is 2 bytes short: only the last item is incomplete.
    WriteStore(CatalogueWithPatterns());
    pref_set_long(kAdjustGroup, kBodyLengthAt, kFreshBodyBytes - 2);
    pref_save(kAdjustGroup);
    pref_sim_forget_images();
    const std::string nand = NandImage(root);

    const int saves = pref_sim_save_count(kAdjustGroup);
    Manager()->Initialize();
    EXPECT_EQ(saves, pref_sim_save_count(kAdjustGroup)) << "sizes match the catalogue: nothing is written";
    for (int id = 0; id < ADJUST_GYRO_DSP_THERM; ++id) EXPECT_EQ(Pattern(id, ADJUST_DATA_LIST[id].size), ItemBytes(id)) << id;
    Bytes last(ADJUST_DATA_LIST[ADJUST_GYRO_DSP_THERM].size);
    EXPECT_FALSE(Manager()->GetData(ADJUST_GYRO_DSP_THERM, last.data(), last.size()));
    EXPECT_FALSE(Manager()->SetData(ADJUST_GYRO_DSP_THERM, last.data(), last.size(), true));
    EXPECT_EQ(saves, pref_sim_save_count(kAdjustGroup)) << "a write that could not be done saves nothing";

    // A dump of it, loaded on a camera with values of its own, brings the dump's values.
    std::string dump = "/mnt/mmc/short.dump";
    ASSERT_TRUE(Manager()->DumpData2File(dump.data()));
    Manager()->Finalize();
    WriteStore({});
    pref_sim_forget_images();
    Manager()->Initialize();
    ASSERT_TRUE(Manager()->LoadDataFromFile(dump.data()));
    Restart();
    for (int id = 0; id < ADJUST_GYRO_DSP_THERM; ++id) EXPECT_EQ(Pattern(id, ADJUST_DATA_LIST[id].size), ItemBytes(id)) << id;
}

TEST(AdjustRecoveryTest, LayoutThatCannotBeReArrangedIsLeftOnNandAndALoadOfItKeepsTheCamerasData)
{
    struct Case {
        const char* name;
        std::function<void()> breakIt;
    };
    const Case cases[] = {
        {"the last record reaches past the body",
         [] {
             WriteStore(StoreNeedingEveryKindOfChange());
             pref_set_long(kAdjustGroup, kBodyLengthAt, pref_get_long(kAdjustGroup, kBodyLengthAt) - 2);
         }},
        {"a growing item would push the body past its capacity",
         [] {
             // A 2.4 MB table stored as 1 byte, and a retired table after it that goes
             // only once the table has grown: on the way the body would be one byte
             // longer than its area, over the group's second marker.
             std::vector<StoredItem> stored = CatalogueWithPatterns();
             stored[ADJUST_CAPTURE_LTE_DEFECT_PIXEL_ADR].bytes = Bytes{1};
             const size_t retired = 5242880 + 1 - static_cast<size_t>(kFreshBodyBytes);
             stored.push_back(StoredItem{"ADJUST_RETIRED_TABLE", Bytes(retired, 0xC5)});
             WriteStore(stored);
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TestRoot root;
        MakeDeviceDirs(root);
        root.WriteFile("/mnt/mmc/.keep", "");
        Manager()->Finalize();
        c.breakIt();
        pref_save(kAdjustGroup);
        std::string broken = "/mnt/mmc/broken.dump";
        ASSERT_EQ(0, pref_save_to_file(kAdjustGroup, broken.c_str()));
        pref_sim_forget_images();
        const std::string nand = NandImage(root);

        const unsigned long assertions = pm::AssertionCount();
        Manager()->Initialize();
        EXPECT_LT(assertions, pm::AssertionCount());
        EXPECT_EQ(nand, NandImage(root)) << "nothing is written";
        uint32_t serial = 0;
        EXPECT_FALSE(Manager()->GetData(ADJUST_CIS_SN, &serial, 4));
        EXPECT_FALSE(Manager()->ResetData(ADJUST_CIS_SN)) << "a store that cannot start is not reset whole";
        EXPECT_EQ(nand, NandImage(root));

        // A camera with good data refuses the broken file and keeps its own.
        Manager()->Finalize();
        WriteStore(CatalogueWithPatterns());
        pref_sim_forget_images();
        Manager()->Initialize();
        EXPECT_FALSE(Manager()->LoadDataFromFile(broken.data()));
        EXPECT_EQ("", StoreProblem(CatalogueValues()));
        Restart();
        EXPECT_EQ("", StoreProblem(CatalogueValues()));
    }
}

TEST(AdjustRecoveryTest, CallsThatCannotBeServedAnswerFalseAndTouchNothing)
{
    TestRoot root;
    MakeDeviceDirs(root);
    Manager()->Initialize();
    EXPECT_FALSE(Manager()->GetData(ADJUST_CIS_SN, nullptr, 4));
    EXPECT_FALSE(Manager()->SetData(ADJUST_CIS_SN, nullptr, 4, true));
    EXPECT_TRUE(Manager()->GetData(ADJUST_WIFI_COUNTRY_CODE, nullptr, 0)) << "nothing asked, nothing copied";
    std::string unwritable = "/no/such/dir/adjust.dump";
    EXPECT_FALSE(Manager()->DumpData2File(unwritable.data()));
    pref_sim_fail_next(PREF_SIM_OP_RESET, 1);
    EXPECT_FALSE(Manager()->ResetData(140));

    int32_t value = 0x1234;
    pref_sim_fail_next(PREF_SIM_OP_LOAD, 1);
    EXPECT_FALSE(Manager()->GetData(139, &value, 4));
    EXPECT_EQ(0x1234, value);
    EXPECT_FALSE(Manager()->GetData(144, &value, 4));
    EXPECT_EQ(0x1234, value);
    EXPECT_TRUE(Manager()->GetData(139, &value, 4)) << "the next read loads the group again";
    EXPECT_EQ(0, value);
}

// Fault sweeps. Each point runs the operation on a fresh copy of the same NAND with one
// file operation failing, failing from there on, or the process killed there; then the
// camera restarts and must find one whole image and every acknowledged value.
struct SweepCounts {
    long points = 0;
    long torn = 0;
    long lost = 0;
};

void Report(const char* what, const SweepCounts& counts)
{
    std::cout << what << ": " << counts.points << " fault points, " << counts.torn << " torn images, " << counts.lost
              << " lost values\n";
    EXPECT_GT(counts.points, 10);
    EXPECT_EQ(0, counts.torn);
    EXPECT_EQ(0, counts.lost);
}

// Runs op in a child that is killed at file operation `at`; true when it was.
bool KilledAt(long at, const std::function<void()>& op)
{
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0) {
        filefaults::Arm(filefaults::Action::Kill, at);
        op();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

// Runs op with the fault at file operation `at`: in this process, or in a child killed
// there. False when the child ran to its end before reaching `at`.
bool RunWithFault(filefaults::Action action, long at, const std::function<void()>& op)
{
    if (action == filefaults::Action::Kill) return KilledAt(at, op);
    filefaults::Arm(action, at);
    op();
    filefaults::Disarm();
    return true;
}

// Counts and names the file operations of op.
std::vector<long> PointsOf(const std::function<void()>& op)
{
    filefaults::Arm(filefaults::Action::Count);
    op();
    filefaults::Disarm();
    return filefaults::SweepPoints(filefaults::Names());
}

const filefaults::Action kFaults[] = {filefaults::Action::FailOnce, filefaults::Action::FailFrom,
                                      filefaults::Action::Kill};

TEST(AdjustRecoveryTest, SyncedWriteSurvivesAFaultAtEveryFileOperation)
{
    TestRoot root(true);
    MakeDeviceDirs(root);
    const Bytes writtenBytes{0x0D, 0xF0, 0xA5, 0xA5};
    const uint8_t followUp = 0x42;
    auto prepare = [&] {
        Manager()->Finalize();
        WriteStore(CatalogueWithPatterns());
        pref_sim_forget_images();
        Manager()->Initialize();
    };
    bool answered = false;
    auto op = [&] {
        uint32_t value = 0xA5A5F00D;
        answered = Manager()->SetData(ADJUST_CIS_SN, &value, 4, true);
    };
    prepare();
    const std::string oldImage = NandImage(root);
    const std::vector<long> points = PointsOf(op);
    const std::string newImage = NandImage(root);
    ASSERT_TRUE(answered);

    SweepCounts counts;
    for (filefaults::Action action : kFaults) {
        for (long at : points) {
            prepare();
            answered = false;
            if (!RunWithFault(action, at, op)) continue;
            ++counts.points;
            const std::string nand = NandImage(root);
            if (nand != oldImage && nand != newImage) ++counts.torn;
            if (answered && nand != newImage) {
                ++counts.lost;
                ADD_FAILURE() << "point " << at << ": acknowledged but not on NAND";
            }
            std::map<int, Bytes> expected = CatalogueValues();
            if (nand == newImage) expected[ADJUST_CIS_SN] = writtenBytes;
            if (action != filefaults::Action::Kill) {
                // What the manager serves now is what NAND holds, and a later synced
                // write must not save anything half-done with it.
                Bytes served(4);
                if (!Manager()->GetData(ADJUST_CIS_SN, served.data(), served.size()) || served != expected[ADJUST_CIS_SN]) {
                    ++counts.lost;
                    ADD_FAILURE() << "point " << at << ": the manager serves what NAND does not hold";
                }
                uint8_t value = followUp;
                EXPECT_TRUE(Manager()->SetData(ADJUST_CHECKSUM2, &value, 1, true)) << "point " << at;
                expected[ADJUST_CHECKSUM2] = Bytes{followUp};
            }
            Restart();
            const std::string problem = StoreProblem(expected);
            if (!problem.empty()) {
                ++counts.torn;
                ADD_FAILURE() << "point " << at << ": " << problem;
            }
        }
    }
    Report("synced SetData", counts);
}

TEST(AdjustRecoveryTest, StartUpReArrangementSurvivesAFaultAtEveryFileOperation)
{
    TestRoot root(true);
    MakeDeviceDirs(root);
    const std::vector<StoredItem> stored = StoreNeedingEveryKindOfChange();
    const std::map<int, Bytes> expected = ExpectedValues(stored);
    auto prepare = [&] {
        Manager()->Finalize();
        WriteStore(stored);
        pref_sim_forget_images();
    };
    auto op = [] { Manager()->Initialize(); };
    prepare();
    const std::string oldImage = NandImage(root);
    const std::vector<long> points = PointsOf(op);
    ASSERT_EQ("", StoreProblem(expected));
    const std::string newImage = NandImage(root);

    SweepCounts counts;
    for (filefaults::Action action : kFaults) {
        for (long at : points) {
            prepare();
            if (!RunWithFault(action, at, op)) continue;
            // Whatever the manager serves now is right, or it serves nothing.
            if (action != filefaults::Action::Kill && Manager()->find(ADJUST_CIS_SN) != nullptr
                && !StoreProblem(expected).empty())
                ++counts.lost;
            ++counts.points;
            const std::string nand = NandImage(root);
            if (nand != oldImage && nand != newImage) {
                ++counts.torn;
                ADD_FAILURE() << "point " << at << ": NAND holds neither the old nor the new image";
            }
            Restart();
            const std::string problem = StoreProblem(expected);
            if (!problem.empty()) {
                ++counts.lost;
                ADD_FAILURE() << "point " << at << " after restart: " << problem;
            }
        }
    }
    Report("start-up re-arrangement", counts);
}

} // namespace
