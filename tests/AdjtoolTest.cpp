// The adjtool program, run as a production engineer would run it on a device root.
#include "AdjustStoreImage.h"
#include "FileSizeLimit.h"
#include "TestRoot.h"
#include "pref.h"
#include "pref_sim.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <vector>

using namespace adjtest;

namespace {

struct ToolRun {
    int status;
    std::string output;
};

std::string ToolPath()
{
    const char* dir = std::getenv("PM_TEST_BINARY_DIR");
    return std::string(dir != nullptr ? dir : ".") + "/tools/adjtool/adjtool";
}

// Runs adjtool with the arguments (already quoted for the shell), stdout and stderr
// together; environment (such as "env -u PMODE_ROOT") goes before the program.
ToolRun Adjtool(const std::string& arguments, const std::string& environment = "")
{
    const std::string command = environment + " " + ToolPath() + " " + arguments + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return {-1, "popen failed"};
    std::string output;
    char chunk[4096];
    size_t got = 0;
    while ((got = fread(chunk, 1, sizeof(chunk), pipe)) > 0) output.append(chunk, got);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

std::string Root(const TestRoot& root)
{
    return "--root " + root.Dir() + " ";
}

size_t CountLines(const std::string& text)
{
    size_t lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

TEST(AdjtoolTest, ListShowsEveryItemOfAFreshStore)
{
    TestRoot root;
    MakeDeviceDirs(root);
    const ToolRun run = Adjtool(Root(root) + "list");
    ASSERT_EQ(0, run.status) << run.output;
    EXPECT_EQ(1u + 133u + 10u, CountLines(run.output)) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("114  ADJUST_PRESET_DEFECT_PIXEL_ADR")) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("      320     8400  all zero (8400 bytes)"));
    EXPECT_NE(std::string::npos, run.output.find("  0  ADJUST_CHECKSUM1"));
    EXPECT_NE(std::string::npos, run.output.find("17 (0x11)"));
    EXPECT_NE(std::string::npos, run.output.find("\"00\""));
    EXPECT_NE(std::string::npos, run.output.find("139  LINE_PTP_AUTO_ENABLE"));
}

TEST(AdjtoolTest, SetThenGetRoundTripsNumbersTextAndHex)
{
    TestRoot root;
    MakeDeviceDirs(root);
    struct Case {
        std::string item;
        std::string value;
        std::string shown;
    };
    const Case cases[] = {
        {"ADJUST_CIS_SN", "305419896", "305419896 (0x12345678)"},
        {"27", "0x10", "16 (0x00000010)"},
        {"adjust_cis_clamp_level", "-1", "65535 (0xffff)"},
        {"ADJUST_CIS_LOT_NUMBER", "text:LOT-42", "\"LOT-42\""},
        {"94", "hex:00:11:22:33:44:55:66:77:88:99:aa:bb", "00 11 22 33 44 55 66 77 88 99 aa bb"},
        {"135", "12", "4  12\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.item + " = " + c.value);
        const ToolRun set = Adjtool(Root(root) + "set " + c.item + " " + c.value);
        EXPECT_EQ(0, set.status) << set.output;
        const ToolRun get = Adjtool(Root(root) + "get " + c.item);
        EXPECT_EQ(0, get.status) << get.output;
        EXPECT_NE(std::string::npos, get.output.find(c.shown)) << get.output;
    }

    // The values are on the device's NAND, where the library reads them.
    pref_sim_forget_images();
    CAdjustDataManager::GetInstance()->Initialize();
    EXPECT_EQ(Bytes({0x10, 0, 0, 0}), ItemBytes(ADJUST_CIS_SN));

    const ToolRun reset = Adjtool(Root(root) + "reset ADJUST_CIS_SN");
    EXPECT_EQ(0, reset.status) << reset.output;
    EXPECT_NE(std::string::npos, Adjtool(Root(root) + "get 27").output.find(" 0 (0x00000000)"));
}

TEST(AdjtoolTest, VerifyPassesOnAGoodStoreAndNamesEachProblem)
{
    TestRoot root;
    MakeDeviceDirs(root);
    ASSERT_EQ(0, Adjtool(Root(root) + "list").status);
    ToolRun run = Adjtool(Root(root) + "verify");
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("verify: OK, 133 items, header 18620 bytes, body 3606101 bytes"));

    pref_sim_forget_images();
    const uint8_t broken = 0x10;
    pref_set_bytes(kAdjustGroup, 8, &broken, 1);
    pref_save(kAdjustGroup);
    run = Adjtool(Root(root) + "verify");
    EXPECT_EQ(1, run.status) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("marker byte at 8 is 0x10, expected 0x11")) << run.output;

