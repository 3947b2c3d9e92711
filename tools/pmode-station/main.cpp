// pmode-station: the factory line's station. Drives a camera over the host link as
// pmode-pc does, keeps every session in the results database and serves the
// operator's pages on 127.0.0.1: the session live, and the history.
#include "DeviceRoot.h"
#include "EventHub.h"
#include "HostLinkClient.h"
#include "RequestBatch.h"
#include "ResultStore.h"
#include "SessionRunner.h"
#include "SharedStore.h"
#include "StationServer.h"
#include "ToolCommandLine.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <thread>

namespace {

std::string hostName()
{
    char name[256] = {};
    return gethostname(name, sizeof name - 1) == 0 && name[0] != '\0' ? name : "station";
}

/// The folder of the page's files: "web" beside the program, as the build puts
/// them; otherwise the installed data folder, relative to the program.
std::string defaultWebDir()
{
    std::error_code ignored;
    const std::filesystem::path programDir = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
    const std::filesystem::path beside = programDir / "web";
    if (std::filesystem::is_regular_file(beside / "index.html", ignored)) return beside.string();
    return (programDir / PM_STATION_INSTALLED_WEB).lexically_normal().string();
}

/// Stops the server and the session under way at SIGINT or SIGTERM (blocked in every thread; taken here).
std::thread signalWatcher(sigset_t signals, StationServer& server, SessionRunner& runner)
{
    return std::thread([signals, &server, &runner] {
        int signal = 0;
        sigwait(&signals, &signal);
        if (signal == SIGUSR1) return; // the station ends by itself
        std::fprintf(stderr, "pmode-station: stopped by %s\n", signal == SIGINT ? "SIGINT" : "SIGTERM");
        runner.Stop();
        server.Stop();
    });
}

} // namespace

static int runTool(int argc, char** argv)
{
    CLI::App app("The factory line's station: drives a camera over the host link as pmode-pc does, keeps every "
                 "session in a results database and serves the operator's live and history pages on 127.0.0.1.",
                 "pmode-station");
    toolcli::Describe(app,
                      "0 the station served until it was stopped (SIGINT, SIGTERM); 1 it could not start (the "
                      "database, the port, the page's files); 2 a wrong argument, a bad batch file or no device root");
    std::string given, db = "pmode-station.db", batchPath, name = hostName(), webDir = defaultWebDir();
    int port = 8080;
    double timeout = 10.0, wait = 10.0;
    app.add_option("--root", given, std::string("the device root (default: $PMODE_ROOT); ") + devroot::kHowToGive)
        ->type_name("DIR");
    app.add_option("--port", port, "the port on 127.0.0.1 (default 8080; 0 picks a free one)")
        ->type_name("N")
        ->check(toolcli::Whole(0, 65535));
    app.add_option("--db", db,
                   "the results database: an SQLite file (default pmode-station.db in the current folder) or "
                   "postgresql://...")
        ->type_name("WHERE");
    app.add_option("--batch", batchPath, "run this batch file as a session at start")->type_name("FILE");
    app.add_option("--name", name, "the station's name in the records (default: the host name)")->type_name("STATION");
    toolcli::AddHostLinkWaits(app, timeout, wait);
    app.add_option("--web", webDir,
                   "the folder of the page's files (default: web beside the program, or the installed one)")
        ->type_name("DIR");
    if (const int status = toolcli::Parse(app, argc, argv); status >= 0) return status;

    // Blocked before any thread starts (the key-value store's, the server's), taken by signalWatcher.
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGINT, SIGTERM, SIGUSR1}) {
        std::signal(signal, SIG_DFL); // a shell's background job starts with SIGINT ignored: sigwait would never see it
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::string root, error;
    if (!devroot::Use(given, root, error)) {
        std::fprintf(stderr, "pmode-station: %s\n", error.c_str());
        return 2;
    }
    std::vector<BatchEntry> requests;
    if (!batchPath.empty()) {
        std::vector<BatchError> errors;
        if (!LoadBatch(batchPath, requests, errors)) {
            for (const BatchError& e : errors)
                std::fprintf(stderr, "%s%s\n", e.lineNumber > 0 ? "" : "pmode-station: ", e.Format(batchPath).c_str());
            return 2;
        }
    }
    if (!std::filesystem::is_regular_file(webDir + "/index.html")) {
        std::fprintf(stderr, "pmode-station: the page's files are not in %s (give --web DIR)\n", webDir.c_str());
        return 1;
    }
    std::unique_ptr<station::ResultStore> opened = station::OpenResultStore(db, error);
    if (!opened || !opened->Prepare(error)) {
        std::fprintf(stderr, "pmode-station: cannot use the results database %s: %s\n", db.c_str(), error.c_str());
        return 1;
    }
    const std::optional<int> unfinished = opened->MarkUnfinished(name, error);
    if (!unfinished) {
        std::fprintf(stderr, "pmode-station: cannot mark the unfinished sessions: %s\n", error.c_str());
        return 1;
    }
    if (*unfinished > 0) std::printf("station: %d unfinished session(s) of %s marked\n", *unfinished, name.c_str());
    SharedStore store(std::move(opened));

    HostLinkClient client;
    if (!client.Open()) {
        std::fprintf(stderr, "pmode-station: cannot subscribe to the answer keys below %s\n", root.c_str());
        return 1;
    }

    EventHub hub;
    SessionRunner runner(store, hub, client,
                         RunnerSettings{name, static_cast<int>(timeout * 1000), static_cast<int>(wait * 1000)});
    StationServer server(store, hub, runner, webDir);
    const int bound = server.Bind(port);
    if (bound < 0) {
        std::fprintf(stderr, "pmode-station: cannot listen on 127.0.0.1:%d\n", port);
        return 1;
    }
    std::printf("station: http://127.0.0.1:%d/\n", bound);
    std::fflush(stdout);
    std::thread watcher = signalWatcher(signals, server, runner);
    if (!requests.empty()) runner.Start(batchPath, std::move(requests));
    const bool served = server.Listen();
    runner.Stop();
    runner.Join();
    pthread_kill(watcher.native_handle(), SIGUSR1);
    watcher.join();
    return served ? 0 : 1;
}

int main(int argc, char** argv)
{
    return toolcli::Guarded("pmode-station", runTool, argc, argv);
}
