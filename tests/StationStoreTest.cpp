// The station's results database, the same cases on SQLite and on a PostgreSQL
// server the test starts itself: a killed station keeps what was answered, two
// stations write at once, bad requests change nothing, filters and yields.
#include "PostgresServer.h"
#include "ResultStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

using namespace station;
using testing::HasSubstr;

namespace {

RequestRecord Request(int64_t session, int seq, const std::string& step)
{
    RequestRecord request;
    request.sessionId = session;
    request.seq = seq;
    request.text = "line " + step + " " + std::to_string(seq);
    request.step = step;
    return request;
}

RequestRecord Answered(RequestRecord request, bool passed)
{
    request.answered = true;
    request.answerKind = "response";
    request.code = passed ? 0x10000001 : 0x10000002;
    request.value2 = 1;
    request.passed = passed;
    request.describe = passed ? "done" : "failed";
    request.millis = 12.5;
    return request;
}

/// The value of a read, or an empty one with a failure naming the error.
template <class T>
T Got(std::optional<T> value, const std::string& error)
{
    if (!value) ADD_FAILURE() << "read failed: " << error;
    return value ? std::move(*value) : T{};
}

/// Runs `work` in a child process: exit 0 when it answered true; it may end itself otherwise.
pid_t InChild(const std::function<bool()>& work)
{
    const pid_t pid = fork();
    if (pid == 0) _exit(work() ? 0 : 1);
    return pid;
}

int WaitFor(pid_t pid)
{
    int status = 0;
    return waitpid(pid, &status, 0) == pid ? status : -1;
}

} // namespace

class StationStoreTest : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override
    {
        if (GetParam() == "postgresql") {
            m_server = std::make_unique<PostgresServer>();
            if (!m_server->Running()) GTEST_SKIP() << "PostgreSQL cases skipped: " << m_server->WhyNot();
            m_where = m_server->Uri();
        } else {
            char pattern[] = "/tmp/pm-store-XXXXXX";
            ASSERT_NE(mkdtemp(pattern), nullptr);
            m_dir = pattern;
            m_where = m_dir + "/results.db";
        }
        m_store = Open();
        ASSERT_NE(m_store, nullptr);
    }
    void TearDown() override
    {
        m_store.reset();
        if (!m_dir.empty()) std::filesystem::remove_all(m_dir);
    }

    std::unique_ptr<ResultStore> Open() const
    {
        std::string error;
        auto store = OpenResultStore(m_where, error);
        if (!store) ADD_FAILURE() << "cannot open " << m_where << ": " << error;
        return store;
    }

    int64_t Begin(const std::string& station, const std::string& serial, const std::string& startedAt = "")
    {
        SessionInfo info;
        info.station = station;
        info.batch = "example.batch";
        info.cameraSerial = serial;
        info.startedAt = startedAt;
        std::string error;
        const auto id = m_store->BeginSession(info, error);
        EXPECT_TRUE(id) << error;
        return id.value_or(0);
    }

    /// Sends and answers one request (a time-out when `kind` is "none").
    void Answer(int64_t session, int seq, const std::string& step, bool passed, const std::string& kind = "response")
    {
        std::string error;
        RequestRecord request = Answered(Request(session, seq, step), passed);
        request.answerKind = kind;
        request.answered = kind != "none";
        ASSERT_TRUE(m_store->RecordSent(request, error)) << error;
        ASSERT_TRUE(m_store->RecordAnswer(request, error)) << error;
    }

    /// Every session, request and table in the database, as text.
    std::string Snapshot()
    {
        std::ostringstream out;
        std::string error;
        SessionFilter all;
        all.limit = 10000;
        for (const SessionInfo& s : Got(m_store->ListSessions(all, error), error)) {
            out << s.id << '|' << s.station << '|' << s.startedAt << '|' << s.endedAt << '|' << StateName(s.state)
                << '|' << s.cameraSerial << '|' << s.productNumber << '\n';
            for (const RequestRecord& r : Got(m_store->GetRequests(s.id, error), error))
                out << ' ' << r.seq << '|' << r.text << '|' << r.answerKind << '|' << r.code << '|' << r.passed << '\n';
            for (const TableRecord& t : Got(m_store->GetTables(s.id, error), error))
                out << ' ' << t.seq << '|' << t.name << '|' << t.csv << '\n';
        }
        return out.str();
    }

    std::unique_ptr<PostgresServer> m_server;
    std::string m_dir, m_where;
    std::unique_ptr<ResultStore> m_store;
};

