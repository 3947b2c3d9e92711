// The adjust data after a failure: nothing unsaved is acknowledged, broken records keep what
// they can, and a fault at any file operation leaves one whole image and every acknowledged value.
#include "AdjustStoreImage.h"
#include "FileFaults.h"
#include "PMReport.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <iostream>

using namespace adjtest;

namespace {

CAdjustDataManager* const manager = CAdjustDataManager::GetInstance();

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

class AdjustRecoveryTest : public testing::Test {
protected:
    void SetUp() override
    {
        MakeDeviceDirs(root);
        root.WriteFile("/mnt/mmc/.keep", "");
    }

    std::string nandImage() const
    {
        char path[256];
        pref_sim_nand_path(kAdjustGroup, path, sizeof path);
        return root.ReadFile(path);
    }

    /// Finalises the manager and puts a store of these items on NAND (not yet started).
    static void PutOnNand(const std::vector<StoredItem>& items)
    {
        manager->Finalize();
        WriteStore(items);
        pref_sim_forget_images();
    }

    // Runs op (after prepare) clean, then with each fault point of its file operations
    // failing once, failing from there on, or killing the process. NAND must hold the old
    // or the new image; check(killed, newImage) judges the rest.
    void Sweep(const std::function<void()>& prepare, const std::function<void()>& op,
               const std::function<void(bool killed, bool newImage)>& check)
    {
        using filefaults::Action;
        prepare();
        const std::string oldImage = nandImage();
        filefaults::Arm(Action::Count);
        op();
        filefaults::Disarm();
        const std::vector<long> points = filefaults::SweepPoints(filefaults::Names());
        const std::string newImage = nandImage();
        check(false, true);
        long runs = 0;
        for (Action action : {Action::FailOnce, Action::FailFrom, Action::Kill}) {
            for (long at : points) {
                SCOPED_TRACE("action " + std::to_string(static_cast<int>(action)) + " at " + std::to_string(at));
                prepare();
                std::cout.flush();
                const pid_t child = action == Action::Kill ? fork() : 0;
                if (child == 0) {
                    filefaults::Arm(action, at);
                    op();
                    filefaults::Disarm();
                    if (action == Action::Kill) _exit(0);
                }
                int status = 0;
                if (child > 0) waitpid(child, &status, 0);
                if (child > 0 && !(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)) continue; // op ended first
                ++runs;
                const std::string nand = nandImage();
                EXPECT_TRUE(nand == oldImage || nand == newImage) << "NAND holds neither the old nor the new image";
                check(action == Action::Kill, nand == newImage);
            }
        }
        EXPECT_GT(runs, 10);
    }