    // A store of another version: one unknown record, one row missing, a gap.
    std::vector<StoredItem> items = CatalogueWithPatterns();
    items.insert(items.begin() + 3, StoredItem{"ADJUST_RETIRED", Bytes(8, 1)});
    items.erase(items.begin() + 60);
    WriteStore(items);
    uint32_t shifted = 1000;
    pref_set_bytes(kAdjustGroup, kHeaderAt + kRecordSize * 10 + 128, &shifted, 4);
    pref_save(kAdjustGroup);
    run = Adjtool(Root(root) + "verify");
    EXPECT_EQ(1, run.status) << run.output;
    for (const char* problem : {"record 3 (ADJUST_RETIRED): not in the catalogue",
                                "catalogue item 59 (ADJUST_CIS_P_PIXEL_NUM) has no record", "record 10 (",
                                "offset 1000, expected", "(gap)"})
        EXPECT_NE(std::string::npos, run.output.find(problem)) << problem << "\n" << run.output;
}

TEST(AdjtoolTest, DumpDiffAndLoad)
{
    TestRoot root;
    MakeDeviceDirs(root);
    const std::string dump = root.Dir() + "/saved.dump";
    ASSERT_EQ(0, Adjtool(Root(root) + "set ADJUST_CIS_SN 7").status);
    ToolRun run = Adjtool(Root(root) + "dump " + dump);
    ASSERT_EQ(0, run.status) << run.output;

    run = Adjtool(Root(root) + "diff " + dump);
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("diff: no difference in 133 items")) << run.output;

    ASSERT_EQ(0, Adjtool(Root(root) + "set ADJUST_CIS_SN 8").status);
    ASSERT_EQ(0, Adjtool(Root(root) + "set 120 hex:ff").status);
    run = Adjtool(Root(root) + "diff " + dump + " @device");
    EXPECT_EQ(1, run.status) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("27 ADJUST_CIS_SN: 7 (0x00000007) in " + dump)) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("first difference at byte 0, 1 of 50000 bytes differ")) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("diff: 2 of 133 items differ")) << run.output;

    run = Adjtool(Root(root) + "load " + dump);
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ(0, Adjtool(Root(root) + "diff " + dump).status);

    // --image works on the file itself, never on the device.
    run = Adjtool("--image " + dump + " set ADJUST_CIS_SN 99");
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_NE(std::string::npos, Adjtool("--image " + dump + " get 27").output.find("99 (0x00000063)"));
    EXPECT_NE(std::string::npos, Adjtool(Root(root) + "get 27").output.find(" 7 (0x00000007)"));
    EXPECT_EQ(0, Adjtool("--image " + dump + " verify").status);
}