TEST_P(StationStoreTest, KilledStationKeepsEveryAnsweredRequest)
{
    constexpr int kAnswered = 7;
    const pid_t child = InChild([this] {
        std::string error;
        auto store = Open();
        SessionInfo info{0, "line-1", "example.batch", "", "", SessionState::RUNNING, 10, "SN-KILL", ""};
        const auto id = store ? store->BeginSession(info, error) : std::nullopt;
        for (int seq = 1; id && seq <= kAnswered; ++seq) {
            if (!store->RecordSent(Request(*id, seq, "lens init"), error)
                || !store->RecordAnswer(Answered(Request(*id, seq, "lens init"), true), error))
                return false;
        }
        if (!id || !store->RecordSent(Request(*id, kAnswered + 1, "shutter adj"), error)) return false;
        raise(SIGKILL); // the station dies while the camera works on request 8
        return false;
    });
    const int status = WaitFor(child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the child failed before its kill: " << status;

    std::string error;
    SessionFilter bySerial;
    bySerial.cameraSerial = "SN-KILL";
    const auto sessions = m_store->ListSessions(bySerial, error);
    ASSERT_TRUE(sessions && sessions->size() == 1) << error;
    const int64_t id = sessions->front().id;
    EXPECT_EQ(sessions->front().state, SessionState::RUNNING);
    const auto requests = Got(m_store->GetRequests(id, error), error);
    ASSERT_EQ(requests.size(), kAnswered + 1u);
    for (int seq = 1; seq <= kAnswered; ++seq) {
        const RequestRecord& r = requests[seq - 1];
        EXPECT_TRUE(r.seq == seq && r.answered && r.passed && r.code == 0x10000001 && r.millis == 12.5) << "request " << seq;
    }
    EXPECT_FALSE(requests.back().answered);
    EXPECT_EQ(requests.back().answerKind, "");

    EXPECT_EQ(m_store->MarkUnfinished("line-2", error), 0) << error;
    EXPECT_EQ(m_store->MarkUnfinished("line-1", error), 1) << error;
    EXPECT_EQ(m_store->MarkUnfinished("line-1", error), 0) << error;
    const auto after = m_store->GetSession(id, error);
    ASSERT_TRUE(after) << error;
    EXPECT_EQ(after->state, SessionState::UNFINISHED);
    EXPECT_FALSE(after->endedAt.empty());
    EXPECT_EQ(Got(m_store->GetRequests(id, error), error).size(), kAnswered + 1u);
}

TEST_P(StationStoreTest, TwoStationsWritingAtOnceLoseNothing)
{
    constexpr int kSessions = 4, kRequests = 25;
    auto station = [this](const std::string& name) {
        return [this, name] {
            std::string error;
            auto store = Open();
            for (int s = 0; store && s < kSessions; ++s) {
                const auto id = store->BeginSession({0, name, "b", "", "", SessionState::RUNNING, kRequests, name, ""}, error);
                for (int seq = 1; id && seq <= kRequests; ++seq) {
                    if (!store->RecordSent(Request(*id, seq, "step " + std::to_string(seq % 5)), error)
                        || !store->RecordAnswer(Answered(Request(*id, seq, "step " + std::to_string(seq % 5)), seq % 2), error)
                        || (seq % 5 == 0 && !store->RecordTable({*id, seq, "key_result.csv", name + ",1\n"}, error)))
                        break;
                }
                if (!id || !store->EndSession(*id, SessionState::PASSED, error)) break;
            }
            if (!error.empty()) std::fprintf(stderr, "station %s: %s\n", name.c_str(), error.c_str());
            return store && error.empty();
        };
    };
    const pid_t first = InChild(station("A")), second = InChild(station("B"));
    EXPECT_EQ(WaitFor(first), 0);
    EXPECT_EQ(WaitFor(second), 0);

    std::string error;
    for (const std::string name : {"A", "B"}) {
        SessionFilter filter;
        filter.cameraSerial = name;
        const auto sessions = Got(m_store->ListSessions(filter, error), error);
        ASSERT_EQ(sessions.size(), size_t{kSessions}) << name;
        for (const SessionInfo& s : sessions) {
            EXPECT_EQ(s.state, SessionState::PASSED) << name << s.id;
            const auto requests = Got(m_store->GetRequests(s.id, error), error);
            ASSERT_EQ(requests.size(), size_t{kRequests}) << name << s.id;
            for (int seq = 1; seq <= kRequests; ++seq) EXPECT_TRUE(requests[seq - 1].seq == seq && requests[seq - 1].answered);
            EXPECT_EQ(Got(m_store->GetTables(s.id, error), error).size(), size_t{kRequests / 5}) << name << s.id;
        }
    }
    int passed = 0, failed = 0;
    for (const StepYield& y : Got(m_store->YieldPerStep({}, error), error)) passed += y.passed, failed += y.failed;
    EXPECT_EQ(passed + failed, 2 * kSessions * kRequests);
}

TEST_P(StationStoreTest, BadRequestsGetAClearErrorAndChangeNothing)
{
    const int64_t open = Begin("line-1", "SN1");
    Answer(open, 1, "lens init", true);
    std::string error;
    ASSERT_TRUE(m_store->RecordSent(Request(open, 2, "shutter adj"), error)) << error;
    const int64_t ended = Begin("line-1", "SN2");
    ASSERT_TRUE(m_store->EndSession(ended, SessionState::FAILED, error)) << error;
    const std::string before = Snapshot();

    auto filter = [](auto change) { SessionFilter f; change(f); return f; };
    auto list = [this](SessionFilter f) { return [this, f](std::string& e) { return m_store->ListSessions(f, e).has_value(); }; };
    auto sent = [this](RequestRecord r) { return [this, r](std::string& e) { return m_store->RecordSent(r, e); }; };
    auto answer = [this](RequestRecord r) { return [this, r](std::string& e) { return m_store->RecordAnswer(r, e); }; };
    RequestRecord huge = Request(open, 3, "lens init"), binary = huge, badKind = Answered(Request(open, 2, "x"), true);
    huge.text.assign(1 << 20, 'x');
    binary.text = std::string("line a\0b", 8);
    badKind.answerKind = "bogus";
    RequestRecord badTime = Request(open, 3, "lens init");
    badTime.sentAt = "2026-11-23 20:41:07";
    SessionInfo noStation{0, "", "b", "", "", SessionState::RUNNING, 0, "", ""};

    const struct {
        const char* name;
        std::function<bool(std::string&)> call;
        const char* message;
    } rows[] = {
        {"request to an unknown session", sent(Request(9999, 1, "a")),                             "no session 9999"},
        {"read of an unknown session",    [&](std::string& e) { return m_store->GetSession(9999, e).has_value(); }, "no session 9999"},
        {"requests of an unknown session",[&](std::string& e) { return m_store->GetRequests(9999, e).has_value(); }, "no session 9999"},
        {"identity of an unknown session",[&](std::string& e) { return m_store->SetIdentity(9999, "S", "P", e); }, "no session 9999"},
        {"end of an ended session",       [&](std::string& e) { return m_store->EndSession(ended, SessionState::PASSED, e); }, "has ended (failed)"},
        {"end as running",                [&](std::string& e) { return m_store->EndSession(open, SessionState::RUNNING, e); }, "a session ends"},
        {"request to an ended session",   sent(Request(ended, 1, "a")),                            "has ended"},
        {"request sent twice",            sent(Request(open, 1, "a")),                             "was sent already"},
        {"answer to a request not sent",  answer(Answered(Request(open, 9, "a"), true)),           "was never sent"},
        {"second answer",                 answer(Answered(Request(open, 1, "a"), false)),          "has its answer already"},
        {"unknown answer kind",           answer(badKind),                                          "answer kind \"bogus\""},
        {"table of a request not sent",   [&](std::string& e) { return m_store->RecordTable({open, 9, "t.csv", "a\n"}, e); }, "was never sent"},
        {"1 MiB request line",            sent(huge),                                               "1048576 bytes long"},
        {"NUL byte in a request",         sent(binary),                                             "not UTF-8"},
        {"send time not UTC ISO 8601",    sent(badTime),                                            "not a UTC time"},
        {"session without a station",     [&](std::string& e) { return m_store->BeginSession(noStation, e).has_value(); }, "station name is empty"},
        {"limit 0",                       list(filter([](SessionFilter& f) { f.limit = 0; })),      "limit 0 is out of range"},
        {"limit 10001",                   list(filter([](SessionFilter& f) { f.limit = 10001; })),  "out of range"},
        {"state not a state",             list(filter([](SessionFilter& f) { f.state = static_cast<SessionState>(42); })), "not a session state"},
        {"month 13",                      list(filter([](SessionFilter& f) { f.from = "2026-13-01"; })), "from date \"2026-13-01\""},
        {"30 February",                   list(filter([](SessionFilter& f) { f.to = "2026-02-30"; })), "to date"},
        {"a word for a date",             list(filter([](SessionFilter& f) { f.from = "yesterday"; })), "not a date"},
        {"from after to",                 list(filter([](SessionFilter& f) { f.from = "2026-11-02"; f.to = "2026-11-01"; })), "is after"},
        {"yield with a bad filter",       [&](std::string& e) { return m_store->YieldPerStep(filter([](SessionFilter& f) { f.limit = -1; }), e).has_value(); }, "limit -1"},
    };
    for (const auto& row : rows) {
        std::string message;
        EXPECT_FALSE(row.call(message)) << row.name;
        EXPECT_THAT(message, HasSubstr(row.message)) << row.name;
        EXPECT_EQ(Snapshot(), before) << row.name;
    }
    SessionState state{};
    for (const char* bad : {"", "Passed", "done", "running "}) EXPECT_FALSE(ParseState(bad, state)) << bad;
}

TEST_P(StationStoreTest, FiltersAndYieldPerStepGiveTheRightRows)
{
    const int64_t s1 = Begin("line-1", "SN1", "2026-11-20T23:59:59.999Z");
    const int64_t s2 = Begin("line-2", "SN2", "2026-11-21T00:00:00.000Z");
    const int64_t s3 = Begin("line-1", "SN1", "2026-11-22T12:00:00.000Z");
    Answer(s1, 1, "lens init", true);
    Answer(s1, 2, "shutter adj", false);
    Answer(s2, 1, "lens init", true);
    Answer(s2, 2, "shutter adj", true);
    Answer(s2, 3, "shutter adj", false, "none"); // no answer in time: a fail
    std::string error;
    ASSERT_TRUE(m_store->RecordSent(Request(s2, 4, "wb gain"), error)) << error; // no verdict yet: not counted
    Answer(s3, 1, "lens init", false);
    ASSERT_TRUE(m_store->EndSession(s1, SessionState::PASSED, error) && m_store->EndSession(s2, SessionState::FAILED, error));

    const struct {
        const char* name;
        std::string serial;
        std::optional<SessionState> state;
        std::string from, to;
        int limit;
        std::vector<int64_t> sessions;
        std::string yield; ///< "step passed/failed; ..."
    } rows[] = {
        {"all",          "",    std::nullopt,          "",           "",           200, {s3, s2, s1}, "lens init 2/1; shutter adj 1/2; "},
        {"serial",       "SN1", std::nullopt,          "",           "",           200, {s3, s1},     "lens init 1/1; shutter adj 0/1; "},
        {"state",        "",    SessionState::FAILED,  "",           "",           200, {s2},         "lens init 1/0; shutter adj 1/1; "},
        {"from a day",   "",    std::nullopt,          "2026-11-21", "",           200, {s3, s2},     "lens init 1/1; shutter adj 1/1; "},
        {"to a day",     "",    std::nullopt,          "",           "2026-11-20", 200, {s1},         "lens init 1/0; shutter adj 0/1; "},
        {"one day",      "",    std::nullopt,          "2026-11-21", "2026-11-21", 200, {s2},         "lens init 1/0; shutter adj 1/1; "},
        {"limit",        "",    std::nullopt,          "",           "",           1,   {s3},         "lens init 2/1; shutter adj 1/2; "},
        {"nothing fits", "SN1", SessionState::FAILED,  "",           "",           200, {},           ""},
    };
    for (const auto& row : rows) {
        SessionFilter filter{row.serial, row.state, row.from, row.to, row.limit};
        std::vector<int64_t> ids;
        for (const SessionInfo& s : Got(m_store->ListSessions(filter, error), error)) ids.push_back(s.id);
        EXPECT_EQ(ids, row.sessions) << row.name;
        std::string yield;
        for (const StepYield& y : Got(m_store->YieldPerStep(filter, error), error))
            yield += y.step + " " + std::to_string(y.passed) + "/" + std::to_string(y.failed) + "; ";
        EXPECT_EQ(yield, row.yield) << row.name;
    }

    // One record read back whole: unsigned codes, texts beyond ASCII, times, tables in order.
    RequestRecord full = Answered(Request(s3, 2, "wb gain"), true);
    full.code = 0xFFFFFFFF;
    full.value3 = 0x80000000;
    full.data = "gain R=1.25 µ";
    full.sentAt = "2026-11-22T12:00:01.250Z";
    full.answerKind = "stream";
    full.millis = 0.125;
    ASSERT_TRUE(m_store->RecordSent(full, error) && m_store->RecordAnswer(full, error)) << error;
    ASSERT_TRUE(m_store->RecordTable({s3, 2, "wb.csv", "K,R\n3200,1.5\n"}, error)
                && m_store->RecordTable({s3, 1, "key_result.csv", "a\n"}, error)) << error;
    ASSERT_TRUE(m_store->SetIdentity(s3, "", "PN-7", error)) << error;
    const RequestRecord back = Got(m_store->GetRequests(s3, error), error).at(1);
    EXPECT_TRUE(back.code == full.code && back.value3 == full.value3 && back.data == full.data && back.sentAt == full.sentAt
                && back.answerKind == "stream" && back.millis == 0.125 && back.step == "wb gain" && back.text == full.text);
    const auto tables = Got(m_store->GetTables(s3, error), error);
    ASSERT_EQ(tables.size(), 2u);
    EXPECT_TRUE(tables[0].name == "key_result.csv" && tables[1].csv == "K,R\n3200,1.5\n");
    const SessionInfo info = Got(m_store->GetSession(s3, error), error);
    EXPECT_TRUE(info.cameraSerial == "SN1" && info.productNumber == "PN-7" && info.startedAt == "2026-11-22T12:00:00.000Z");
}

INSTANTIATE_TEST_SUITE_P(Backends, StationStoreTest, testing::Values("sqlite", "postgresql"),
                         [](const testing::TestParamInfo<std::string>& info) { return info.param; });
