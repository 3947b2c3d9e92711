#include "StationServer.h"
#include "RecordJson.h"

#include <nlohmann/json.hpp>

#include <regex>

using nlohmann::json;

namespace {

void sendError(httplib::Response& res, int status, const std::string& message)
{
    res.status = status;
    res.set_content(json{{"error", message}}.dump(), "application/json");
}

void sendJson(httplib::Response& res, const json& value)
{
    res.set_content(value.dump(), "application/json");
}

bool isDate(const std::string& text)
{
    return std::regex_match(text, std::regex(R"(\d{4}-(0[1-9]|1[0-2])-(0[1-9]|[12]\d|3[01]))"));
}

/// The filter of a history query; false with error naming the parameter that is wrong.
bool readFilter(const httplib::Request& req, station::SessionFilter& filter, std::string& error)
{
    static const char* const kKnown[] = {"serial", "verdict", "from", "to", "limit"};
    for (const auto& param : req.params) {
        bool known = false;
        for (const char* name : kKnown) known = known || param.first == name;
        if (!known) return (error = "unknown filter '" + param.first + "' (serial, verdict, from, to, limit)"), false;
        if (param.second.size() > StationServer::kMaxLine)
            return (error = "filter '" + param.first + "' too long"), false;
    }
    filter.cameraSerial = req.get_param_value("serial");
    if (const std::string verdict = req.get_param_value("verdict"); !verdict.empty()) {
        station::SessionState state{};
        if (!station::ParseState(verdict, state))
            return (error = "verdict '" + verdict + "' is not a session state"), false;
        filter.state = state;
    }
    filter.from = req.get_param_value("from");
    filter.to = req.get_param_value("to");
    for (const std::string* date : {&filter.from, &filter.to})
        if (!date->empty() && !isDate(*date)) return (error = "'" + *date + "' is not a date YYYY-MM-DD"), false;
    if (const std::string limit = req.get_param_value("limit"); !limit.empty()) {
        if (!std::regex_match(limit, std::regex(R"(\d{1,5})")) || std::stoi(limit) < 1 || std::stoi(limit) > 10000)
            return (error = "limit '" + limit + "' is not a number from 1 to 10000"), false;
        filter.limit = std::stoi(limit);
    }
    return true;
}

/// The session id of a path "/api/sessions/ID..."; false when it is not a number.
bool readId(const httplib::Request& req, int64_t& id)
{
    const std::string text = req.matches[1];
    if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    id = std::stoll(text);
    return true;
}

} // namespace

StationServer::StationServer(SharedStore& store, EventHub& hub, SessionRunner& runner, std::string webDir)
    : m_store(store), m_hub(hub), m_runner(runner), m_webDir(std::move(webDir))
{
    m_server.set_payload_max_length(size_t{64} * 1024);
    routes();
}

int StationServer::Bind(int port)
{
    return port == 0 ? m_server.bind_to_any_port("127.0.0.1") : (m_server.bind_to_port("127.0.0.1", port) ? port : -1);
}

bool StationServer::Listen()
{
    return m_server.listen_after_bind();
}

void StationServer::Stop()
{
    m_hub.Close();
    m_server.stop();
}

void StationServer::routes()
{
    m_server.set_mount_point("/static", m_webDir);
    auto page = [this](const std::string& file) {
        return [this, file](const httplib::Request&, httplib::Response& res) {
            std::string html;
            if (!ReadWholeFile(m_webDir + "/" + file, html))
                return sendError(res, 404, "the page " + file + " is not installed in " + m_webDir);
            res.set_content(html, "text/html; charset=utf-8");
        };
    };
    m_server.Get("/", page("index.html"));
    m_server.Get("/history", page("history.html"));
    m_server.Get("/events", [this](const httplib::Request&, httplib::Response& res) { streamEvents(res); });
    m_server.Post("/api/start",
                  [this](const httplib::Request& req, httplib::Response& res) { startSession(req, res); });
    m_server.Post("/api/stop", [this](const httplib::Request&, httplib::Response& res) {
        if (!m_runner.Stop()) return sendError(res, 409, "no session is under way");
        sendJson(res, {{"stopping", true}});
    });
    m_server.Get("/api/sessions",
                 [this](const httplib::Request& req, httplib::Response& res) { listSessions(req, res, false); });
    m_server.Get("/api/sessions.csv",
                 [this](const httplib::Request& req, httplib::Response& res) { listSessions(req, res, true); });
    m_server.Get(R"(/api/sessions/([^/]*))",
                 [this](const httplib::Request& req, httplib::Response& res) { oneSession(req, res, false); });
    m_server.Get(R"(/api/sessions/([^/]*)/export\.json)",
                 [this](const httplib::Request& req, httplib::Response& res) { oneSession(req, res, true); });
    m_server.Get("/api/yield", [this](const httplib::Request& req, httplib::Response& res) { yieldPerStep(req, res); });
    m_server.set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (!res.body.empty()) return;
        sendError(res, res.status,
                  res.status == 404   ? "no such page or call"
                  : res.status == 413 ? "request too large"
                                      : "bad request (HTTP " + std::to_string(res.status) + ")");
    });
}

