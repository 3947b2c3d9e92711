#pragma once
// The controller tests' kit: workers that log their commands, a capture of traces and answers, the fixture.

#include "PMReport.h"
#include "ProductionMode.h"
#include "TestRoot.h"
#include "vconf.h"
#include "vconf_sim.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

namespace controller_test {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr const char* kScriptKey = "memory/private/pmode";
constexpr const char* kProtocolKeys[5] = {"memory/private/pmode_protocol1", "memory/private/pmode_protocol2",
    "memory/private/pmode_protocol3", "memory/private/pmode_protocol4", "memory/private/pmode_protocol5"};
constexpr const char* kAnswerKeys[5] = {"memory/private/pmode_Param1", "memory/private/pmode_Param2",
    "memory/private/pmode_Param3", "memory/private/pmode_stream", "memory/private/pmode_file"};
constexpr const char* kPayload = "/var/run/memory/private/pmode_shutter_data";

// Written by the controller's and the store's threads, read by the test.
inline std::mutex logMutex;
inline std::condition_variable logChanged; ///< notified with every entry
inline Lines loggedCalls, loggedTraces, loggedAnswers; ///< "<worker>: <describe()>"; traces; "<key suffix>=<hex or text>"

inline void record(Lines& list, std::string entry)
{
    {
        std::lock_guard<std::mutex> lock(logMutex);
        list.push_back(std::move(entry));
    }
    logChanged.notify_all();
}

/// The calls logged so far; with `take` the log of calls starts empty again.
inline Lines calls(bool take = false)
{
    std::lock_guard<std::mutex> lock(logMutex);
    return take ? std::exchange(loggedCalls, {}) : loggedCalls;
}

/// "name p0 p1 ...", then " | nArg0 .. nArg3" with an argument or data, then " | <7 data bytes>" with data.
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

/// Logs every command; fails (-1) when the first parameter is "fail", else returns its action's result (0 without).
class TestWorker : public IPModeWorker {
public:
    using Action = std::function<int(_tPM_Command&)>;
    TestWorker(const char* group, Action action) : action(std::move(action)) { pszName = group; }

    int Execute(_tPM_Command* command) override
    {
        record(loggedCalls, std::string(pszName) + ": " + describe(*command));
        if (std::string(command->szParam[0]) == "fail") return -1;
        return action ? action(*command) : 0;
    }

private:
    Action action;
};

inline void recordAnswer(keynode_t* node, void*)
{
    const std::string name = vconf_keynode_get_name(node);
    char value[32];
    std::snprintf(value, sizeof value, "%x", static_cast<unsigned>(vconf_keynode_get_int(node)));
    const char* text = vconf_keynode_get_type(node) == VCONF_TYPE_INT ? value : vconf_keynode_get_str(node);
    record(loggedAnswers, name.substr(name.rfind('_') + 1) + "=" + (text != nullptr ? text : ""));
}

/// The answer sets so far ("Param3=0 Param2=1 Param1=10000002"); `whole` waits 5 s at most for Param1, stream or file.
inline std::string takeAnswers(bool whole = false)
{
    if (!whole) vconf_sim_wait_idle(10000);
    std::unique_lock<std::mutex> lock(logMutex);
    logChanged.wait_for(lock, whole ? 5s : 0s, [] {
        const std::string last = loggedAnswers.empty() ? "Param2=" : loggedAnswers.back();
        return last.rfind("Param2=", 0) != 0 && last.rfind("Param3=", 0) != 0;
    });
    std::string joined;
    for (const std::string& answer : std::exchange(loggedAnswers, {})) joined += (joined.empty() ? "" : " ") + answer;
    return joined;
}

/// Whether a trace containing `part` has been composed, waiting for one up to `wait`.
inline bool traced(const std::string& part, std::chrono::milliseconds wait = 0ms)
{
    std::unique_lock<std::mutex> lock(logMutex);
    return logChanged.wait_for(lock, wait, [&] {
        return std::any_of(loggedTraces.begin(), loggedTraces.end(),
                           [&](const std::string& trace) { return trace.find(part) != std::string::npos; });
    });
}

/// Empties the log and captures the traces.
inline void startLog()
{
    for (Lines* list : {&loggedCalls, &loggedTraces, &loggedAnswers}) {
        std::lock_guard<std::mutex> lock(logMutex);
        list->clear();
    }
    pm::SetTraceSink([](const char* text) { record(loggedTraces, text); });
}

/// A fresh device root, an empty log, the traces and the answers captured.
class ControllerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        startLog();
        for (const char* key : kAnswerKeys) vconf_notify_key_changed(key, &recordAnswer, nullptr);
    }
    void TearDown() override
    {
        for (const char* key : kAnswerKeys) vconf_ignore_key_changed(key, &recordAnswer);
        vconf_sim_wait_idle(10000);
        pm::SetTraceSink(nullptr);
    }

    /// Finalize, which must return although the loop may wait for a message.
    void Finalize()
    {
        auto done = std::async(std::launch::async, [this] { mode->Finalize(); });
        ASSERT_EQ(std::future_status::ready, done.wait_for(5s)) << "Finalize did not return";
        EXPECT_FALSE(mode->IsActive());
    }

    TestRoot root;
    CProductionMode* mode = CProductionMode::GetInstance();
};

} // namespace controller_test
