// pmode-sim check: the production-script checker finds what an author gets wrong,
// names it at its line, and its exit status says whether an error was found.
#include "PmodeToolRun.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class ScriptCheckerTest : public ::testing::Test {
protected:
    pmtool::Result Check(const std::string& text, std::vector<std::string> options = {})
    {
        std::string path = root.Dir() + "/script.adj";
        pmtool::WriteAll(path, text);
        std::vector<std::string> args = {pmtool::Sim(), "check"};
        args.insert(args.end(), options.begin(), options.end());
        args.push_back(path);
        pmtool::Result result = pmtool::Run(args, root.Dir());
        // Findings name the file as given; shorten it for the expectations.
        std::string prefix = path + ":";
        for (size_t at; (at = result.output.find(prefix)) != std::string::npos;) result.output.replace(at, prefix.size(), "script:");
        return result;
    }

    TestRoot root;
};

TEST_F(ScriptCheckerTest, EachFaultIsFoundAtItsLineAndNamed)
{
    struct Case {
        const char* name;
        std::string script;
        const char* expected; // a line of the output
        int status;
    };
    const Case cases[] = {
        {"tab-only line", "label ADJ_00\nkey\tcheck\tmenu\nkey check menu\n",
         "script:2: warning: words separated only by tabs", 0},
        {"one word, no space", "label ADJ_00\nstep_end\nkey check menu\n", "script:2: warning: 'step_end' alone on a line", 0},
        {"first word over 49 bytes", "key check menu\n" + std::string(50, 'k') + " check 1\n",
         "script:2: error: first word is 50 bytes (at most 49)", 1},
        {"parameter over 49 bytes", "key check aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa x\n",
         "script:1: error: word 3 ('aaaaaaaaaaaaaaaaaaaa...') is 50 bytes", 1},
        {"command without parameter", "lens init 1\nlens \nkey check menu\n",
         "script:2: error: command 'lens' has no parameter: the run ends here", 1},
        {"unknown command", "lens init 1\nfocus check 1\n", "script:2: error: no worker group serves 'focus'", 1},
        {"sub-command used as command", "strobe flash_write 1\n",
         "script:1: error: no worker group serves 'strobe' ('strobe' is a sub-command: line_process strobe ...?)", 1},
        {"unknown sub-command", "line_process nosuch 1\n",
         "script:1: error: no worker group serves 'line_process nosuch': sub-command 'nosuch' is in no group", 1},
        {"goto without count", "label L\nkey check menu\ngoto L\n",
         "script:3: error: goto 'L' without a count", 1},
        {"goto count 0", "label L\nkey check menu\ngoto L 0\n", "script:3: error: goto count '0' is read as 0: the loop never ends", 1},
        {"goto count negative", "label L\nkey check menu\ngoto L -2\n", "script:3: error: goto count '-2' is read as -2", 1},
        {"goto count not a number", "label L\nkey check menu\ngoto L twice\n",
         "script:3: error: goto count 'twice' is read as 0", 1},
        {"goto count with trailing text", "label L\nkey check menu\ngoto L 2x\n",
         "script:3: warning: goto count '2x' is read as 2", 0},
        {"unknown goto label", "label L\nkey check menu\ngoto M 1\n", "script:3: error: goto to unknown label 'M'", 1},
        {"nested counted loops", "label OUT\nkey check a\nlabel IN\nkey check b\ngoto IN 2\ngoto OUT 1\n",
         "script:5: error: counted loop 'IN' lies inside the loop of line 6", 1},
        {"label defined twice", "label L\nkey check a\nlabel L\nkey check b\n",
         "script:3: error: label 'L' defined twice (first on line 1)", 1},
        {"label without a name", "label \nkey check a\n", "script:1: error: label without a name", 1},
        {"label on the last line without newline", "key check a\nlabel END",
         "script:2: error: label 'END' on the last line without a newline", 1},
        {"gap in the resume labels", "label ADJ_00\nkey check a\nlabel ADJ_02\nkey check b\n",
         "script:3: error: resume label 'ADJ_01' is missing", 1},
        {"missing ADJ_00", "label ADJ_01\nkey check a\n", "script:1: error: resume label 'ADJ_00' is missing", 1},
        {"resume label no step reaches", "label ADJ_00\nkey check a\nlabel ADJ_1\nkey check b\n",
         "script:3: warning: label 'ADJ_1' is never a resume point (step 1 resumes at 'ADJ_01')", 0},
        {"goto right after its label", "label L\ngoto L 2\nkey check a\n",
         "script:2: warning: goto right after a label line", 0},
        {"more than eleven words", "key check 1 2 3 4 5 6 7 8 9 10 11\n", "script:1: warning: 13 words", 0},
        {"comment word of another kind", "#note check 1\n", "(comments start with //)", 1},
        {"line over 509 bytes", "key check " + std::string(520, 'x').replace(40, 1, " ") + "\n",
         "script:1: warning: line of 530 bytes: the reader sees only the first 509", 1},
        {"NUL byte", std::string("key check a\nkey check b\0key check c\n", 36),
         "script:2: error: binary data (byte 0x00 at offset 23): not a text file; the reader sees nothing after a NUL byte", 1},
        {"control byte", "key check a\nkey check \x01\n", "script:2: error: binary data (byte 0x01 at offset 22)", 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        pmtool::Result result = Check(c.script);
        EXPECT_NE(result.output.find(c.expected), std::string::npos) << result.output;
        EXPECT_EQ(result.status, c.status) << result.output;
    }
}

TEST_F(ScriptCheckerTest, CleanScriptsPassAndCommentsBlankLinesAndCrLfAreNoFindings)
{
    pmtool::Result longest = Check("menu_setup check " + std::string(49, 'w') + "\n");
    EXPECT_EQ(longest.status, 0) << "a word of 49 bytes is whole\n" << longest.output;

    pmtool::Result result = Check("// comment\r\n\r\n   \r\n/x//y also a comment\r\nlabel ADJ_00\r\nkey check menu\r\n");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("script: 0 errors, 0 warnings, 1 command in the resolved run"), std::string::npos)
        << result.output;
}

