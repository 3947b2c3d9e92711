// pmode-station: what the page may not do changes nothing, and a session that does not end well says why
// (no camera, an answer too late, the operator's Stop, a station killed mid-session).
#include "PmodeToolRun.h"
#include "TestRoot.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <thread>

using nlohmann::json;

namespace {

/// A tool started in the background with its output in a file; killed when the object goes.
class Background {
public:
    Background(const std::string& commandLine, const std::string& output)
    {
        m_pipe = popen(("echo $$; " + pmtool::kToolsFirst + "exec " + commandLine + " >" + output + " 2>&1").c_str(), "r");
        if (m_pipe == nullptr || fscanf(m_pipe, "%d", &m_pid) != 1) ADD_FAILURE() << "cannot start " << commandLine;
    }
    ~Background() { Stop(SIGKILL); }
    /// Signals the tool and waits for it: its exit status, -1 when a signal ended it.
    int Stop(int signal)
    {
        if (m_pipe == nullptr) return -1;
        kill(m_pid, signal);
        const int status = pclose(m_pipe);
        m_pipe = nullptr;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    FILE* m_pipe = nullptr;
    pid_t m_pid = -1;
};

class StationTest : public ::testing::Test {
protected:
    /// Starts the station on the test's database; its port once it says it serves.
    void StartStation(const std::string& options)
    {
        std::remove(root.Host("/station.txt").c_str()); // not the address of the station before
        station = std::make_unique<Background>("pmode-station --root " + root.Dir() + " --port 0 --name test --db " +
                                                   root.Host("/station.db") + " " + options,
                                               root.Host("/station.txt"));
        std::smatch match;
        for (int i = 0; i < 500; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
            const std::string output = root.ReadFile("/station.txt");
            if (std::regex_search(output, match, std::regex(R"(station: http://127\.0\.0\.1:(\d+)/)"))) {
                client = std::make_unique<httplib::Client>("127.0.0.1", std::stoi(match[1]));
                return;
            }
        }
        FAIL() << "the station did not start:\n" << root.ReadFile("/station.txt");
    }

    json Get(const std::string& path, int status = 200)
    {
        auto res = client->Get(path.c_str());
        EXPECT_TRUE(res && res->status == status) << path << ": " << (res ? res->status : -1);
        return res ? json::parse(res->body, nullptr, false) : json();
    }

    json Post(const std::string& path, const std::string& body, int status = 200)
    {
        auto res = client->Post(path.c_str(), body, "application/json");
        EXPECT_TRUE(res && res->status == status) << path << " " << body.substr(0, 80) << ": " << (res ? res->status : -1);
        return res ? json::parse(res->body, nullptr, false) : json();
    }

    /// The record of session id once `done` holds for it (or failed the test after 30 s). A session is
    /// recorded by the station's session thread, so it may not exist yet when its start was answered.
    json Await(int id, bool (*done)(const json& record), const char* what)
    {
        json record;
        for (int i = 0; i < 1500; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
            auto res = client->Get(("/api/sessions/" + std::to_string(id)).c_str());
            if (res && res->status == 200 && done(record = json::parse(res->body, nullptr, false))) return record;
        }
        ADD_FAILURE() << "session " << id << " is not " << what << ": " << record.dump();
        return record;
    }
    json Ended(int id)
    {
        return Await(id, [](const json& r) { return r["session"]["state"] != "running"; }, "ended");
    }
    json Running(int id)
    {
        return Await(id, [](const json& r) { return r["session"]["state"] == "running"; }, "running");
    }

