#include "SimRun.h"

#include "CAdjustDataManager.h"
#include "CProductionMode.h"
#include "CWorkerFactory.h"
#include "ObservedWorker.h"
#include "PluginLoader.h"
#include "PmodeSimHost.h"
#include "RunLog.h"
#include "ScriptChecker.h"
#include "kernel.h"
#include "vconf.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
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

void onSignal(int)
{
    g_stop = true;
}

struct Options {
    std::string root;
    std::string card;
    std::string plugins = PMODE_SIM_PLUGIN_DIR;
    std::string json;
    bool hostLink = false;
    long step = -1;
    double serveSeconds = -1.0;
    double timeoutSeconds = 600.0;
    bool check = true;
    bool quiet = false;
};

int usage()
{
    std::fputs("usage: pmode-sim [run] [--root DIR] [--card DIR] [--plugins DIR] [--host-link] [--step N]\n"
               "                 [--serve-seconds N] [--timeout SEC] [--json FILE] [--no-check] [--quiet]\n"
               "       pmode-sim check [--max N] [--quiet] SCRIPT\n",
               stderr);
    return kExitUsage;
}

bool parseOptions(int argc, char** argv, Options& options)
{
    for (int i = 0; i < argc; ++i) {
        std::string option = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) return false;
            out = argv[++i];
            return true;
        };
        std::string text;
        if (option == "--root") { if (!value(options.root)) return false; }
        else if (option == "--card") { if (!value(options.card)) return false; }
        else if (option == "--plugins") { if (!value(options.plugins)) return false; }
        else if (option == "--json") { if (!value(options.json)) return false; }
        else if (option == "--step") { if (!value(text)) return false; options.step = std::strtol(text.c_str(), nullptr, 10); }
        else if (option == "--serve-seconds") { if (!value(text)) return false; options.serveSeconds = std::strtod(text.c_str(), nullptr); }
        else if (option == "--timeout") { if (!value(text)) return false; options.timeoutSeconds = std::strtod(text.c_str(), nullptr); }
        else if (option == "--host-link") options.hostLink = true;
        else if (option == "--no-check") options.check = false;
        else if (option == "--quiet") options.quiet = true;
        else return false;
    }
    return options.timeoutSeconds > 0 && options.step >= -1;
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
    std::error_code failure;
    fs::create_directories(options.root, failure);
    options.root = fs::absolute(options.root).lexically_normal().string();
    if (!options.root.empty() && options.root.back() == '/') options.root.pop_back();
    fs::path card = fs::path(options.root) / "mnt/mmc";
    for (const char* dir : {"mnt/mmc", "mnt/ubi1/log", "mnt/ubi1/pref", "adj", "var/log", "var/run/memory/private", "tmp"})
        fs::create_directories(fs::path(options.root) / dir, failure);
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
        std::ofstream(card / "info.tgw") << "host link\n";
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

std::vector<std::string> preflight(const std::string& script)
{
    std::ifstream file(KernelPath(script.c_str()), std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    ScriptChecker checker(RegistryResolver(), false, 1);
    CheckResult result = checker.Check(text.str(), script);
    std::vector<std::string> lines;
    for (const CheckFinding& finding : result.findings)
        lines.push_back(script + ":" + std::to_string(finding.line) + ": " + (finding.error ? "error: " : "warning: ") +
                        finding.message);
    return lines;
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
[[noreturn]] void abortRun(RunFacts& facts, const Options& options)
{
    facts.aborted = true;
    facts.exitStatus = kExitAborted;
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
            facts.ending = g_stop ? "interrupted" : "timed out after " + std::to_string(static_cast<int>(options.timeoutSeconds)) + " s";
            waiter.detach();
            abortRun(facts, options);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    waiter.join();
    controller->Finalize();
    CommandRecord failure;
    facts.ending = RunLog::Get().FirstFailure(failure) ? "stopped at a failing command" : "end of the script";
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
    facts.ending = g_stop ? "stopped by a signal" : "served " + std::to_string(static_cast<int>(options.serveSeconds)) + " s";
    return RunLog::Get().Failed() > 0 ? kExitFailed : kExitPassed;
}

} // namespace

int RunSimulator(int argc, char** argv)
{
    Options options;
    if (!parseOptions(argc, argv, options)) return usage();
    std::string error;
    if (!prepareRoot(options, error)) {
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

    CAdjustDataManager* adjust = CAdjustDataManager::GetInstance();
    adjust->Initialize();
    if (options.step >= 0) {
        int32_t step = static_cast<int32_t>(options.step);
        adjust->SetData(kLineNextStep, &step, 4, true);
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
    std::printf("plug-ins: %zu loaded from %s; workers:%s\n", plugins.loaded.size(), options.plugins.c_str(), groupList.c_str());

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
        if (options.check && !facts.script.empty()) {
            facts.preflight = preflight(facts.script);
            for (const std::string& line : facts.preflight) std::printf("pre-flight: %s\n", line.c_str());
        }
        char label[32];
        std::snprintf(label, sizeof label, resume <= 9 ? "ADJ_0%1d" : "ADJ_%2d", resume);
        std::printf("script mode: %s%s, from step %d (label %s)\n", facts.script.c_str(),
                    kind == 3 ? " (Wi-Fi certification)" : "", resume, label);
        std::printf("------------------------------------------------------------------------\n");
        std::fflush(stdout);
        status = runScript(controller, facts, options, start);
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
    facts.seconds = since(start);
    facts.exitStatus = status;
    RunLog::Get().PrintSummary(facts, stdout);
    if (!options.json.empty() && !RunLog::Get().WriteJson(facts, options.json)) {
        std::fprintf(stderr, "pmode-sim: cannot write %s\n", options.json.c_str());
        if (status == kExitPassed) status = kExitUsage;
    }
    return status;
}
