#include "SimRun.h"

#include "CAdjustDataManager.h"
#include "CProductionMode.h"
#include "CWorkerFactory.h"
#include "DeviceRoot.h"
#include "ObservedWorker.h"
#include "PMReport.h"
#include "PluginLoader.h"
#include "PmodeSimHost.h"
#include "RunLog.h"
#include "ScriptChecker.h"
#include "ToolCommandLine.h"
#include "kernel.h"
#include "vconf.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr int kExitPassed = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoRun = 3;
constexpr int kExitAborted = 4;
constexpr int kLineNextStep = 135;
constexpr const char* kProtocolKey = "memory/private/pmode_protocol1";

std::atomic<bool> g_stop{false};
std::atomic<bool> g_channelUp{false};
// Failed checks reported before the run's own work began, and those of the
// pre-flight checker (its reader reports what it finds in the script).
unsigned long g_checksNotOfTheRun = 0;

std::atomic<int> g_signal{0};

void onSignal(int signal)
{
    g_signal = signal;
    g_stop = true;
}

/// Seconds as given ("0.5", "60").
std::string secondsText(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g", seconds);
    return text;
}

struct Options {
    std::string root;
    std::string card;
    std::string plugins = DefaultPluginDirectory();
    std::string json;
    bool hostLink = false;
    long step = -1;
    double serveSeconds = -1.0;
    double timeoutSeconds = 600.0;
    bool force = false;
    bool quiet = false;
};

Options g_options;

/// Whether the report can be written, checked before the run: the file is opened
/// for writing (made when missing, and removed again, so that a run stopped
/// before its end leaves no empty report).
bool reportWritable(const std::string& path, std::string& error)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
        close(fd);
        unlink(path.c_str());
        return true;
    }
    const int existing = errno == EEXIST ? open(path.c_str(), O_WRONLY | O_CLOEXEC) : -1;
    if (existing >= 0) {
        close(existing);
        return true;
    }
    error = "cannot write the report " + path + ": " + std::strerror(errno);
    return false;
}

/// Makes the device root: the card, NAND and log directories; the card's files.
bool prepareRoot(Options& options, std::string& error)
{
    if (options.root.empty()) {
        char pattern[] = "/tmp/pmode-sim.XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            error = "cannot make a device root in /tmp";
            return false;
        }
        options.root = pattern;
    }
    std::string resolved;
    if (!devroot::Check(options.root, false, resolved, error)) {
        error += ": give --root DIR naming a directory of its own (without --root: a new /tmp/pmode-sim.XXXXXX)";
        return false;
    }
    options.root = resolved;
    std::error_code failure;
    fs::path card = fs::path(options.root) / "mnt/mmc";
    for (const char* dir :
         {"mnt/mmc", "mnt/ubi1/log", "mnt/ubi1/pref", "adj", "var/log", "var/run/memory/private", "tmp"}) {
        fs::create_directories(fs::path(options.root) / dir, failure);
        if (failure) {
            error = "cannot make the device directory " + (fs::path(options.root) / dir).string() + ": "
                    + failure.message();
            return false;
        }
    }
    if (!options.card.empty()) {
        if (!fs::is_directory(options.card)) {
            error = "no card directory " + options.card;
            return false;
        }
        fs::copy(options.card, card, fs::copy_options::recursive | fs::copy_options::overwrite_existing, failure);
        if (failure) {
            error = "cannot copy the card: " + failure.message();
            return false;
        }
    }
    if (options.hostLink) {
        fs::remove(card / "info.tg", failure);
        fs::remove(card / "default.adj", failure);
        std::ofstream info(card / "info.tgw");
        info << "host link\n";
        if (!info) {
            error = "cannot write info.tgw on the card";
            return false;
        }
    }
    setenv("PMODE_ROOT", options.root.c_str(), 1);
    return true;
}

