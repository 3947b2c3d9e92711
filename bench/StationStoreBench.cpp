// One answer recorded by the station's results database (RecordAnswer: a
// transaction that updates the request's row and commits), on SQLite and on a
// PostgreSQL server started here with fsync on. The floors: for SQLite, 300 bytes
// appended to a file and fdatasync (what a durable commit must do at least); for
// PostgreSQL, one "SELECT 1" round trip over libpq.
#include "BenchSupport.h"
#include "PostgresServer.h"
#include "ResultStore.h"

#include <fcntl.h>
#include <libpq-fe.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>

namespace {

using namespace station;
using Clock = std::chrono::steady_clock;

double Seconds(const std::function<void()>& work)
{
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Times RecordAnswer alone: each iteration sends a request untimed, then times its
/// answer and the floor once each.
void MeasureAnswer(benchmark::State& state, ResultStore& store, const std::function<void()>& floor)
{
    std::string error;
    const auto session =
        store.BeginSession({0, "bench", "bench.batch", "", "", SessionState::RUNNING, 0, "SN", ""}, error);
    if (!session) {
        state.SkipWithError(error.c_str());
        return;
    }
    double answerSeconds = 0, floorSeconds = 0;
    int seq = 0;
    for (auto _ : state) {
        RequestRecord request;
        request.sessionId = *session;
        request.seq = ++seq;
        request.text = "line lens focus_check 1";
        request.step = "lens focus_check";
        if (!store.RecordSent(request, error)) state.SkipWithError(error.c_str());
        request.answered = true;
        request.answerKind = "response";
        request.code = 0x10000001;
        request.describe = "done";
        request.passed = true;
        const double seconds = Seconds([&] {
            if (!store.RecordAnswer(request, error)) state.SkipWithError(error.c_str());
        });
        answerSeconds += seconds;
        floorSeconds += Seconds(floor);
        state.SetIterationTime(seconds);
    }
    const double calls = static_cast<double>(state.iterations());
    state.counters["op_ns"] = calls > 0 ? answerSeconds * 1e9 / calls : 0;
    state.counters["floor_ns"] = calls > 0 ? floorSeconds * 1e9 / calls : 0;
    state.counters["ratio"] = floorSeconds > 0 ? answerSeconds / floorSeconds : 0;
}

void BM_RecordAnswerSqlite(benchmark::State& state)
{
    const std::string dir = pmbench::Root().Host("/tmp/store");
    std::filesystem::create_directories(dir);
    std::string error;
    auto store = OpenResultStore(dir + "/results.db", error);
    const int file = open((dir + "/floor").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (!store || file < 0) {
        state.SkipWithError(store ? "cannot make the floor's file" : error.c_str());
        return;
    }
    const std::string record(300, 'r');
    MeasureAnswer(state, *store, [&] {
        if (write(file, record.data(), record.size()) != static_cast<ssize_t>(record.size()) || fdatasync(file) != 0)
            std::abort();
    });
    close(file);
}
BENCHMARK(BM_RecordAnswerSqlite)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_RecordAnswerPostgres(benchmark::State& state)
{
    static PostgresServer server(true);
    if (!server.Running()) {
        state.SkipWithError(("no PostgreSQL server: " + server.WhyNot()).c_str());
        return;
    }
    std::string error;
    auto store = OpenResultStore(server.Uri(), error);
    std::unique_ptr<PGconn, void (*)(PGconn*)> floorConnection(PQconnectdb(server.Uri().c_str()), PQfinish);
    if (!store || PQstatus(floorConnection.get()) != CONNECTION_OK) {
        state.SkipWithError(store ? "no floor connection" : error.c_str());
        return;
    }
    MeasureAnswer(state, *store, [&] { PQclear(PQexec(floorConnection.get(), "SELECT 1")); });
}
BENCHMARK(BM_RecordAnswerPostgres)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
