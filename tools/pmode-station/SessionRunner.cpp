#include "SessionRunner.h"
#include "RecordJson.h"
#include "RequestRun.h"

#include <algorithm>
#include <cstdio>

using nlohmann::json;
using station::SessionState;

SessionRunner::SessionRunner(SharedStore& store, EventHub& hub, HostLinkClient& client, RunnerSettings settings)
    : m_store(store), m_hub(hub), m_client(client), m_settings(std::move(settings))
{}

SessionRunner::~SessionRunner()
{
    Stop();
    Join();
}

bool SessionRunner::Start(const std::string& batchName, std::vector<BatchEntry> requests)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_busy) return false;
    if (m_thread.joinable()) m_thread.join();
    m_busy = true;
    m_stop = false;
    m_thread = std::thread(&SessionRunner::run, this, batchName, std::move(requests));
    return true;
}

bool SessionRunner::Stop()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_busy) return false;
    m_stop = true;
    return true;
}

bool SessionRunner::Busy()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_busy;
}

void SessionRunner::Join()
{
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        thread.swap(m_thread);
    }
    if (thread.joinable()) thread.join();
}

void SessionRunner::publish(const char* type, const std::string& key, const json& value)
{
    m_hub.Publish(json{{"type", type}, {key, value}}.dump());
}

void SessionRunner::storeFailed(const std::string& what, const std::string& error)
{
    std::fprintf(stderr, "pmode-station: the results database refused %s: %s\n", what.c_str(), error.c_str());
    publish("error", "message", "the results database refused " + what + ": " + error);
}

void SessionRunner::run(std::string batchName, std::vector<BatchEntry> requests)
{
    station::SessionInfo info;
    info.station = m_settings.station;
    info.batch = batchName;
    info.startedAt = UtcNow();
    info.requestsPlanned = static_cast<int>(requests.size());
    std::string error;
    const std::optional<int64_t> id =
        m_store.With([&](station::ResultStore& s) { return s.BeginSession(info, error); });
    m_hub.Reset();
    m_identity = CameraIdentity();
    if (!id) {
        storeFailed("the new session", error);
        publish("end", "session", SessionJson(info));
    } else {
        info.id = *id;
        publish("session", "session", SessionJson(info));
        bool allPassed = true;
        SessionState state = SessionState::PASSED;
        if (!waitForCamera()) {
            state = m_stop ? SessionState::STOPPED : SessionState::NO_ANSWER;
            if (!m_stop)
                publish("error", "message", "no camera serves the host link (is pmode-sim running in host-link mode?)");
        }
        for (size_t i = 0; state == SessionState::PASSED && i < requests.size(); ++i) {
            if (m_stop) {
                state = SessionState::STOPPED;
                break;
            }
            if (!runOne(info.id, static_cast<int>(i + 1), requests[i].request, allPassed))
                state = SessionState::NO_ANSWER;
        }
        if (state == SessionState::PASSED && !allPassed) state = SessionState::FAILED;
        if (!m_store.With([&](station::ResultStore& s) { return s.EndSession(info.id, state, error); }))
            storeFailed("the end of the session", error);
        info.state = state;
        info.endedAt = UtcNow();
        info.cameraSerial = m_identity.CameraSerial();
        info.productNumber = m_identity.productNumber;
        publish("end", "session", SessionJson(info));
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_busy = false;
}

bool SessionRunner::waitForCamera()
{
    // In short waits, so that the operator's Stop is seen while no camera serves.
    for (int waited = 0; !m_stop; waited += 200)
        if (m_client.WaitForCamera(std::min(200, m_settings.waitMs - waited)) || waited + 200 >= m_settings.waitMs)
            return m_client.WaitForCamera(0);
    return false;
}

bool SessionRunner::runOne(int64_t session, int seq, const HostRequest& request, bool& allPassed)
{
    station::RequestRecord record;
    record.sessionId = session;
    record.seq = seq;
    record.text = request.text;
    record.step = request.Step();
    record.expectFail = request.expectFail;
    record.sentAt = UtcNow();
    std::string error;
    if (!m_store.With([&](station::ResultStore& s) { return s.RecordSent(record, error); }))
        storeFailed("request " + std::to_string(seq), error);
    publish("sent", "request", RequestJson(record));

    const RequestOutcome outcome = RunRequest(m_client, request, m_settings.timeoutMs);
    static const char* const kKinds[] = {"none", "response", "stream", "file"};
    record.answered = outcome.answer.kind != HostAnswer::NONE;
    record.answerKind = kKinds[outcome.answer.kind];
    record.code = outcome.answer.code;
    record.value2 = outcome.answer.value2;
    record.value3 = outcome.answer.value3;
    record.data = outcome.answer.text;
    record.describe = outcome.answer.kind == HostAnswer::NONE
                          ? "no answer within " + std::to_string(m_settings.timeoutMs) + " ms"
                          : outcome.answer.Describe();
    record.passed = outcome.asExpected;
    record.millis = outcome.millis;
    allPassed = allPassed && outcome.asExpected;
    if (!m_store.With([&](station::ResultStore& s) { return s.RecordAnswer(record, error); }))
        storeFailed("the answer to request " + std::to_string(seq), error);
    publish("answer", "request", RequestJson(record));

    const CameraIdentity before = m_identity;
    LearnIdentity(request, outcome, m_identity);
    if (!(m_identity == before)) {
        if (!m_store.With([&](station::ResultStore& s) {
                return s.SetIdentity(session, m_identity.CameraSerial(), m_identity.productNumber, error);
            }))
            storeFailed("the camera's identity", error);
        publish("identity", "identity",
                json{{"cameraSerial", m_identity.CameraSerial()},
                     {"bodySerial", m_identity.bodySerial},
                     {"sensorSerial", m_identity.sensorSerial},
                     {"productNumber", m_identity.productNumber}});
    }
    for (station::TableRecord table : TablesOf(request, outcome)) {
        table.sessionId = session;
        table.seq = seq;
        if (!m_store.With([&](station::ResultStore& s) { return s.RecordTable(table, error); }))
            storeFailed("the table " + table.name, error);
        publish("table", "table", TableJson(table));
    }
    return record.answered;
}
