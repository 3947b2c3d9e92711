// The production script: text model, parsing, labels and counted goto loops.
#include "CProductionScript.h"
#include "PMReport.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> g_traces;
void recordTrace(const char* text)
{
    g_traces.emplace_back(text);
}

class ProductionScriptTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_traces.clear();
        pm::SetTraceSink(&recordTrace);
    }
    void TearDown() override { pm::SetTraceSink(nullptr); }

    bool MountText(const std::string& text)
    {
        root.WriteFile("/mnt/mmc/script.txt", text);
        return script.Mount("/mnt/mmc/script.txt");
    }

    /// Runs the script as the script-mode loop does and lists "name p0 p1 ..." of each command.
    std::vector<std::string> RunAll(int limit = 100)
    {
        std::vector<std::string> run;
        for (int i = 0; i < limit; ++i) {
            script.Parsing();
            _tPM_Command command = script.Read();
            if (command == -1) break;
            std::string line = command.szWorker;
            for (int p = 0; p < command.nParamCount; ++p) line += std::string(" ") + command.szParam[p];
            run.push_back(line);
        }
        return run;
    }

    std::string Line(int index)
    {
        char out[PM_LINE_SIZE] = {};
        script.get1LineString(out, index);
        return out;
    }

    TestRoot root;
    CProductionScript script;
};

TEST_F(ProductionScriptTest, MountRefusesMissingNullAndEmptyFilesWithTheirTraces)
{
    EXPECT_FALSE(script.Mount(nullptr));
    EXPECT_FALSE(script.Mount("/mnt/mmc/none.txt")) << "nothing loaded before";
    EXPECT_TRUE(script.isEOF());
    EXPECT_FALSE(MountText(""));
    ASSERT_EQ(2u, g_traces.size());
    EXPECT_EQ("\x1b[mNo Script file Name!!!\x1b[m\n", g_traces[0]);
    EXPECT_EQ("\x1b[m Script file size is 0!!!\x1b[m\n", g_traces[1]);
}

TEST_F(ProductionScriptTest, EmptyOrMissingFileKeepsTheTextLoadedEarlier)
{
    ASSERT_TRUE(MountText("// intro\nlens init 1\n"));
    EXPECT_EQ(-1, script.findLabel("x")) << "no labels";
    EXPECT_FALSE(script.Mount(nullptr));
    EXPECT_TRUE(script.Mount("/mnt/mmc/missing.txt")) << "re-indexes the old text";
    EXPECT_EQ((std::vector<std::string>{"lens init 1"}), RunAll());
    root.WriteFile("/mnt/mmc/empty.txt", "");
    EXPECT_FALSE(script.Mount("/mnt/mmc/empty.txt"));
    EXPECT_EQ("lens init 1", Line(1));
}

TEST_F(ProductionScriptTest, LinesAreCountedByNewlinesAndCrLfIsDropped)
{
    ASSERT_TRUE(MountText("a b\r\nc d\n"));
    EXPECT_EQ("a b", Line(0));
    EXPECT_EQ("c d", Line(1));
    EXPECT_EQ("", Line(2)) << "the empty last line";
    char out[PM_LINE_SIZE] = "untouched";
    script.get1LineString(out, 2);
    EXPECT_STREQ("untouched", out) << "an empty last line leaves the buffer alone";
    script.get1LineString(out, 3);
    EXPECT_STREQ("untouched", out);

    ASSERT_TRUE(MountText("a b\n"));
    EXPECT_FALSE(script.nextLine()) << "the second line is empty: the end";
    EXPECT_TRUE(script.isEOF());
}

TEST_F(ProductionScriptTest, OnlyTheFirst509BytesOfALineAreSeen)
{
    const std::string longLine = "cmd " + std::string(600, 'x');
    ASSERT_TRUE(MountText(longLine + "\nnext one\n"));
    EXPECT_EQ(longLine.substr(0, 509), Line(0));
    EXPECT_EQ("next one", Line(1));
}