TEST(AdjtoolTest, BadInputGetsAMessageAndANonZeroStatus)
{
    TestRoot root;
    MakeDeviceDirs(root);
    ASSERT_EQ(0, Adjtool(Root(root) + "list").status);
    root.WriteFile("/garbage.dump", "this is not a dump");
    const std::string garbage = root.Dir() + "/garbage.dump";
    struct Case {
        std::string arguments;
        int status;
        std::string message;
    };
    const Case cases[] = {
        {"", 2, "no command given"},
        {Root(root) + "frobnicate", 2, "unknown command 'frobnicate'"},
        {Root(root) + "get ADJUST_NO_SUCH", 2, "unknown item 'ADJUST_NO_SUCH'"},
        {Root(root) + "get 133", 2, "no item or line value has the id 133"},
        {Root(root) + "set ADJUST_CHECKSUM1 256", 2, "does not fit ADJUST_CHECKSUM1 (1 bytes)"},
        {Root(root) + "set ADJUST_CIS_SN twelve", 2, "is not a number"},
        {Root(root) + "set 85 0x5", 2, "holds 32 bytes: give text:, hex: or file:"},
        {Root(root) + "set 101 text:KOR", 2, "does not fit ADJUST_5GHZ_WIFI_CONTRY_CODE"},
        {Root(root) + "set 94 hex:abc", 2, "even number of digits"},
        {Root(root) + "set ADJUST_CIS_SN", 2, "wrong number of arguments for 'set'"},
        {Root(root) + "load " + garbage, 1, "was refused"},
        {Root(root) + "load " + root.Dir() + "/none.dump", 2, "no such file"},
        {Root(root) + "diff " + garbage, 2, "is not an adjust dump"},
        {"--image " + garbage + " list", 2, "is not an adjust dump"},
        {"--root " + root.Dir() + "/missing list", 2, "is not a directory"},
        {"--root", 2, "--root needs an argument"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("adjtool " + c.arguments);
        const ToolRun run = Adjtool(c.arguments);
        EXPECT_EQ(c.status, run.status) << run.output;
        EXPECT_NE(std::string::npos, run.output.find(c.message)) << run.output;
    }
    // None of it touched the device's adjust data.
    EXPECT_EQ(0, Adjtool(Root(root) + "verify").status);
}

TEST(AdjtoolTest, NothingIsShownOrPassedThatWasNotSaved)
{
    TestRoot root;
    MakeDeviceDirs(root);
    const std::string saved = root.Dir() + "/saved.dump";
    ASSERT_EQ(0, Adjtool(Root(root) + "set ADJUST_CIS_SN 9").status);
    ASSERT_EQ(0, Adjtool(Root(root) + "dump " + saved).status);
    struct Case {
        std::string arguments;
        std::string message;
        std::string notShown; // what a report of the work done would print
    };
    const Case cases[] = {
        {Root(root) + "set ADJUST_CIS_SN 5", "ADJUST_CIS_SN was not saved", "5 (0x00000005)"},
        {Root(root) + "reset ADJUST_CIS_SN", "ADJUST_CIS_SN was not reset", "0 (0x00000000)"},
        {Root(root) + "set 135 7", "LINE_CONTROL_NEXT_STEP was not saved", "line        4  7"},
        {Root(root) + "reset line", "the line values were not reset", "line values reset"},
        {Root(root) + "dump " + root.Dir() + "/again.dump", "dump to", "dumped"},
        {Root(root) + "load " + saved, "loading " + saved + " failed", "loaded"},
        {"--image " + saved + " set ADJUST_CIS_SN 6", "ADJUST_CIS_SN was not saved", "6 (0x00000006)"},
    };
    std::vector<ToolRun> runs;
    {
        // A NAND (and an image file) too small for any group: every save fails. The
        // test's own output may be a file too, so nothing is reported in this scope.
        FileSizeLimit full(64);
        for (const Case& c : cases) runs.push_back(Adjtool(c.arguments));
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        SCOPED_TRACE("adjtool " + cases[i].arguments);
        EXPECT_EQ(1, runs[i].status) << runs[i].output;
        EXPECT_NE(std::string::npos, runs[i].output.find(cases[i].message)) << runs[i].output;
        EXPECT_EQ(std::string::npos, runs[i].output.find(cases[i].notShown)) << runs[i].output;
    }
    // What the device and the image hold is what was there before.
    EXPECT_NE(std::string::npos, Adjtool(Root(root) + "get 27").output.find(" 9 (0x00000009)"));
    EXPECT_NE(std::string::npos, Adjtool(Root(root) + "get 135").output.find("  0\n"));
    EXPECT_NE(std::string::npos, Adjtool("--image " + saved + " get 27").output.find(" 9 (0x00000009)"));
}

TEST(AdjtoolTest, HostRootAndMissingRootAreRefused)
{
    TestRoot root;
    const std::string host = root.Dir() + "/host";
    std::filesystem::create_directory_symlink("/", host);
    const std::string missing = root.Dir() + "/missing";
    struct Case {
        std::string environment;
        std::string arguments;
        std::string message;
    };
    const Case cases[] = {
        {"env -u PMODE_ROOT", "list", "no device root"},
        {"env PMODE_ROOT=/", "list", "resolves to the host's own \"/\""},
        {"", "--root / list", "resolves to the host's own \"/\""},
        {"", "--root // set 27 1", "resolves to the host's own \"/\""},
        {"", "--root /. reset 27", "resolves to the host's own \"/\""},
        {"", "--root " + host + " list", "resolves to the host's own \"/\""},
        {"", "--root " + host + "/tmp/.. dump " + root.Dir() + "/x.dump", "resolves to the host's own \"/\""},
        {"", "--root " + missing + " set 27 1", "is not a directory"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.environment + " adjtool " + c.arguments);
        const ToolRun run = Adjtool(c.arguments, c.environment);
        EXPECT_EQ(2, run.status) << run.output;
        EXPECT_NE(std::string::npos, run.output.find(c.message)) << run.output;
        EXPECT_NE(std::string::npos, run.output.find("give --root DIR or set PMODE_ROOT=DIR")) << run.output;
    }
    EXPECT_FALSE(std::filesystem::exists(missing));
    EXPECT_FALSE(std::filesystem::exists(root.Dir() + "/x.dump"));
}

} // namespace
