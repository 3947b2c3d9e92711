// pmode-sim check: the script checker names each fault at its line, shows the run the
// camera would make, and its exit status says whether an error was found.
#include "PmodeToolRun.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(ScriptCheckerTest, EachFaultIsFoundAtItsLineAndTheResolvedRunStopsWhereTheCameraStops)
{
    TestRoot root;
    const std::string path = root.Host("/script.adj");
    const std::string warnings = "label ADJ_00\nkey\tcheck\tmenu\nstep_end\nlabel L\nkey check menu\ngoto L 2x\nlabel ADJ_1\n"
                                 "key check b\nlabel M\ngoto M 2\nkey check 1 2 3 4 5 6 7 8 9 10 11\nmenu_setup check " +
                                 std::string(49, 'w') + "\n";
    const std::string errors = "label ADJ_00\nkey check menu\n" + std::string(50, 'k') + " check 1\nkey check " + std::string(50, 'a') +
                               " x\nfocus check 1\nstrobe flash_write 1\nline_process nosuch 1\nlabel L\nkey check menu\ngoto L\n"
                               "goto L 0\ngoto L -2\ngoto L twice\ngoto M 1\nlabel OUT\nkey check a\nlabel IN\nkey check b\n"
                               "goto IN 2\ngoto OUT 1\nlabel L\nlabel \n#note check 1\nkey check " + std::string(40, 'x') + " " +
                               std::string(479, 'x') + "\nlabel ADJ_02\nkey check c\nlabel END";
    const std::pair<std::string, pmtool::Expected> cases[] = { // a script; its check, run on "script"
        {warnings, {"", 0, {"script:2: warning: words separated only by tabs", "script:3: warning: 'step_end' alone on a line",
                                   "script:6: warning: goto count '2x' is read as 2", "script:11: warning: 13 words",
                                   "script:7: warning: label 'ADJ_1' is never a resume point (step 1 resumes at 'ADJ_01')",
                                   "script:10: warning: goto right after a label line", "script: 0 errors, 6 warnings"}}},
        {errors, {"", 1, {"script:3: error: first word is 50 bytes (at most 49)",
                                 "script:4: error: word 3 ('aaaaaaaaaaaaaaaaaaaa...') is 50 bytes",
                                 "script:5: error: no worker group serves 'focus'",
                                 "script:6: error: no worker group serves 'strobe' ('strobe' is a sub-command: line_process strobe ...?)",
                                 "script:7: error: no worker group serves 'line_process nosuch': sub-command 'nosuch' is in no group",
                                 "script:10: error: goto 'L' without a count",
                                 "script:11: error: goto count '0' is read as 0: the loop never ends",
                                 "script:12: error: goto count '-2' is read as -2", "script:13: error: goto count 'twice' is read as 0",
                                 "script:14: error: goto to unknown label 'M'",
                                 "script:19: error: counted loop 'IN' lies inside the loop of line 20",
                                 "script:21: error: label 'L' defined twice (first on line 8)", "script:22: error: label without a name",
                                 "script:23: error: no worker group serves '#note' (comments start with //)",
                                 "script:24: warning: line of 530 bytes: the reader sees only the first 509",
                                 "script:25: error: resume label 'ADJ_01' is missing",
                                 "script:27: error: label 'END' on the last line without a newline",
                                 "not resolved: fix the label and goto errors first"}}},
        {std::string("key check a\nkey check b\0key check c\n", 36),
         {"", 1, {"script:2: error: binary data (byte 0x00 at offset 23): not a text file; the reader sees nothing after a NUL byte"}}},
        {"key check a\nkey check \x01\n", {"", 1, {"script:2: error: binary data (byte 0x01 at offset 22)"}}},
        {"label ADJ_01\nkey check a\n", {"", 1, {"script:1: error: resume label 'ADJ_00' is missing"}}},
        {"", {"", 0, {"the script is empty: nothing runs"}}},
        {"// comment\r\n\r\n   \r\n/x//y also a comment\r\nlabel ADJ_00\r\nkey check menu\r\n",
         {"", 0, {"script: 0 errors, 0 warnings, 1 command in the resolved run"}}},
        // The resolved run: counted loops unrolled, each command with the group that serves it; cut
        // where a command has no parameter or at the bound.
        {"label ADJ_00\nlens init 1\nlabel P\nshutter measure 1/4000\ngoto P 2\nline_process awb high 5500\nunknown_cmd x\n"
         "delay 10 ms\n",
         {"", 1, {"    1  LENS     lens init 1\n    2  CAP      shutter measure 1/4000\n    3  CAP      shutter measure 1/4000\n"
                  "    4  CAP      shutter measure 1/4000\n    5  CAP      line_process awb high 5500\n"
                  "    6  -        unknown_cmd x   (passed over: no worker)\n    7  DD       delay 10 ms\n       (end of the script)\n"}}},
        {"lens init 1\nlens \nkey check menu\n", {"", 1, {"script:2: error: command 'lens' has no parameter: the run ends here",
                                                     "    1  LENS     lens init 1\n       ('lens' has no parameter: the run ends there)\n"}}},
        {"label L\nkey check a\ngoto L 0\n", {"--max 7", 1, {"    7  UI       key check a\n       (stopped after 7 commands"}}},
    };
    for (const auto& [script, check] : cases) {
        SCOPED_TRACE(check.output.front());
        root.WriteFile("/script.adj", script);
        pmtool::Result result = pmtool::Run("pmode-sim check " + check.commandLine + " " + path);
        for (size_t at; (at = result.output.find(path)) != std::string::npos;) result.output.replace(at, path.size(), "script");
        EXPECT_EQ(result.status, check.status) << result.output;
        pmtool::ExpectHas(result.output, check.output);
    }
}

TEST(ScriptCheckerTest, ExampleCardPassesTheCheckUsingEveryWorkerGroup)
{
    pmtool::ExpectRuns({{"pmode-sim check " + pmtool::Source("examples/card/production.adj"), 0,
                         {": 0 errors, 0 warnings", "  UI ", "  CAP ", "  LENS ", "  MENU ", "  WIFI ", "  DD ", "  ETC "}}});
}

TEST(ScriptCheckerTest, UnreadableScriptAndBadUsageAreRefused)
{
    TestRoot root;
    std::vector<pmtool::Expected> runs = {{"pmode-sim check " + root.Dir() + "/none.adj", 1, {": error: cannot open the script"}},
                                          {"pmode-sim check " + root.Dir(), 1, {": error: the script is a directory, not a file"}}};
    for (const char* usage : {"", "--max 0 x.adj", "--max 4294967296 x.adj", "--max 1000001 x.adj", "--max abc x.adj", "--max 5x x.adj",
                              "--max -3 x.adj"})
        runs.push_back({std::string("pmode-sim check ") + usage, 2, {"usage: pmode-sim check"}});
    pmtool::ExpectRuns(runs);
}

} // namespace
