// After a failure nothing unsaved is acknowledged and a fault anywhere leaves one whole image.
#include "AdjustStoreImage.h"
#include "FileFaults.h"
#include "PmodeToolRun.h"
#include "PMReport.h"

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <iostream>

using namespace adjtest;

namespace {

CAdjustDataManager* const manager = CAdjustDataManager::GetInstance();

// Another version's store: an unknown item, a short item and a missing row.
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
        pref_sim_nand_path(PREF_ID_ADJUST, path, sizeof path);
        return root.ReadFile(path);
    }

    /// Finalises the manager and puts a store of these items on NAND (not yet started), its body cut short.
    static void PutOnNand(const std::vector<StoredItem>& items, long bodyCut = 0)
    {
        manager->Finalize();
        WriteStore(items);
        if (bodyCut != 0) pref_set_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET, pref_get_long(PREF_ID_ADJUST, BODY_SIZE_OFFSET) - bodyCut);
        if (bodyCut != 0) pref_save(PREF_ID_ADJUST);
        pref_sim_forget_images();
    }

    // Runs op clean, then with each file operation failing once, from there on, or killed there.
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
        if (HasFailure()) return; // wrong without any fault: no sweep
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

TEST_F(AdjustRecoveryTest, FreshStoreThatCannotBeSavedIsNotServedUntilItIs)
{
    const unsigned long assertions = pm::AssertionCount();
    pref_sim_fail_next(PREF_SIM_OP_SAVE, 2); // the build and the start again from NAND
    manager->Initialize();
    EXPECT_LT(assertions, pm::AssertionCount());
    EXPECT_EQ(nullptr, manager->find(ADJUST_CIS_SN));
    EXPECT_EQ("", nandImage()) << "nothing reached NAND";
    uint8_t checksum = 0xFF;
    EXPECT_TRUE(manager->GetData(ADJUST_CHECKSUM1, &checksum, 1)) << "the next call starts again and saves";
    EXPECT_EQ(DefaultBytes(ADJUST_CHECKSUM1)[0], checksum);
    Restart();
    EXPECT_EQ("", StoreProblem(ExpectedValues({})));
}

TEST_F(AdjustRecoveryTest, RecordPastTheBodyLosesOnlyItsOwnValueAndADumpOfItCarriesTheRest)
{
    PutOnNand(CatalogueWithPatterns(), 2); // only the last item is incomplete
    const int saves = pref_sim_save_count(PREF_ID_ADJUST);
    manager->Initialize();
    Bytes last(ADJUST_DATA_LIST[ADJUST_GYRO_DSP_THERM].size);
    EXPECT_FALSE(manager->GetData(ADJUST_GYRO_DSP_THERM, last.data(), last.size()));
    EXPECT_FALSE(manager->SetData(ADJUST_GYRO_DSP_THERM, last.data(), last.size(), true));
    EXPECT_EQ(saves, pref_sim_save_count(PREF_ID_ADJUST)) << "sizes match the catalogue, a failed write: nothing saved";
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
    // Past the body; or a table that grows before a retired one goes, one byte past the area.
    std::vector<StoredItem> overflowing = CatalogueWithPatterns();
    overflowing[ADJUST_CAPTURE_LTE_DEFECT_PIXEL_ADR].bytes = Bytes{1};
    overflowing.push_back(StoredItem{"ADJUST_RETIRED_TABLE", Bytes(5242881 - kFreshBodyBytes, 0xC5)});
    for (const auto& stored : {StoreNeedingEveryKindOfChange(), overflowing}) {
        SCOPED_TRACE(stored.size());
        PutOnNand(stored, stored.size() != overflowing.size() ? 2 : 0);
        std::string broken = "/mnt/mmc/broken.dump";
        ASSERT_EQ(0, pref_save_to_file(PREF_ID_ADJUST, broken.c_str()));
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
    unsigned long checks = 0, syncsLogged = 0;
    auto syncDoneLines = [&] {
        return static_cast<unsigned long>(pmtool::Count(root.ReadFile("/mnt/ubi1/log/adj_log.inf"), "SetData(): sync done \n"));
    };
    auto prepare = [&] {
        PutOnNand(CatalogueWithPatterns());
        manager->Initialize();
        answered = false;
        checks = pm::AssertionCount();
        syncsLogged = syncDoneLines();
    };
    auto op = [&] {
        uint32_t value = 0xA5A5F00D;
        answered = manager->SetData(ADJUST_CIS_SN, &value, 4, true);
    };
    Sweep(prepare, op, [&](bool killed, bool newImage) {
        EXPECT_TRUE(newImage || !answered) << "acknowledged but not on NAND";
        if (!killed && !answered) {
            EXPECT_LT(checks, pm::AssertionCount()) << "a write that is not saved is reported";
            EXPECT_EQ(syncsLogged, syncDoneLines()) << "no \"sync done\" for a write that is not saved";
        }
        std::map<int, Bytes> expected = ExpectedValues(CatalogueWithPatterns());
        if (newImage) expected[ADJUST_CIS_SN] = Bytes{0x0D, 0xF0, 0xA5, 0xA5};
        if (!killed) {
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
    std::vector<StoredItem> stored = StoreNeedingEveryKindOfChange();
    stored.insert(stored.begin() + 3, StoredItem{"", Bytes()}); // a blank record goes as well
    const std::map<int, Bytes> expected = ExpectedValues(stored);
    Sweep([&] { PutOnNand(stored); }, [] { manager->Initialize(); },
          [&](bool killed, bool) {
              if (!killed && manager->find(ADJUST_CIS_SN) != nullptr) {
                  EXPECT_EQ("", StoreProblem(expected)) << "the manager serves the right values or nothing";
              }
              Restart();
              EXPECT_EQ("", StoreProblem(expected)) << "after a restart";
          });
}

} // namespace