/// The script the start-up checks run: "default.adj" when present, else the name in
/// "info.tg" up to its ".adj" (the same rules as the controller's, for the display).
std::string cardScript()
{
    std::ifstream info(KernelPath("/mnt/mmc/info.tg"), std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(info)), std::istreambuf_iterator<char>());
    if (text.size() > 64) return "";
    text = text.substr(0, text.find('\0'));
    size_t adj = text.find(".adj");
    if (adj == std::string::npos) return "";
    if (fs::exists(KernelPath("/mnt/mmc/default.adj"))) return "/mnt/mmc/default.adj";
    return "/mnt/mmc/" + text.substr(0, adj + 4);
}

/// Checks the card's script as `pmode-sim check` does, against the loaded workers:
/// the findings as lines into lines; the number of errors.
int preflight(const std::string& script, std::vector<std::string>& lines)
{
    const unsigned long checksBefore = pm::AssertionCount();
    std::string text, error;
    int errors = 0;
    if (script.empty()) {
        lines.push_back("error: cannot tell which script the card runs");
        errors = 1;
    } else if (!ReadScriptFile(KernelPath(script.c_str()), text, error)) {
        lines.push_back(script + ": error: " + error);
        errors = 1;
    } else {
        ScriptChecker checker(RegistryResolver(), false, 1);
        CheckResult result = checker.Check(text, script);
        for (const CheckFinding& finding : result.findings)
            lines.push_back(script + ":" + std::to_string(finding.line) + ": "
                            + (finding.error ? "error: " : "warning: ") + finding.message);
        errors = result.Errors();
    }
    g_checksNotOfTheRun += pm::AssertionCount() - checksBefore;
    return errors;
}

/// The failed checks of the run itself (the adjust data, the controller, the workers).
unsigned long failedChecksOfTheRun()
{
    return pm::AssertionCount() - g_checksNotOfTheRun;
}

/// Adds a fault for failed checks reported since the start; makes a pass a failure
/// when there is any fault.
int verdict(RunFacts& facts, int status)
{
    facts.failedChecks = failedChecksOfTheRun();
    if (facts.failedChecks > 0)
        facts.faults.push_back(std::to_string(facts.failedChecks) + " failed check"
                               + (facts.failedChecks == 1 ? "" : "s") + " reported (\"Assertion Failed!\" above)");
    return status == kExitPassed && !facts.faults.empty() ? kExitFailed : status;
}

void onProtocolKey(keynode_t* node, void*)
{
    // The host channel resets the trigger to 0 once it has subscribed to the script key.
    if (vconf_keynode_get_type(node) == VCONF_TYPE_INT && vconf_keynode_get_int(node) == 0) g_channelUp = true;
}

double since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Ends the process at once after a run that did not come to its end: the
/// controller's thread may still be inside a worker, so nothing is torn down.
[[noreturn]] void abortRun(RunFacts& facts, const Options& options, std::chrono::steady_clock::time_point start)
{
    facts.aborted = true;
    facts.seconds = since(start);
    facts.exitStatus = verdict(facts, kExitAborted);
    RunLog::Get().PrintSummary(facts, stdout);
    if (!options.json.empty()) RunLog::Get().WriteJson(facts, options.json);
    std::fflush(nullptr);
    std::_Exit(kExitAborted);
}

