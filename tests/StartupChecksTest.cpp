// The start-up checks that choose between script mode and host-link mode, from
// memory cards laid out by the tests.
#include "ProductionMode.h"
#include "CAdjustDataManager.h"
#include "PMReport.h"
#include "TestRoot.h"
#include "kernel_sim.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

std::mutex g_mutex;
std::vector<std::string> g_traces;

void recordTrace(const char* text)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_traces.emplace_back(text);
}

class StartupChecksTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        pm::SetTraceSink(&recordTrace);
        mode = CProductionMode::GetInstance();
    }
    void TearDown() override { pm::SetTraceSink(nullptr); }

    /// A card holding exactly these files, and line value 139.
    void LayOut(const std::map<std::string, std::string>& files, int autoEnable = 0)
    {
        std::filesystem::remove_all(root.Host("/mnt/mmc"));
        std::filesystem::create_directories(root.Host("/mnt/mmc"));
        for (const auto& file : files) root.WriteFile("/mnt/mmc/" + file.first, file.second);
        ASSERT_TRUE(CAdjustDataManager::GetInstance()->SetData(139, &autoEnable, sizeof autoEnable, false));
        // A finalized controller forgets the script path of the case before.
        mode->Finalize();
        std::lock_guard<std::mutex> lock(g_mutex);
        g_traces.clear();
    }

    bool Traced(const std::string& text)
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        for (const auto& trace : g_traces)
            if (trace.find(text) != std::string::npos) return true;
        return false;
    }

    TestRoot root;
    CProductionMode* mode = nullptr;
};