void StationServer::startSession(const httplib::Request& req, httplib::Response& res)
{
    const json body = json::parse(req.body, nullptr, false);
    if (!body.is_object()) return sendError(res, 400, "the body is not a JSON object");
    const bool isBatch = body.contains("batch"), isLine = body.contains("request");
    if (isBatch == isLine)
        return sendError(res, 400, "give either \"batch\" (a batch file) or \"request\" (one request)");
    const json& value = isBatch ? body["batch"] : body["request"];
    if (!value.is_string()) return sendError(res, 400, "the value is not a string");
    const std::string text = value.get<std::string>();
    if (text.size() > kMaxLine || text.find_first_of("\r\n") != std::string::npos)
        return sendError(res, 400, "one line of at most " + std::to_string(kMaxLine) + " characters, please");
    std::vector<BatchEntry> requests;
    if (isBatch) {
        std::vector<BatchError> errors;
        if (!LoadBatch(text, requests, errors)) {
            json messages = json::array();
            for (const BatchError& error : errors) messages.push_back(error.Format(text));
            res.status = 400;
            return sendJson(res, {{"error", "the batch file was refused"}, {"details", messages}});
        }
    } else {
        BatchEntry entry{1, {}};
        std::string error;
        if (!HostRequest::Parse(text, "", entry.request, error)) return sendError(res, 400, error);
        requests.push_back(std::move(entry));
    }
    if (!m_runner.Start(isBatch ? text : "operator", std::move(requests)))
        return sendError(res, 409, "a session is under way; stop it first");
    sendJson(res, {{"started", true}});
}

void StationServer::listSessions(const httplib::Request& req, httplib::Response& res, bool csv)
{
    station::SessionFilter filter;
    std::string error;
    if (!readFilter(req, filter, error)) return sendError(res, 400, error);
    auto sessions = m_store.With([&](station::ResultStore& s) { return s.ListSessions(filter, error); });
    if (!sessions) return sendError(res, 500, error);
    if (csv) {
        res.set_header("Content-Disposition", "attachment; filename=\"sessions.csv\"");
        return res.set_content(SessionsCsv(*sessions), "text/csv");
    }
    json list = json::array();
    for (const auto& session : *sessions) list.push_back(SessionJson(session));
    sendJson(res, list);
}

void StationServer::oneSession(const httplib::Request& req, httplib::Response& res, bool download)
{
    int64_t id = 0;
    if (!readId(req, id)) return sendError(res, 400, "'" + std::string(req.matches[1]) + "' is not a session number");
    std::string error;
    json record;
    const bool found = m_store.With([&](station::ResultStore& s) {
        auto session = s.GetSession(id, error);
        if (!session) return false;
        auto requests = s.GetRequests(id, error);
        auto tables = s.GetTables(id, error);
        if (!requests || !tables) return false;
        record = {{"session", SessionJson(*session)}, {"requests", json::array()}, {"tables", json::array()}};
        for (const auto& request : *requests) record["requests"].push_back(RequestJson(request));
        for (const auto& table : *tables) record["tables"].push_back(TableJson(table));
        return true;
    });
    // The store names an unknown session "no session N"; anything else is its own failure.
    if (!found) return sendError(res, error.rfind("no session", 0) == 0 ? 404 : 500, error);
    if (download)
        res.set_header("Content-Disposition", "attachment; filename=\"session-" + std::to_string(id) + ".json\"");
    sendJson(res, record);
}

void StationServer::yieldPerStep(const httplib::Request& req, httplib::Response& res)
{
    station::SessionFilter filter;
    std::string error;
    if (!readFilter(req, filter, error)) return sendError(res, 400, error);
    auto steps = m_store.With([&](station::ResultStore& s) { return s.YieldPerStep(filter, error); });
    if (!steps) return sendError(res, 500, error);
    json list = json::array();
    for (const auto& step : *steps)
        list.push_back({{"step", step.step}, {"passed", step.passed}, {"failed", step.failed}});
    sendJson(res, list);
}

void StationServer::streamEvents(httplib::Response& res)
{
    res.set_header("Cache-Control", "no-cache");
    auto cursor = std::make_shared<EventHub::Cursor>();
    cursor->epoch = 0; // a new stream starts with the session under way, from its first event
    res.set_chunked_content_provider("text/event-stream", [this, cursor](size_t, httplib::DataSink& sink) {
        const std::vector<std::string> events = m_hub.Wait(*cursor, 1000);
        if (m_hub.Closed()) return false;
        std::string text = events.empty() ? std::string(": idle\n\n") : std::string();
        for (const std::string& event : events) text += "data: " + event + "\n\n";
        return sink.is_writable() && sink.write(text.data(), text.size());
    });
}
