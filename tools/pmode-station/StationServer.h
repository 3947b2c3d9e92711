#pragma once
// The station's web server on 127.0.0.1: the live page ("/"), the history page
// ("/history"), their files below the web folder ("/static/..."), the live events
// ("/events", server-sent events) and the JSON interface ("/api/..."). A request
// it cannot serve gets 400 or 404 with {"error": "..."} and changes nothing.
// Construct and Listen on one thread; Stop from any thread.

#include "EventHub.h"
#include "SessionRunner.h"
#include "SharedStore.h"

#include <httplib.h>

#include <string>

class StationServer {
public:
    StationServer(SharedStore& store, EventHub& hub, SessionRunner& runner, std::string webDir);

    /// Binds 127.0.0.1:port (0: a free port); the port bound, or -1 when it cannot.
    int Bind(int port);
    /// Serves until Stop.
    bool Listen();
    void Stop();

    /// The longest request line the page may send (a batch path or a script line).
    static constexpr size_t kMaxLine = 1024;

private:
    void routes();
    void startSession(const httplib::Request& req, httplib::Response& res);
    void listSessions(const httplib::Request& req, httplib::Response& res, bool csv);
    void oneSession(const httplib::Request& req, httplib::Response& res, bool download);
    void yieldPerStep(const httplib::Request& req, httplib::Response& res);
    void streamEvents(httplib::Response& res);

    SharedStore& m_store;
    EventHub& m_hub;
    SessionRunner& m_runner;
    std::string m_webDir;
    httplib::Server m_server;
};