TEST_F(ScriptCheckerTest, ResolvedRunUnrollsCountedLoopsWithTheServingGroup)
{
    pmtool::Result result = Check("label ADJ_00\nlens init 1\nlabel P\nshutter measure 1/4000\ngoto P 2\n"
                                  "line_process awb high 5500\nunknown_cmd x\ndelay 10 ms\n");
    EXPECT_EQ(result.status, 1) << result.output; // the unknown command
    EXPECT_EQ(pmtool::CountLines(result.output, "CAP      shutter measure 1/4000"), 3) << result.output;
    EXPECT_EQ(pmtool::CountLines(result.output, "LENS     lens init 1"), 1);
    EXPECT_EQ(pmtool::CountLines(result.output, "CAP      line_process awb high 5500"), 1);
    EXPECT_EQ(pmtool::CountLines(result.output, "unknown_cmd x   (passed over: no worker)"), 1);
    EXPECT_EQ(pmtool::CountLines(result.output, "DD       delay 10 ms"), 1);
    EXPECT_NE(result.output.find("(end of the script)"), std::string::npos);
}

TEST_F(ScriptCheckerTest, ResolvedRunStopsWhereTheCameraStops)
{
    // A command without a parameter ends the run: the commands after it never run.
    pmtool::Result early = Check("lens init 1\nlens \nkey check menu\n");
    EXPECT_EQ(pmtool::CountLines(early.output, "key check menu"), 0) << early.output;
    EXPECT_NE(early.output.find("'lens' has no parameter: the run ends there"), std::string::npos) << early.output;

    // A loop that never ends is cut at the bound.
    pmtool::Result endless = Check("label L\nkey check a\ngoto L 0\n", {"--max", "7"});
    EXPECT_EQ(pmtool::CountLines(endless.output, "UI       key check a"), 7) << endless.output;
    EXPECT_NE(endless.output.find("stopped after 7 commands"), std::string::npos);

    // A goto that fails its check is not resolved at all (the reader would stop there).
    pmtool::Result broken = Check("label L\nkey check a\ngoto NOWHERE 1\n");
    EXPECT_NE(broken.output.find("not resolved: fix the label and goto errors first"), std::string::npos);
}

TEST_F(ScriptCheckerTest, ExampleCardPassesTheCheck)
{
    pmtool::Result result =
        pmtool::Run({pmtool::Sim(), "check", pmtool::SourceDir() + "/examples/card/production.adj"}, root.Dir());
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find(": 0 errors, 0 warnings"), std::string::npos) << result.output;
    // Every worker group is used by the example.
    for (const char* group : {"UI ", "CAP ", "LENS ", "MENU ", "WIFI ", "DD ", "ETC "})
        EXPECT_GE(pmtool::CountLines(result.output, std::string("  ") + group), 1) << group;
}

TEST_F(ScriptCheckerTest, UnreadableScriptAndBadUsage)
{
    pmtool::Result missing = pmtool::Run({pmtool::Sim(), "check", root.Dir() + "/none.adj"}, root.Dir());
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.output.find("error: cannot open the script"), std::string::npos) << missing.output;
    pmtool::Result directory = pmtool::Run({pmtool::Sim(), "check", root.Dir()}, root.Dir());
    EXPECT_EQ(directory.status, 1);
    EXPECT_NE(directory.output.find("error: the script is a directory, not a file"), std::string::npos) << directory.output;
    EXPECT_EQ(pmtool::Run({pmtool::Sim(), "check"}, root.Dir()).status, 2);
    for (const char* bound : {"0", "4294967296", "1000001", "abc", "5x", "-3"}) {
        SCOPED_TRACE(bound);
        EXPECT_EQ(pmtool::Run({pmtool::Sim(), "check", "--max", bound, "x.adj"}, root.Dir()).status, 2);
    }

    // An empty file is a script with nothing to run, not an error.
    pmtool::Result empty = Check("");
    EXPECT_EQ(empty.status, 0) << empty.output;
    EXPECT_NE(empty.output.find("the script is empty: nothing runs"), std::string::npos) << empty.output;
}

} // namespace