    TestRoot root;
    std::unique_ptr<Background> station;
    std::unique_ptr<httplib::Client> client;
};

TEST_F(StationTest, CommandLineHelpVersionAndWrongArguments)
{
    root.WriteFile("/bad.batch", "line lens init 1\nsend lens init 1\n");
    const std::string st = "pmode-station --root " + root.Dir() + " ";
    pmtool::ExpectRuns({
        {"pmode-station --help", 0, {"--root", "--port", "--db", "--batch", "--name", "--timeout", "--wait", "--web", "exit status: "}},
        {"pmode-station --version", 0, {"pmode-station 0."}},
        {st + "--port 65536", 2, {"--port: '65536'"}}, {st + "--port x", 2, {"--port: 'x'"}},
        {st + "--timeout 0", 2, {"--timeout: '0'"}}, {st + "extra", 2, {"extra"}},
        {st + "--batch " + root.Host("/bad.batch"), 2, {root.Host("/bad.batch") + ":2: error: unknown request 'send'"}},
        {st + "--batch " + root.Dir(), 2, {"it is a directory"}},
        {"pmode-station --root / --port 0", 2, {"give --root DIR or set PMODE_ROOT=DIR"}},
        {"env -u PMODE_ROOT pmode-station --port 0", 2, {"no device root"}},
        {st + "--port 0 --web " + root.Dir(), 1, {"the page's files are not in " + root.Dir()}},
        {st + "--port 0 --db " + root.Host("/no/dir/station.db"), 1, {"cannot use the results database"}},
    });
}

TEST_F(StationTest, ABadRequestFromThePageGetsAClearErrorAndChangesNothing)
{
    StartStation("--wait 0.2");
    // No camera serves the link: the session ends without an answer and sends nothing.
    Post("/api/start", R"({"request": "line lens init 1"})");
    json record = Ended(1);
    EXPECT_EQ(record["session"]["state"], "no_answer");
    EXPECT_TRUE(record["requests"].empty());
    const json before = Get("/api/sessions/1");

    root.WriteFile("/bad.batch", "line lens init 1\nsend lens init 1\n");
    const std::string longLine = "{\"request\": \"line " + std::string(2000, 'x') + "\"}";
    const struct { const char* method; std::string path, body; int status; std::string error; } kRows[] = {
        {"GET", "/api/sessions/999", "", 404, "no session 999"},
        {"GET", "/api/sessions/1x", "", 400, "'1x' is not a session number"},
        {"GET", "/api/sessions/99999999999999999999/export.json", "", 400, "is not a session number"},
        {"GET", "/api/sessions?verdict=great", "", 400, "verdict 'great' is not a session state"},
        {"GET", "/api/sessions.csv?from=2026-13-01", "", 400, "'2026-13-01' is not a date YYYY-MM-DD"},
        {"GET", "/api/yield?limit=0", "", 400, "limit '0' is not a number from 1 to 10000"},
        {"GET", "/api/sessions?serial=1&sort=id", "", 400, "unknown filter 'sort'"},
        {"GET", "/api/nothing", "", 404, "no such page or call"},
        {"POST", "/api/start", "{\"batch\": \"" + root.Host("/bad.batch") + "\"}", 400, "the batch file was refused"},
        {"POST", "/api/start", "{\"batch\": \"" + root.Host("/none.batch") + "\"}", 400, "the batch file was refused"},
        {"POST", "/api/start", longLine, 400, "one line of at most 1024 characters"},
        {"POST", "/api/start", R"({"request": "line a\nline b"})", 400, "one line of at most"},
        {"POST", "/api/start", R"({"request": "op 0xdeadbeef"})", 400, "an operation code the camera does not serve"},
        {"POST", "/api/start", R"({"request": "line x", "batch": "y"})", 400, "give either"},
        {"POST", "/api/start", "[1,", 400, "the body is not a JSON object"},
        {"POST", "/api/start", "{\"request\": \"" + std::string(70000, 'x') + "\"}", 413, "request too large"},
        {"POST", "/api/stop", "{}", 409, "no session is under way"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(std::string(row.method) + " " + row.path + " " + row.body.substr(0, 60));
        const json answer = std::string(row.method) == "GET" ? Get(row.path, row.status) : Post(row.path, row.body, row.status);
        EXPECT_NE(answer.value("error", "").find(row.error), std::string::npos) << answer.dump();
    }
    EXPECT_EQ(Get("/api/sessions").size(), 1u);
    EXPECT_EQ(Get("/api/sessions/1"), before);
}

TEST_F(StationTest, LateAnswerStopAndKilledStationEachLeaveTheirState)
{
    Background camera("pmode-sim --root " + root.Dir() + " --card " + pmtool::Source("examples/card") +
                          " --host-link --serve-seconds 60",
                      root.Host("/camera.txt"));
    root.WriteFile("/slow.batch", "line lens init 1\nline delay 1500 ms\nline lens init 1\n");
    StartStation("--wait 20 --timeout 0.3 --batch " + root.Host("/slow.batch"));
    // The answer that comes too late ends the session there: the third request is never sent.
    json record = Ended(1);
    EXPECT_EQ(record["session"]["state"], "no_answer");
    ASSERT_EQ(record["requests"].size(), 2u) << record.dump();
    EXPECT_TRUE(record["requests"][0]["passed"]);
    EXPECT_EQ(record["requests"][1]["answerKind"], "none");
    EXPECT_FALSE(record["requests"][1]["passed"]);
    camera.Stop(SIGINT); // it marks the link "stopped"
    EXPECT_EQ(station->Stop(SIGINT), 0);
    EXPECT_NE(root.ReadFile("/station.txt").find("pmode-station: stopped by SIGINT"), std::string::npos);

    // No camera any more: the operator stops a session that waits for one; the next is killed with its station.
    root.WriteFile("/one.batch", "line lens init 1\n");
    StartStation("--wait 60 --batch " + root.Host("/one.batch"));
    EXPECT_EQ(Running(2)["session"]["state"], "running");
    Post("/api/stop", "{}");
    EXPECT_EQ(Ended(2)["session"]["state"], "stopped");
    Post("/api/start", "{\"batch\": \"" + root.Host("/one.batch") + "\"}");
    EXPECT_EQ(Running(3)["session"]["state"], "running");
    station->Stop(SIGKILL);
    StartStation("--wait 0.2");
    EXPECT_NE(root.ReadFile("/station.txt").find("station: 1 unfinished session(s) of test marked"), std::string::npos);
    EXPECT_EQ(Get("/api/sessions?verdict=unfinished")[0]["id"], 3);
}

} // namespace
