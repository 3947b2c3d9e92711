// pmode-sim: the simulated camera body.
//
//   pmode-sim [run] [options]
//       runs the card as the camera would (options and exit statuses: SimRun.h);
//       "run" is the command when the first word is none of run, check, -h,
//       --help, --version.
//   pmode-sim check [--max N] [--quiet] SCRIPT
//       checks a production script without running anything (see ScriptChecker.h);
//       --max N (1 to 1000000, default 100) bounds the resolved run, --quiet leaves
//       it out; exit status 1 when it finds an error (a directory, an unreadable or
//       a binary file is one), 0 otherwise, 2 for a wrong argument.
//   pmode-sim --help | --version
#include "ScriptChecker.h"
#include "SimRun.h"
#include "ToolCommandLine.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct CheckOptions {
    long bound = 100;
    bool quiet = false;
    std::string path;
};

CLI::App* addCheckCommand(CLI::App& app, CheckOptions& options)
{
    CLI::App* check = app.add_subcommand("check", "check a production script without running it: reports binary data, "
                                                  "passed-over lines, long words, unserved commands, broken gotos and "
                                                  "labels, then prints the resolved run");
    check->add_option("--max", options.bound, "show at most N commands of the resolved run (default 100)")
        ->type_name("N")
        ->transform(toolcli::Whole(1, 1000000));
    check->add_flag("--quiet", options.quiet, "leave the resolved run out");
    check->add_option("SCRIPT", options.path, "the script file")->required();
    return check;
}

int runCheck(const CheckOptions& options)
{
    const char* path = options.path.c_str();
    std::string text, error;
    if (!ReadScriptFile(path, text, error)) {
        std::fprintf(stderr, "%s: error: %s\n", path, error.c_str());
        return 1;
    }

    // The script is a file of this machine: the reader opens it without the device-root mapping.
    unsetenv("PMODE_ROOT");
    RegisterGroupProbes();
    ScriptChecker checker(RegistryResolver(), true, static_cast<int>(options.bound));
    CheckResult result = checker.Check(text, path);
    ScriptChecker::Print(result, path, !options.quiet, stdout);
    return result.Errors() > 0 ? 1 : 0;
}

/// The command line with "run" put in when no command is named.
std::vector<char*> withCommand(int argc, char** argv)
{
    std::vector<char*> words(argv, argv + argc);
    static char run[] = "run";
    const char* first = argc > 1 ? argv[1] : "";
    bool named = false;
    for (const char* word : {"run", "check", "-h", "--help", "--version"})
        named = named || std::strcmp(first, word) == 0;
    if (!named) words.insert(words.begin() + 1, run);
    return words;
}

} // namespace

static int runTool(int argc, char** argv)
{
    CLI::App app("The simulated camera body: runs a memory card's production script, or serves a factory PC over "
                 "the host link, with the demo worker plug-ins; checks production scripts.",
                 "pmode-sim");
    const std::string runStatuses =
        "0 the run passed; 1 the run failed (a command of a script failed, a failed check "
        "was reported, the pre-flight check found an error, no command ran, the adjust data "
        "could not be initialised or saved); 2 a wrong argument or set-up (the report cannot "
        "be written, no worker, ...); 3 the card starts no production run; 4 timed out or "
        "interrupted (script mode, or host-link mode before the channel came up)";
    const std::string checkStatuses = "0 no error found; 1 an error found; 2 a wrong argument";
    toolcli::Describe(app, "run: " + runStatuses + "; check: " + checkStatuses);
    app.require_subcommand(1);
    CLI::App* run = AddRunCommand(app);
    run->footer("exit status: " + runStatuses);
    CheckOptions checkOptions;
    addCheckCommand(app, checkOptions)->footer("exit status: " + checkStatuses);
    std::vector<char*> words = withCommand(argc, argv);
    if (const int status = toolcli::Parse(app, static_cast<int>(words.size()), words.data()); status >= 0)
        return status;
    return run->parsed() ? RunSimulator() : runCheck(checkOptions);
}

int main(int argc, char** argv)
{
    return toolcli::Guarded("pmode-sim", runTool, argc, argv);
}
