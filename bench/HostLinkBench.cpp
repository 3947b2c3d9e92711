// A host-link round trip from the factory PC's client to a running pmode-sim and back,
// beside its floor: two hops between processes through inotify (a file made here wakes
// the other process, which makes one that wakes this one).
#include "BenchSupport.h"
#include "HostLinkClient.h"

#include <signal.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

using pmbench::Root;

/// Waits until a file of that name is closed after writing in the watched folder.
void waitForFile(int inotify, const std::string& name)
{
    alignas(inotify_event) char events[4096];
    for (;;) {
        const ssize_t got = read(inotify, events, sizeof events);
        if (got <= 0) std::abort();
        for (char* p = events; p < events + got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(p);
            if (event->len > 0 && name == event->name) return;
            p += sizeof(inotify_event) + event->len;
        }
    }
}

void touch(const std::string& path)
{
    std::ofstream(path, std::ios::trunc) << '1';
}

/// A process that answers every "ping" with a "pong"; ends with its parent.
pid_t startEcho(const std::string& dir)
{
    const int inotify = inotify_init1(IN_CLOEXEC);
    if (inotify < 0 || inotify_add_watch(inotify, dir.c_str(), IN_CLOSE_WRITE) < 0) std::abort();
    const pid_t child = fork();
    if (child == 0) {
        for (;;) {
            waitForFile(inotify, "ping");
            touch(dir + "/pong");
        }
    }
    close(inotify);
    return child;
}

pid_t startCamera()
{
    Root(); // made here, so the camera and this client share it
    const pid_t camera = fork();
    if (camera == 0) {
        const std::string card = std::string(PM_SOURCE_DIR) + "/examples/card";
        const std::string sim = std::string(PM_BINARY_DIR) + "/tools/pmode-sim/pmode-sim";

        if (freopen("/dev/null", "w", stdout) == nullptr) _exit(127);
        execl(sim.c_str(), sim.c_str(), "--root", Root().Dir().c_str(), "--card", card.c_str(), "--host-link",
              "--serve-seconds", "600", static_cast<char*>(nullptr));
        _exit(127);
    }
    return camera;
}

/// The camera, this program's client to it, and the echo for the floor: started once
/// (the benchmark function runs more than once), ended at exit.
class Peers {
public:
    Peers() : m_camera(startCamera()), m_dir(Root().Host("/tmp"))
    {
        m_ready = m_client.Open() && m_client.WaitForCamera(30000);
        m_echo = startEcho(m_dir);
        m_inotify = inotify_init1(IN_CLOEXEC);
        if (m_inotify < 0 || inotify_add_watch(m_inotify, m_dir.c_str(), IN_CLOSE_WRITE) < 0) std::abort();
    }
    ~Peers()
    {
        close(m_inotify);
        for (const pid_t child : {m_camera, m_echo}) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
    bool Ready() const { return m_ready; }
    /// One request to the camera (a check its worker answers at once); false without an answer.
    bool Request() { return m_client.SendLine("line_process usb check", 5000).kind != HostAnswer::NONE; }
    /// The floor: a file made here wakes the echo, whose file wakes this process.
    void PingPong()
    {
        touch(m_dir + "/ping");
        waitForFile(m_inotify, "pong");
    }

private:
    pid_t m_camera;
    std::string m_dir;
    HostLinkClient m_client;
    bool m_ready = false;
    pid_t m_echo = -1;
    int m_inotify = -1;
};

void BM_HostLinkRoundTrip(benchmark::State& state)
{
    static Peers peers;
    if (!peers.Ready()) {
        state.SkipWithError("the camera did not start");
        return;
    }
    pmbench::AgainstFloor(
        state,
        [&] {
            if (!peers.Request()) state.SkipWithError("no answer");
        },
        [&] { peers.PingPong(); });
    state.counters["requests_per_s"] = state.counters["op_ns"] > 0 ? 1e9 / state.counters["op_ns"] : 0;
}
BENCHMARK(BM_HostLinkRoundTrip)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