TEST_F(ProductionScriptTest, GetParamFollowsTheWordRules)
{
    struct Case {
        const char* name;
        std::string line;
        int index;
        bool found;
        std::string word;
    };
    const std::string word49(49, 'w');
    const std::string word50(50, 'w');
    const Case cases[] = {
        {"first word", "key press 1", 0, true, "key"},
        {"third word", "key press 1", 2, true, "1"},
        {"past the last word", "key press 1", 3, false, ""},
        {"runs of separators", "  a \t\t b", 1, true, "b"},
        {"tab only, no space", "a\tb", 0, false, "a\tb"},
        {"single word, no space", "step_end", 0, false, "step_end"},
        {"word of 49 bytes", word49 + " x", 0, true, word49},
        {"word of 50 bytes", word50 + " x", 0, false, ""},
        {"CR LF cut", "a b\r\n", 1, true, "b"},
        {"empty line", "", 0, false, ""},
        {"newline only", "\n", 0, false, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        char out[PM_WORD_SIZE] = {};
        EXPECT_EQ(c.found, script.getParam(c.line.c_str(), c.index, out));
        EXPECT_EQ(c.word, std::string(out));
    }
}

TEST_F(ProductionScriptTest, SumRemainStringJoinsWithSingleSpaces)
{
    char out[PM_LINE_SIZE] = {};
    EXPECT_TRUE(script.sumRemainString(1, 3, "cmd a\tb  c d", out));
    EXPECT_STREQ("a b c", out);
    EXPECT_FALSE(script.sumRemainString(2, 2, "cmd a b c", out));
    EXPECT_TRUE(script.sumRemainString(2, 9, "cmd a b c", out)) << "stops at the first missing word";
    EXPECT_STREQ("b c", out);
    EXPECT_FALSE(script.sumRemainString(5, 9, "cmd a b c", out));
}

TEST_F(ProductionScriptTest, CommentsBlankLinesAndSpacelessLinesArePassedOver)
{
    const std::string word50(50, 'x');
    ASSERT_TRUE(MountText("// note here\n"
                          "\n"
                          "step_end\n"
                          "a\tb\n"
                          "/a//b c\n" +
                          word50 + " p\n" +
                          "#note 1\n"
                          "lens init 1\n"));
    EXPECT_EQ((std::vector<std::string>{"#note 1", "lens init 1"}), RunAll());
}

TEST_F(ProductionScriptTest, PrevLineStopsOnCommandLinesAndNeverExaminesLineZero)
{
    ASSERT_TRUE(MountText("a 1\n// c\nb 2\n"));
    EXPECT_TRUE(script.nextLine());
    EXPECT_FALSE(script.prevLine()) << "line 0 is not examined backwards";
    EXPECT_FALSE(script.prevLine());
    EXPECT_FALSE(script.skipComment(0));
}

TEST_F(ProductionScriptTest, ParsingALineFromTheHost)
{
    _tPM_Command command = script.Parsing("key press 1");
    EXPECT_STREQ("key", command.szWorker);
    EXPECT_STREQ("press", command.szParam[0]);
    EXPECT_STREQ("1", command.szParam[1]);
    EXPECT_EQ(2, command.nParamCount);

    command = script.Parsing("w p1 p2 p3 p4 p5 p6 p7 p8 p9 p10 p11");
    EXPECT_EQ(10, command.nParamCount);
    EXPECT_STREQ("p10", command.szParam[9]);

    command = script.Parsing("alone ");
    EXPECT_STREQ("alone", command.szWorker);
    EXPECT_EQ(-1, command.nParamCount);
    EXPECT_TRUE(command == -1);

    command = script.Parsing("nospace");
    EXPECT_STREQ("nospace", command.szWorker) << "a short spaceless line comes out whole";
    EXPECT_EQ(-1, command.nParamCount);

    command = script.Parsing(nullptr);
    EXPECT_TRUE(command == -1);
}

TEST_F(ProductionScriptTest, CommandRecordCopiesResetsAndComparesAsTheLoopsExpect)
{
    _tPM_Command command = script.Parsing("cmd a b");
    char data[4] = "xyz";
    command.pData = data;
    EXPECT_TRUE(command == -1) << "data set: treated as present";
    _tPM_Command copy;
    copy = command;
    EXPECT_EQ(data, copy.pData);
    EXPECT_STREQ("b", copy.szParam[1]);
    copy = 0;
    EXPECT_STREQ("", copy.szWorker);
    EXPECT_EQ(nullptr, copy.pData);
    EXPECT_EQ(-1, copy.nParamCount);
}

TEST_F(ProductionScriptTest, ExampleScriptRunsItsLoopAndEnds)
{
    ASSERT_TRUE(MountText("// lens and shutter check\n"
                          "label ADJ_00\n"
                          "lens init 1\n"
                          "label LOOP1\n"
                          "shutter speed 1 2\n"
                          "goto LOOP1 2\n"
                          "delay 1000 ms\n"));
    EXPECT_EQ(1, script.findLabel("ADJ_00"));
    EXPECT_EQ(3, script.findLabel("LOOP1"));
    EXPECT_EQ((std::vector<std::string>{"lens init 1", "shutter speed 1 2", "shutter speed 1 2", "shutter speed 1 2",
                                        "delay 1000 ms"}),
              RunAll());
    EXPECT_TRUE(script.isEOF());
}

TEST_F(ProductionScriptTest, GotoCountsDecideHowOftenTheBodyRuns)
{
    ASSERT_TRUE(MountText("label L\nbody run 1\ngoto L 1\nend x\n"));
    EXPECT_EQ((std::vector<std::string>{"body run 1", "body run 1", "end x"}), RunAll());

    ASSERT_TRUE(MountText("label L\nbody run 1\ngoto L 0\nend x\n"));
    EXPECT_EQ(20u, RunAll(20).size()) << "a count of 0 loops forever";

    ASSERT_TRUE(MountText("label A\na 1\ngoto A 1\nlabel B\nb 1\ngoto B 2\n"));
    EXPECT_EQ((std::vector<std::string>{"a 1", "a 1", "b 1", "b 1", "b 1"}), RunAll())
        << "the counter is back at 0 after the first loop";
}

TEST_F(ProductionScriptTest, NestedLoopsShareOneCounter)
{
    ASSERT_TRUE(MountText("label OUT\nouter 1\nlabel IN\ninner 1\ngoto IN 1\ngoto OUT 1\nend 1\n"));
    // The first goto IN sets the counter to 1 and jumps; the second counts it down to 0 and
    // falls through; goto OUT then starts afresh with 1, which the next goto IN uses up at
    // once: from then on the inner body runs once per outer pass, and the outer loop never ends.
    const auto run = RunAll(30);
    ASSERT_EQ(30u, run.size());
    EXPECT_EQ("outer 1", run[0]);
    EXPECT_EQ("inner 1", run[1]);
    EXPECT_EQ("inner 1", run[2]);
    for (size_t i = 3; i < run.size(); ++i) EXPECT_EQ(i % 2 == 1 ? "outer 1" : "inner 1", run[i]) << "command " << i;
}

TEST_F(ProductionScriptTest, BrokenGotosAreReportedAndEndTheRun)
{
    struct Case {
        const char* name;
        const char* text;
    };
    const Case cases[] = {
        {"unknown label", "a 1\ngoto NOWHERE 2\nb 1\n"},
        {"no count", "label L\na 1\ngoto L\nb 1\n"},
        {"endless loop without a command", "a 1\ngoto L 0\nlabel L\ngoto L 0\nb 1\n"},
        {"endless counted loops without a command", "a 1\ngoto L 1\nlabel L\ngoto L 1\ngoto L 1\nb 1\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(MountText(c.text));
        const unsigned long before = pm::AssertionCount();
        testing::internal::CaptureStdout();
        const auto run = RunAll();
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ((std::vector<std::string>{"a 1"}), run);
        EXPECT_EQ(before + 1, pm::AssertionCount());
        EXPECT_NE(std::string::npos,
                  out.find("Assertion Failed! --- File lib/production-mode/src/CProductionScript.cpp Line "));
    }
}

TEST_F(ProductionScriptTest, LabelRulesWhenIndexing)
{
    testing::internal::CaptureStdout();
    ASSERT_TRUE(MountText("label X\na 1\nlabel X\nb 1\nlabel \nlabel LAST"));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(2, script.findLabel("X")) << "the later label of a name wins";
    EXPECT_EQ(-1, script.findLabel("LAST")) << "a last line without a newline is not indexed";
    EXPECT_NE(std::string::npos, out.find("Assertion Failed!")) << "a nameless label is reported";
}

TEST_F(ProductionScriptTest, LabelFollowedByGotoIsPassedOverWhenFallenInto)
{
    ASSERT_TRUE(MountText("a 1\nlabel L\ngoto L 3\nb 1\n"));
    EXPECT_EQ((std::vector<std::string>{"a 1", "b 1"}), RunAll());
}

TEST_F(ProductionScriptTest, UnmountForgetsTheText)
{
    ASSERT_TRUE(MountText("label L\na 1\n"));
    EXPECT_TRUE(script.Unmount());
    EXPECT_TRUE(script.isEOF());
    EXPECT_EQ(-1, script.findLabel("L"));
    EXPECT_EQ("", Line(0));
    EXPECT_TRUE(RunAll().empty());
}

} // namespace