    TestRoot root{true};
};

TEST_F(AdjustRecoveryTest, SyncedWriteThatIsNotSavedAnswersFalseAndLeavesTheSavedValue)
{
    PutOnNand(CatalogueWithPatterns());
    manager->Initialize();
    for (bool diskFull : {false, true}) {
        SCOPED_TRACE(diskFull ? "NAND is full" : "the save fails once");
        const unsigned long assertions = pm::AssertionCount();
        const size_t logged = root.ReadFile("/mnt/ubi1/log/adj_log.inf").size();
        uint32_t value = 0x5EAD;
        pref_sim_fail_next(PREF_SIM_OP_SAVE, diskFull ? 0 : 1);
        pref_sim_set_disk_full(diskFull);
        EXPECT_FALSE(manager->SetData(ADJUST_CIS_SN, &value, 4, true));
        pref_sim_set_disk_full(0);
        EXPECT_EQ(assertions + 1, pm::AssertionCount()) << "the failed save is reported once";
        EXPECT_EQ(std::string::npos, root.ReadFile("/mnt/ubi1/log/adj_log.inf").find("sync done", logged));
        EXPECT_EQ(Pattern(ADJUST_CIS_SN, 4), ItemBytes(ADJUST_CIS_SN)) << "the manager is back on NAND's value";
        Restart();
        EXPECT_EQ("", StoreProblem(ExpectedValues(CatalogueWithPatterns())));
    }
}

TEST_F(AdjustRecoveryTest, FreshStoreThatCannotBeSavedIsNotServedUntilItIs)
{
    const unsigned long assertions = pm::AssertionCount();
    pref_sim_fail_next(PREF_SIM_OP_SAVE, 2); // the build and the start again from NAND
    manager->Initialize();
    EXPECT_LT(assertions, pm::AssertionCount());
    EXPECT_EQ(nullptr, manager->find(ADJUST_CIS_SN));
    EXPECT_EQ(std::string::npos, root.ReadFile("/mnt/ubi1/log/adj_log.inf").find("makeAdjustHeaderInfo(): sync done"));
    EXPECT_EQ("", nandImage()) << "nothing reached NAND";
    uint8_t checksum = 0xFF;
    EXPECT_TRUE(manager->GetData(ADJUST_CHECKSUM1, &checksum, 1)) << "the next call starts again and saves";
    EXPECT_EQ(DefaultBytes(ADJUST_CHECKSUM1)[0], checksum);
    Restart();
    EXPECT_EQ("", StoreProblem(ExpectedValues({})));
}

TEST_F(AdjustRecoveryTest, BlankRecordIsDeletedAndNeverStopsASave)
{
    std::vector<StoredItem> stored = StoreNeedingEveryKindOfChange();
    stored.insert(stored.begin() + 3, StoredItem{"", Bytes()});
    PutOnNand(stored);
    const unsigned long assertions = pm::AssertionCount();
    manager->Initialize();
    EXPECT_EQ(assertions, pm::AssertionCount());
    uint32_t value = 0xC0FFEE;
    ASSERT_TRUE(manager->SetData(ADJUST_CIS_SN, &value, 4, true));
    Restart();
    std::map<int, Bytes> expected = ExpectedValues(stored);
    expected[ADJUST_CIS_SN] = {0xEE, 0xFF, 0xC0, 0};
    EXPECT_EQ("", StoreProblem(expected));
}

TEST_F(AdjustRecoveryTest, RecordPastTheBodyLosesOnlyItsOwnValueAndADumpOfItCarriesTheRest)
{
    // The body's length word is 2 bytes short: only the last item is incomplete.
    PutOnNand(CatalogueWithPatterns());
    pref_set_long(kAdjustGroup, kBodyLengthAt, kFreshBodyBytes - 2);
    pref_save(kAdjustGroup);
    pref_sim_forget_images();
    const int saves = pref_sim_save_count(kAdjustGroup);
    manager->Initialize();
    Bytes last(ADJUST_DATA_LIST[ADJUST_GYRO_DSP_THERM].size);
    EXPECT_FALSE(manager->GetData(ADJUST_GYRO_DSP_THERM, last.data(), last.size()));
    EXPECT_FALSE(manager->SetData(ADJUST_GYRO_DSP_THERM, last.data(), last.size(), true));
    EXPECT_EQ(saves, pref_sim_save_count(kAdjustGroup)) << "sizes match the catalogue, a failed write: nothing saved";
    std::string dump = "/mnt/mmc/short.dump";
    ASSERT_TRUE(manager->DumpData2File(dump.data()));
    PutOnNand({}); // a camera with values of its own
    manager->Initialize();
    ASSERT_TRUE(manager->LoadDataFromFile(dump.data()));
    Restart();
    for (int id = 0; id < ADJUST_GYRO_DSP_THERM; ++id) EXPECT_EQ(Pattern(id, ADJUST_DATA_LIST[id].size), ItemBytes(id)) << id;
}

TEST_F(AdjustRecoveryTest, LayoutThatCannotBeReArrangedIsLeftOnNandAndALoadOfItKeepsTheCamerasData)
{
    // The last record reaching past the body; a 2.4 MB table stored as 1 byte with a
    // retired table after it that goes only once the table has grown, so that on the way
    // the body would be one byte longer than its area (over the group's second marker).
    std::vector<StoredItem> overflowing = CatalogueWithPatterns();
    overflowing[ADJUST_CAPTURE_LTE_DEFECT_PIXEL_ADR].bytes = Bytes{1};
    overflowing.push_back(StoredItem{"ADJUST_RETIRED_TABLE", Bytes(5242881 - kFreshBodyBytes, 0xC5)});
    for (const auto& stored : {StoreNeedingEveryKindOfChange(), overflowing}) {
        SCOPED_TRACE(stored.size());
        PutOnNand(stored);
        if (stored.size() != overflowing.size())
            pref_set_long(kAdjustGroup, kBodyLengthAt, pref_get_long(kAdjustGroup, kBodyLengthAt) - 2);
        std::string broken = "/mnt/mmc/broken.dump";
        ASSERT_EQ(0, pref_save_to_file(kAdjustGroup, broken.c_str()));
        pref_save(kAdjustGroup);
        pref_sim_forget_images();
        const std::string nand = nandImage();
        const unsigned long assertions = pm::AssertionCount();
        manager->Initialize();
        EXPECT_LT(assertions, pm::AssertionCount());
        EXPECT_EQ(nullptr, manager->find(ADJUST_CIS_SN));
        EXPECT_FALSE(manager->ResetData(ADJUST_CIS_SN)) << "a store that cannot start is not reset whole";
        EXPECT_EQ(nand, nandImage()) << "nothing is written";
        PutOnNand(CatalogueWithPatterns()); // a camera with good data refuses the file and keeps its own
        manager->Initialize();
        EXPECT_FALSE(manager->LoadDataFromFile(broken.data()));
        EXPECT_EQ("", StoreProblem(ExpectedValues(CatalogueWithPatterns())));
        Restart();
        EXPECT_EQ("", StoreProblem(ExpectedValues(CatalogueWithPatterns())));
    }
}

TEST_F(AdjustRecoveryTest, SyncedWriteSurvivesAFaultAtEveryFileOperation)
{
    bool answered = false;
    auto prepare = [&] {
        PutOnNand(CatalogueWithPatterns());
        manager->Initialize();
        answered = false;
    };
    auto op = [&] {
        uint32_t value = 0xA5A5F00D;
        answered = manager->SetData(ADJUST_CIS_SN, &value, 4, true);
    };
    Sweep(prepare, op, [&](bool killed, bool newImage) {
        EXPECT_TRUE(newImage || !answered) << "acknowledged but not on NAND";
        std::map<int, Bytes> expected = ExpectedValues(CatalogueWithPatterns());
        if (newImage) expected[ADJUST_CIS_SN] = Bytes{0x0D, 0xF0, 0xA5, 0xA5};
        if (!killed) {
            // The manager serves what NAND holds, and a later synced write saves nothing half-done.
            Bytes served(4);
            EXPECT_TRUE(manager->GetData(ADJUST_CIS_SN, served.data(), served.size()));
            EXPECT_EQ(expected[ADJUST_CIS_SN], served);
            uint8_t followUp = 0x42;
            EXPECT_TRUE(manager->SetData(ADJUST_CHECKSUM2, &followUp, 1, true));
            expected[ADJUST_CHECKSUM2] = Bytes{followUp};
        }
        Restart();
        EXPECT_EQ("", StoreProblem(expected));
    });
}

TEST_F(AdjustRecoveryTest, StartUpReArrangementSurvivesAFaultAtEveryFileOperation)
{
    const std::map<int, Bytes> expected = ExpectedValues(StoreNeedingEveryKindOfChange());
    Sweep([] { PutOnNand(StoreNeedingEveryKindOfChange()); }, [] { manager->Initialize(); },
          [&](bool killed, bool) {
              if (!killed && manager->find(ADJUST_CIS_SN) != nullptr) {
                  EXPECT_EQ("", StoreProblem(expected)) << "the manager serves the right values or nothing";
              }
              Restart();
              EXPECT_EQ("", StoreProblem(expected)) << "after a restart";
          });
}

} // namespace