int runScript(CProductionMode* controller, RunFacts& facts, const Options& options,
              std::chrono::steady_clock::time_point start)
{
    std::atomic<bool> done{false};
    controller->Start();
    // The script-mode loop ends by itself; joining the thread tells when.
    std::thread waiter([&] {
        controller->Destroy();
        done = true;
    });
    while (!done) {
        if (g_stop || since(start) > options.timeoutSeconds) {
            facts.ending = g_stop ? "interrupted" : "timed out after " + secondsText(options.timeoutSeconds) + " s";
            waiter.detach();
            abortRun(facts, options, start);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    waiter.join();
    controller->Finalize();
    CommandRecord failure;
    facts.ending = RunLog::Get().FirstFailure(failure) ? "stopped at a failing command" : "end of the script";
    if (RunLog::Get().Records().empty()) facts.faults.push_back("no command was run");
    return RunLog::Get().Failed() > 0 ? kExitFailed : kExitPassed;
}

int serveHostLink(CProductionMode* controller, RunFacts& facts, const Options& options,
                  std::chrono::steady_clock::time_point start)
{
    vconf_notify_key_changed(kProtocolKey, &onProtocolKey, nullptr);
    controller->Start();
    while (!g_channelUp && since(start) < 10.0 && !g_stop) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    vconf_ignore_key_changed(kProtocolKey, &onProtocolKey);
    if (!g_channelUp) {
        controller->Finalize();
        facts.ending = g_stop ? "interrupted" : "the host channel did not come up";
        return g_stop ? kExitAborted : kExitUsage;
    }
    vconf_set_str(kSimStateKey, "serving");
    if (!options.quiet) {
        if (options.serveSeconds >= 0)
            std::printf("serving the factory PC over the host link for %.0f s (pmode-pc --root %s ...)\n",
                        options.serveSeconds, facts.root.c_str());
        else
            std::printf("serving the factory PC over the host link until stopped (pmode-pc --root %s ...)\n",
                        facts.root.c_str());
        std::fflush(stdout);
    }
    auto served = std::chrono::steady_clock::now();
    while (!g_stop && (options.serveSeconds < 0 || since(served) < options.serveSeconds))
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    vconf_set_str(kSimStateKey, "stopped");
    controller->Finalize();
    // Serving until stopped is the whole job of a host-link camera: a stop is its end, not an interruption.
    facts.ending = g_stop ? "stopped by " + std::string(g_signal == SIGTERM ? "SIGTERM" : "SIGINT")
                          : "served " + secondsText(options.serveSeconds) + " s, then stopped";
    // A failed request is an answer the PC judges (a session may provoke one on purpose); the camera's own
    // faults (failed checks, adjust data that could not be started or saved) still fail the run.
    if (RunLog::Get().Failed() > 0) facts.ending += "; failed answers are the PC's to judge";
    return kExitPassed;
}

} // namespace

CLI::App* AddRunCommand(CLI::App& app)
{
    Options& options = g_options;
    CLI::App* run = app.add_subcommand("run", "run the card as the camera would (the default command)");
    run->add_option("--root", options.root,
                    "the device root (PMODE_ROOT); default: a new /tmp/pmode-sim.XXXXXX; "
                    "one that resolves to the host's \"/\" is refused")
        ->type_name("DIR");
    run->add_option("--card", options.card, "copy the files of DIR onto the card (<root>/mnt/mmc/)")->type_name("DIR");
    run->add_option("--plugins", options.plugins, "the worker plug-ins to load (default: " + options.plugins + ")")
        ->type_name("DIR");
    run->add_flag("--host-link", options.hostLink,
                  "make the card a host-link card: write \"info.tgw\", remove "
                  "\"info.tg\" and \"default.adj\"");
    run->add_option("--step", options.step, "store N as the resume step (line value 135) before the run")
        ->type_name("N")
        ->transform(toolcli::Whole(0, INT32_MAX));
    run->add_option("--serve-seconds", options.serveSeconds,
                    "host-link mode: serve SEC seconds, then stop and pass "
                    "(default: serve until SIGINT/SIGTERM)")
        ->type_name("SEC")
        ->check(toolcli::Seconds(0.0, true, 86400.0));
    run->add_option("--timeout", options.timeoutSeconds, "script mode: give up after SEC seconds (default 600)")
        ->type_name("SEC")
        ->check(toolcli::Seconds(0.0, false, 86400.0));
    run->add_option("--json", options.json, "write the machine-readable report to FILE (checked before the run)")
        ->type_name("FILE");
    run->add_flag("--force", options.force,
                  "run a script whose pre-flight check found errors (the run is FAILED all "
                  "the same)");
    run->add_flag("--quiet", options.quiet, "no line per command (the summary only)");
    return run;
}

int RunSimulator()
{
    Options& options = g_options;
    std::string error;
    if (!prepareRoot(options, error) || (!options.json.empty() && !reportWritable(options.json, error))) {
        std::fprintf(stderr, "pmode-sim: %s\n", error.c_str());
        return kExitUsage;
    }
    struct sigaction action {};
    action.sa_handler = &onSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    RunLog::Get().SetOutput(options.quiet ? nullptr : stdout);
    auto start = std::chrono::steady_clock::now();
    RunFacts facts;
    facts.root = options.root;
    std::printf("pmode-sim: device root %s%s\n", options.root.c_str(),
                options.card.empty() ? "" : (", card from " + options.card).c_str());
    vconf_set_str(kSimStateKey, "starting");

    g_checksNotOfTheRun = pm::AssertionCount();
    CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
    adjust->Initialize();
    unsigned char checksum = 0;
    if (failedChecksOfTheRun() > 0 || !adjust->GetData(0, &checksum, 1))
        facts.faults.push_back("the adjust data could not be initialised and saved on the NAND");
    if (options.step >= 0) {
        int32_t step = static_cast<int32_t>(options.step);
        if (!adjust->SetData(kLineNextStep, &step, 4, true)) {
            std::fprintf(stderr, "pmode-sim: cannot store the resume step %ld (line value 135) on the NAND\n",
                         options.step);
            return kExitUsage;
        }
    }

    PluginLoad plugins = LoadPlugins(options.plugins);
    for (const std::string& failure : plugins.errors) std::fprintf(stderr, "pmode-sim: plug-in %s\n", failure.c_str());
    if (!CWorkerFactory::GetInstance()->IsWorkerAllReady()) {
        std::fprintf(stderr, "pmode-sim: no worker registered by the plug-ins in %s\n", options.plugins.c_str());
        return kExitUsage;
    }
    std::vector<std::string> groups = ObserveRegisteredWorkers();
    std::string groupList;
    for (const std::string& group : groups) groupList += " " + group;
    std::printf("plug-ins: %zu loaded from %s; workers:%s\n", plugins.loaded.size(), options.plugins.c_str(),
                groupList.c_str());

    CProductionMode* controller = CProductionMode::GetInstance();
    controller->Initialize();
    int kind = controller->CanPModeWorking();
    int32_t resume = 0;
    adjust->GetData(kLineNextStep, &resume, 4);
    facts.resumeStep = resume;

    int status = kExitNoRun;
    if (kind == 1 || kind == 3) {
        facts.mode = "script";
        facts.script = cardScript();
        const int errors = preflight(facts.script, facts.preflight);
        for (const std::string& line : facts.preflight) std::printf("pre-flight: %s\n", line.c_str());
        if (errors > 0)
            facts.faults.push_back("the pre-flight check found " + std::to_string(errors) + " error"
                                   + (errors == 1 ? "" : "s") + " in the script"
                                   + (options.force ? " (run forced with --force)" : ""));
        char label[32];
        std::snprintf(label, sizeof label, resume <= 9 ? "ADJ_0%1d" : "ADJ_%2d", resume);
        std::printf("script mode: %s%s, from step %d (label %s)\n", facts.script.c_str(),
                    kind == 3 ? " (Wi-Fi certification)" : "", resume, label);
        std::printf("------------------------------------------------------------------------\n");
        std::fflush(stdout);
        if (errors > 0 && !options.force) {
            facts.ending = "not run: fix the script, or run it all the same with --force";
            controller->Finalize();
            status = kExitFailed;
        } else {
            status = runScript(controller, facts, options, start);
        }
    } else if (kind == 2) {
        facts.mode = "host-link";
        status = serveHostLink(controller, facts, options, start);
    } else {
        facts.mode = "none";
        facts.ending = "the card starts no production run";
        std::printf("the card starts no production run: no runnable script named by info.tg, no info.tgw, "
                    "line value 139 not 1\n");
        controller->Start();
        controller->Destroy();
        controller->Finalize();
    }
    status = verdict(facts, status);
    facts.seconds = since(start);
    facts.exitStatus = status;
    RunLog::Get().PrintSummary(facts, stdout);
    if (!options.json.empty() && !RunLog::Get().WriteJson(facts, options.json)) {
        std::fprintf(stderr, "pmode-sim: cannot write %s\n", options.json.c_str());
        if (status == kExitPassed) status = kExitUsage;
    }
    return status;
}
