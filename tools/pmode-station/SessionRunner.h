#pragma once
// Runs one session at a time on a thread of its own: a batch file's requests, or
// one request from the operator's page, over the host link. Every request and
// answer goes to the results database as it happens and to the live page as an
// event. A session ends passed, failed, stopped (by the operator), or without an
// answer (the camera did not serve the link or did not answer in time; nothing
// more is sent then). Start, Stop and Busy may be called from any thread.

#include "EventHub.h"
#include "HostLinkClient.h"
#include "RequestBatch.h"
#include "SessionFacts.h"
#include "SharedStore.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct RunnerSettings {
    std::string station;   ///< the station's name in the records
    int timeoutMs = 10000; ///< per answer
    int waitMs = 10000;    ///< for the camera to serve the link
};

class SessionRunner {
public:
    SessionRunner(SharedStore& store, EventHub& hub, HostLinkClient& client, RunnerSettings settings);
    ~SessionRunner();
    SessionRunner(const SessionRunner&) = delete;
    SessionRunner& operator=(const SessionRunner&) = delete;

    /// Starts a session of the given requests (named batchName in the records).
    /// False when a session is under way.
    bool Start(const std::string& batchName, std::vector<BatchEntry> requests);
    /// Asks the session under way to stop after the request in flight. False when none is.
    bool Stop();
    bool Busy();
    /// Waits for the session under way to end.
    void Join();

private:
    void run(std::string batchName, std::vector<BatchEntry> requests);
    /// Waits for the camera to serve the link; false on time-out or Stop.
    bool waitForCamera();
    /// Sends one request, records and publishes it; false when no answer came.
    bool runOne(int64_t session, int seq, const HostRequest& request, bool& allPassed);
    void publish(const char* type, const std::string& key, const nlohmann::json& value);
    /// Reports a database refusal on standard error and to the page.
    void storeFailed(const std::string& what, const std::string& error);

    SharedStore& m_store;
    EventHub& m_hub;
    HostLinkClient& m_client;
    RunnerSettings m_settings;
    std::mutex m_mutex;
    std::thread m_thread;
    bool m_busy = false;
    std::atomic<bool> m_stop{false};
    CameraIdentity m_identity; ///< of the session under way (its thread only)
};
