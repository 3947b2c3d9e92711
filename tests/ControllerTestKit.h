#pragma once
// Shared pieces of the controller's end-to-end tests: workers that log the
// commands they get, and a capture of the debug traces. Both are written on the
// controller's thread and read on the test's, so they share one lock.

#include "IPModeWorker.h"
#include "CWorkerFactory.h"
#include "PMReport.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace controller_test {

struct Log {
    std::mutex mutex;
    std::condition_variable traced; ///< notified with every trace
    std::vector<std::string> calls;  ///< "<worker>: <what describe() gives>", in the order of Execute
    std::vector<std::string> traces; ///< every trace composed while installed
};

inline Log& log()
{
    static Log instance;
    return instance;
}

/// "name p0 p1 ...", followed by " | nArg0 nArg1 nArg2 nArg3" when a numeric
/// argument or data is set, and " | <first 7 data bytes>" when data is set.
inline std::string describe(const _tPM_Command& command)
{
    std::string text = command.szWorker;
    for (int i = 0; i < command.nParamCount; ++i) text += std::string(" ") + command.szParam[i];
    if (command.nArg[0] || command.nArg[1] || command.nArg[2] || command.nArg[3] || command.pData) {
        text += " |";
        for (uint32_t arg : command.nArg) text += " " + std::to_string(arg);
        if (command.pData != nullptr) text += " | " + std::string(command.pData, 7);
    }
    return text;
}

/// A worker registered under a group name; logs every command it gets and
/// answers with its action's result (0 without an action).
class TestWorker : public IPModeWorker {
public:
    using Action = std::function<int(_tPM_Command*)>;
    explicit TestWorker(const char* group, Action action = nullptr) : action(std::move(action)) { pszName = group; }

    int Execute(_tPM_Command* command) override
    {
        {
            std::lock_guard<std::mutex> lock(log().mutex);
            log().calls.push_back(std::string(pszName) + ": " + describe(*command));
        }
        return action ? action(command) : 0;
    }

private:
    Action action;
};

/// Registers a heap-allocated worker (the registry deletes it at exit).
inline TestWorker* addWorker(const char* group, TestWorker::Action action = nullptr)
{
    auto* worker = new TestWorker(group, std::move(action));
    CWorkerFactory::GetInstance()->AddWorker(worker);
    return worker;
}

inline void recordTrace(const char* text)
{
    {
        std::lock_guard<std::mutex> lock(log().mutex);
        log().traces.emplace_back(text);
    }
    log().traced.notify_all();
}

/// Empties the log and installs the trace capture.
inline void startLog()
{
    {
        std::lock_guard<std::mutex> lock(log().mutex);
        log().calls.clear();
        log().traces.clear();
    }
    pm::SetTraceSink(&recordTrace);
}

inline std::vector<std::string> calls()
{
    std::lock_guard<std::mutex> lock(log().mutex);
    return log().calls;
}

/// The calls logged so far; the log starts empty again.
inline std::vector<std::string> takeCalls()
{
    std::lock_guard<std::mutex> lock(log().mutex);
    std::vector<std::string> taken;
    taken.swap(log().calls);
    return taken;
}

inline bool tracedLocked(const std::string& part)
{
    for (const auto& trace : log().traces)
        if (trace.find(part) != std::string::npos) return true;
    return false;
}

inline bool traced(const std::string& part)
{
    std::lock_guard<std::mutex> lock(log().mutex);
    return tracedLocked(part);
}

/// Waits until a trace containing `part` has been composed; false after 5 s.
inline bool waitTraced(const std::string& part)
{
    std::unique_lock<std::mutex> lock(log().mutex);
    return log().traced.wait_for(lock, std::chrono::seconds(5), [&] { return tracedLocked(part); });
}

} // namespace controller_test