TEST_F(StartupChecksTest, CanPModeWorkingForEveryKindOfCard)
{
    const std::string wifi = "adj_wifi certification 1\n";
    struct Case {
        const char* name;
        std::map<std::string, std::string> files;
        int autoEnable;
        int expected;
    } cases[] = {
        {"empty card", {}, 0, 0},
        {"script named with a newline", {{"info.tg", "abc.adj\n"}, {"abc.adj", "lens init 1\n"}}, 0, 1},
        {"named script missing", {{"info.tg", "abc.adj"}}, 0, 0},
        {"named script missing, host link on", {{"info.tg", "abc.adj"}, {"info.tgw", ""}}, 0, 2},
        {"default.adj runs instead", {{"info.tg", "other.adj"}, {"default.adj", "key press 1\n"}}, 0, 1},
        {"name without .adj", {{"info.tg", "abc.txt"}, {"abc.txt", "x y\n"}, {"default.adj", "x y\n"}}, 0, 0},
        {"name without .adj, info.tgw", {{"info.tg", "abc.txt"}, {"abc.txt", "x y\n"}, {"info.tgw", "pc"}}, 0, 2},
        {"name with .dev", {{"info.tg", "abc.dev.adj"}, {"abc.dev.adj", "x y\n"}}, 0, 1},
        {"65-byte info.tg", {{"info.tg", std::string(58, 'a') + ".adj\n\n\n"}, {std::string(58, 'a') + ".adj", "x y\n"}}, 0, 0},
        {"empty info.tg", {{"info.tg", ""}}, 0, 0},
        {"script and info.tgw: the script wins", {{"info.tg", "abc.adj"}, {"abc.adj", "x y\n"}, {"info.tgw", ""}}, 0, 1},
        {"line value 139 is 1", {}, 1, 2},
        {"line value 139 is 2", {}, 2, 0},
        {"info.tgw naming a .dev", {{"info.tgw", "line.dev"}}, 0, 2},
        {"Wi-Fi certification script", {{"info.tg", "w.adj"}, {"w.adj", wifi}}, 0, 3},
        {"Wi-Fi script of 64 bytes", {{"info.tg", "w.adj"}, {"w.adj", wifi + std::string(64 - wifi.size(), ' ')}}, 0, 3},
        {"Wi-Fi text in a 65-byte script", {{"info.tg", "w.adj"}, {"w.adj", wifi + std::string(65 - wifi.size(), ' ')}}, 0, 1},
        // The certification check reads the name untrimmed: with a newline it finds no file.
        {"Wi-Fi script named with a newline", {{"info.tg", "w.adj\n"}, {"w.adj", wifi}}, 0, 1},
        {"Wi-Fi check reads info.tg, not default.adj", {{"info.tg", "w.adj"}, {"w.adj", "x y\n"}, {"default.adj", wifi}}, 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LayOut(c.files, c.autoEnable);
        EXPECT_EQ(c.expected, mode->CanPModeWorking());
    }
}

TEST_F(StartupChecksTest, InformationFileReadErrorsAreTracedOnlyForBlocksThatCannotBeRead)
{
    LayOut({{"info.tg", ""}, {"tk_dev.adj", ""}});
    EXPECT_FALSE(mode->checkScriptFile());
    EXPECT_TRUE(Traced("info.tg File Read error!!!"));
    EXPECT_TRUE(Traced("tk_dev.adj File Read error!!!"));

    // Above 64 bytes nothing is read and nothing is traced.
    LayOut({{"info.tg", std::string(65, 'x')}, {"tk_dev.adj", std::string(100, 'k')}});
    EXPECT_FALSE(mode->checkScriptFile());
    EXPECT_FALSE(Traced("File Read error"));

    // Missing files are no read errors either.
    LayOut({});
    EXPECT_FALSE(mode->checkScriptFile());
    EXPECT_FALSE(Traced("File Read error"));

    LayOut({{"info.tgw", ""}});
    EXPECT_TRUE(mode->checkPTPFlag());
    EXPECT_TRUE(Traced("info.tgw File Read error!!!"));

    LayOut({{"info.tg", "w.adj"}, {"w.adj", ""}});
    EXPECT_FALSE(mode->checkwificertification());
    EXPECT_TRUE(Traced("/mnt/mmc/w.adj File Read error!!!"));
}

TEST_F(StartupChecksTest, ScriptPathIsKeptOnceFoundAndOnlyTheFileTestIsRedone)
{
    LayOut({{"info.tg", "abc.adj\n"}, {"abc.adj", "x y\n"}});
    EXPECT_TRUE(mode->checkScriptFile());
    // The card changes under the controller: the name is not read again, only its file is looked for.
    std::filesystem::remove(root.Host("/mnt/mmc/abc.adj"));
    root.WriteFile("/mnt/mmc/info.tg", "other.adj");
    root.WriteFile("/mnt/mmc/other.adj", "x y\n");
    EXPECT_FALSE(mode->checkScriptFile());
    root.WriteFile("/mnt/mmc/abc.adj", "x y\n");
    EXPECT_TRUE(mode->checkScriptFile());
    // A default.adj found later takes over.
    root.WriteFile("/mnt/mmc/default.adj", "x y\n");
    EXPECT_TRUE(mode->checkScriptFile());
    // The default path has replaced the name: without default.adj there is no script any more.
    std::filesystem::remove(root.Host("/mnt/mmc/default.adj"));
    EXPECT_FALSE(mode->checkScriptFile());
}

TEST_F(StartupChecksTest, ProductionStatusFollowsTheMarkersAndChangesNothing)
{
    struct Case {
        const char* name;
        std::map<std::string, std::string> files;
        int autoEnable;
        bool expected;
    } cases[] = {
        {"nothing", {}, 0, false},
        {"info.tg", {{"info.tg", "abc.adj"}}, 0, true},
        {"empty info.tg", {{"info.tg", ""}}, 0, true},
        {"info.tgw", {{"info.tgw", ""}}, 0, true},
        {"line value 139 is 1", {}, 1, true},
        {"line value 139 is 2", {}, 2, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LayOut(c.files, c.autoEnable);
        EXPECT_EQ(c.expected, mode->isProductionStatus());
        EXPECT_TRUE(Traced(std::string("isProductionStatus() blRetVal = ") + (c.expected ? "1" : "0")));
        EXPECT_EQ(c.autoEnable == 1, Traced("LINE_PTP_AUTO_ENABLE = 1"));
    }
    // No state changed: a script path found afterwards is read fresh.
    LayOut({{"info.tg", "abc.adj"}, {"abc.adj", "x y\n"}});
    EXPECT_TRUE(mode->isProductionStatus());
    EXPECT_EQ(1, mode->CanPModeWorking());
}

/// Lays out a card in a fresh root, initialises the adjust data (which leaves the
/// stores changed) and runs the checks. 1 when the snapshot-boot preparation ran,
/// which the snapshot mode does at once on changed stores; 0 when it did not.
int snapshotPreparedByChecks(const std::map<std::string, std::string>& files, int autoEnable)
{
    TestRoot root;
    for (const auto& file : files) root.WriteFile("/mnt/mmc/" + file.first, file.second);
    CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
    adjust->Initialize();
    adjust->SetData(139, &autoEnable, sizeof autoEnable, false);
    CProductionMode::GetInstance()->CanPModeWorking();
    const int count = kernel_sim_record_count();
    for (int i = 0; i < count; ++i) {
        char text[1024] = {};
        if (kernel_sim_record(i, text, sizeof text) >= 0 && std::strstr(text, "dirty_adj") != nullptr) return 1;
    }
    return 0;
}

TEST(StartupChecksModeTest, ChecksSelectTheAdjustOperationMode)
{
    struct Case {
        const char* name;
        std::map<std::string, std::string> files;
        int autoEnable;
        bool snapshot;
    } cases[] = {
        {"script name without .dev", {{"info.tg", "abc.adj"}, {"abc.adj", "x y\n"}}, 0, true},
        {"script name with .dev", {{"info.tg", "abc.dev.adj"}, {"abc.dev.adj", "x y\n"}}, 0, false},
        {".dev name, keen_camera device",
         {{"info.tg", "abc.dev.adj"}, {"abc.dev.adj", "x y\n"}, {"tk_dev.adj", "model keen_camera"}}, 0, true},
        {".dev name, other device", {{"info.tg", "abc.dev.adj"}, {"abc.dev.adj", "x y\n"}, {"tk_dev.adj", "other"}}, 0,
         false},
        {"info.tgw with .dev", {{"info.tgw", "line.dev"}}, 0, false},
        {"info.tgw without .dev", {{"info.tgw", "line"}}, 0, true},
        {"empty info.tgw", {{"info.tgw", ""}}, 0, true},
        {"line value 139 is 1", {}, 1, true},
        {"nothing", {}, 0, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // Each case in a process of its own: the preparation runs at most once per process.
        EXPECT_EXIT(std::_Exit(snapshotPreparedByChecks(c.files, c.autoEnable)),
                    ::testing::ExitedWithCode(c.snapshot ? 1 : 0), "");
    }
}

} // namespace
