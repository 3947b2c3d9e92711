#include "CProductionScript.h"
#include "ControllerTestKit.h"
#include "TraceCapture.h"

namespace {

using controller_test::describe;
using Lines = std::vector<std::string>;

class ProductionScriptTest : public ::testing::Test {
protected:
    bool MountText(const std::string& text)
    {
        root.WriteFile("/mnt/mmc/script.txt", text);
        return script.Mount("/mnt/mmc/script.txt");
    }

    /// The commands the script-mode loop reads, "name p0 p1 ...", 30 at most.
    Lines RunAll()
    {
        Lines run;
        while (run.size() < 30) {
            script.Parsing();
            const _tPM_Command command = script.Read();
            if (command == -1) break;
            run.push_back(describe(command));
        }
        return run;
    }

    /// Line `index`, or "untouched" when the reader leaves the buffer alone.
    std::string Line(int index)
    {
        char out[PM_LINE_SIZE] = "untouched";
        script.get1LineString(out, index);
        return out;
    }

    TraceCapture traces;
    TestRoot root;
    CProductionScript script;
};

TEST_F(ProductionScriptTest, MountRefusesBadFilesIndexesLabelsAndLinesOfAtMost509BytesWithoutCrAndUnmountForgets)
{
    EXPECT_FALSE(script.Mount(nullptr));
    EXPECT_FALSE(script.Mount("/mnt/mmc/none.txt")) << "nothing loaded before";
    EXPECT_FALSE(MountText(""));
    EXPECT_EQ((Lines{"\x1b[mNo Script file Name!!!\x1b[m\n", "\x1b[m Script file size is 0!!!\x1b[m\n"}), traces.lines);

    ASSERT_TRUE(MountText("// intro\nlens init 1\n"));
    EXPECT_EQ("untouched", Line(3)) << "past the end";
    EXPECT_TRUE(script.Mount("/mnt/mmc/missing.txt")) << "re-indexes the old text";
    EXPECT_EQ((Lines{"lens init 1"}), RunAll());
    root.WriteFile("/mnt/mmc/empty.txt", "");
    EXPECT_FALSE(script.Mount("/mnt/mmc/empty.txt"));
    EXPECT_EQ("lens init 1", Line(1));

    const unsigned long before = pm::AssertionCount();
    ASSERT_TRUE(MountText("label X\na 1\nlabel X\nb 1\nlabel \nlabel LAST"));
    EXPECT_EQ(before + 1, pm::AssertionCount()) << "a nameless label is a failed check";
    EXPECT_EQ(2, script.findLabel("X")) << "the later label wins";
    EXPECT_EQ(-1, script.findLabel("LAST")) << "a last line without a newline is not indexed";
    EXPECT_TRUE(script.Unmount());
    EXPECT_EQ(-1, script.findLabel("X"));
    EXPECT_TRUE(RunAll().empty());

    const std::string longLine = "cmd " + std::string(600, 'x');
    ASSERT_TRUE(MountText("a b\r\n// c\n" + longLine + "\nc d\n"));
    EXPECT_EQ("a b", Line(0));
    EXPECT_EQ(longLine.substr(0, 509), Line(2));
    EXPECT_EQ("c d", Line(3));
    EXPECT_EQ("untouched", Line(4)) << "an empty last line leaves the buffer alone";
    EXPECT_TRUE(script.nextLine()) << "over the comment";
    EXPECT_FALSE(script.prevLine()) << "line 0 is not examined backwards";
    EXPECT_FALSE(script.prevLine());
    EXPECT_FALSE(script.skipComment(0));
    EXPECT_TRUE(script.nextLine());
    EXPECT_TRUE(script.nextLine());
    EXPECT_FALSE(script.nextLine()) << "the last line is empty: the end";
    EXPECT_TRUE(script.isEOF());
}

TEST_F(ProductionScriptTest, WordsSplitByTheWordRulesMakeCommandsOfTenParametersAndRunsFollowCountedGotos)
{
    const std::string word49(49, 'w'), word50(50, 'w');
    const struct { const char* name; std::string line; int index; bool found; std::string word; } cases[] = {
        {"first word", "key press 1", 0, true, "key"}, {"third word", "key press 1", 2, true, "1"},
        {"past the last word", "key press 1", 3, false, ""}, {"runs of separators", "  a \t\t b", 1, true, "b"},
        {"tab only, no space", "a\tb", 0, false, "a\tb"}, {"single word, no space", "step_end", 0, false, "step_end"},
        {"word of 49 bytes", word49 + " x", 0, true, word49}, {"word of 50 bytes", word50 + " x", 0, false, ""},
        {"CR LF cut", "a b\r\n", 1, true, "b"}, {"empty line", "", 0, false, ""}, {"newline only", "\n", 0, false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        char out[PM_WORD_SIZE] = {};
        EXPECT_EQ(c.found, script.getParam(c.line.c_str(), c.index, out));
        EXPECT_EQ(c.word, std::string(out));
    }
    char out[PM_LINE_SIZE] = {};
    EXPECT_TRUE(script.sumRemainString(1, 3, "cmd a\tb  c d", out));
    EXPECT_STREQ("a b c", out);
    EXPECT_FALSE(script.sumRemainString(2, 2, "cmd a b c", out));
    EXPECT_TRUE(script.sumRemainString(2, 9, "cmd a b c", out)) << "stops at the first missing word";
    EXPECT_STREQ("b c", out);
    EXPECT_FALSE(script.sumRemainString(5, 9, "cmd a b c", out));

    _tPM_Command command = script.Parsing("alone ");
    EXPECT_STREQ("alone", command.szWorker);
    EXPECT_TRUE(command == -1) << "no parameters";
    EXPECT_TRUE(script.Parsing(nullptr) == -1);
    command = script.Parsing("w p1 p2 p3 p4 p5 p6 p7 p8 p9 p10 p11");
    EXPECT_EQ("w p1 p2 p3 p4 p5 p6 p7 p8 p9 p10", describe(command));
    char data[8] = "payload";
    command.pData = data;
    EXPECT_TRUE(command == -1) << "data set: treated as present";
    _tPM_Command copy;
    copy = command;
    EXPECT_EQ("w p1 p2 p3 p4 p5 p6 p7 p8 p9 p10 | 0 0 0 0 | payload", describe(copy));

    Lines nested{"outer 1", "inner 1"};
    for (int i = 2; i < 30; ++i) nested.push_back(i % 2 == 1 ? "outer 1" : "inner 1");
    const struct { const char* name; std::string text; Lines run; unsigned long failedChecks; } runs[] = {
        {"comments, blank and spaceless lines",
         "// note here\n\nstep_end\na\tb\n/a//b c\n" + std::string(50, 'x') + " p\n#note 1\nx 1\n", {"#note 1", "x 1"}, 0},
        {"count 1", "label L\nbody run 1\ngoto L 1\nend x\n", {"body run 1", "body run 1", "end x"}, 0},
        {"counter back at 0 after a loop", "label A\na 1\ngoto A 1\nlabel B\nb 1\ngoto B 2\n", {"a 1", "a 1", "b 1", "b 1", "b 1"}, 0},
        {"nested loops share one counter: the outer never ends",
         "label OUT\nouter 1\nlabel IN\ninner 1\ngoto IN 1\ngoto OUT 1\nend 1\n", nested, 0},
        {"label then goto fallen into", "a 1\nlabel L\ngoto L 3\nb 1\n", {"a 1", "b 1"}, 0}, {"no count", "label L\na 1\ngoto L\nb 1\n", {"a 1"}, 1},
        {"endless loop without a command", "a 1\ngoto L 0\nlabel L\ngoto L 0\nb 1\n", {"a 1"}, 1},
        {"endless counted loops without a command", "a 1\ngoto L 1\nlabel L\ngoto L 1\ngoto L 1\nb 1\n", {"a 1"}, 1},
    };
    for (const auto& c : runs) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(MountText(c.text));
        const unsigned long before = pm::AssertionCount();
        EXPECT_EQ(c.run, RunAll());
        EXPECT_EQ(before + c.failedChecks, pm::AssertionCount());
        EXPECT_EQ(c.failedChecks == 0 && c.run.size() < 30, script.isEOF()) << "a finished run is at the end";
    }
}

TEST(ReportTest, ErrorLogIsRedOnStdoutCutAndLoggedTracesReachOnlyASinkAndTheDisplayTakesAnyText)
{
    TestRoot root;
    testing::internal::CaptureStdout();
    PM_ERROR_LOG("Wrong Line ID %d\n", 144);
    PM_ERROR_LOG("%s", std::string(400, 'x').c_str());
    EXPECT_EQ("\x1b[31mWrong Line ID 144\x1b[m\n\n\x1b[31m" + std::string(255 - 9, 'x') + "\x1b[m\n\n",
              testing::internal::GetCapturedStdout());
    EXPECT_THAT(root.ReadFile("/var/log/dlog.log"), testing::HasSubstr(" E/PMODE(3): ProductionScriptTest.cpp: TestBody("));

    {
        TraceCapture traces;
        PM_TRACE("Finalize-Done");
        PM_TRACE_RED("line %d\n", 3);
    }
    PM_TRACE("not seen");
    EXPECT_EQ((std::vector<std::string>{"\x1b[mFinalize-Done\x1b[m\n", "\x1b[31mline 3\x1b[m\n"}), TraceCapture::lines);
    CProductionOSD* osd = CProductionOSD::GetInstance();
    osd->Text(0, "%s", std::string(2000, 'x').c_str());
    osd->Text(0, nullptr);
    EXPECT_EQ(0, osd->OSD_getTouchResult());
}

} // namespace
