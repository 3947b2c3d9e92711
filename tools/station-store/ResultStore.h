#pragma once
// The station's results database: every session, request, answer and received
// table, written as it happens, so a station that is killed loses nothing that
// was already answered. Two back ends share one schema: SQLite (a file beside the
// station, the default) and PostgreSQL (one database for every station of a line).
//
// Every call answers false (or an empty optional) with a message in `error` when
// the database refuses; nothing is half-written (each call is one transaction).
// A store object is used by one thread at a time; several stations (processes)
// may write one database at once.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace station {

/// How a session ended. RUNNING is a session under way, or one whose station died
/// (OpenResultStore's caller marks those UNFINISHED at start-up).
enum class SessionState { RUNNING, PASSED, FAILED, STOPPED, NO_ANSWER, UNFINISHED };

const char* StateName(SessionState state); ///< "running", "passed", ...
bool ParseState(const std::string& name, SessionState& state);

struct SessionInfo {
    int64_t id = 0;
    std::string station;   ///< the station's name (host name or --name)
    std::string batch;     ///< the batch file's name, or "operator" for requests from the page
    std::string startedAt; ///< UTC, ISO 8601 ("2026-11-23T20:41:07.123Z")
    std::string endedAt;   ///< empty while running
    SessionState state = SessionState::RUNNING;
    int requestsPlanned = 0;  ///< requests in the batch (0 when unknown)
    std::string cameraSerial; ///< as the session learnt it ("" until then)
    std::string productNumber;
};

struct RequestRecord {
    int64_t sessionId = 0;
    int seq = 0;      ///< 1, 2, ... within the session
    std::string text; ///< as sent: "line lens init 1", "op 0x10030000 1795000000 0 0 0"
    std::string step; ///< the step it belongs to, for the yield: the command and sub-command ("lens focus_check")
    bool expectFail = false;
    std::string sentAt;
    // The answer; answered == false while none came (or none came in time).
    bool answered = false;
    std::string answerKind; ///< "response", "stream", "file", "none" (time-out)
    uint32_t code = 0, value2 = 0, value3 = 0;
    std::string data;     ///< data block or file path
    std::string describe; ///< the answer decoded in words
    bool passed = false;  ///< as the PC judges it (expect-fail included)
    double millis = 0.0;  ///< time from sending to the answer
};

struct TableRecord {
    int64_t sessionId = 0;
    int seq = 0;      ///< the request that brought it
    std::string name; ///< "key_result.csv", "data block", ...
    std::string csv;  ///< the table as received (CSV text)
};

struct SessionFilter {
    std::string cameraSerial; ///< exact match; empty: any
    std::optional<SessionState> state;
    std::string from, to; ///< dates "YYYY-MM-DD" (inclusive); empty: open
    int limit = 200;      ///< 1 to 10000
};

struct StepYield {
    std::string step;
    int passed = 0, failed = 0;
};

class ResultStore {
public:
    virtual ~ResultStore() = default;

    /// Creates the tables when missing. False when the database cannot be used.
    virtual bool Prepare(std::string& error) = 0;
    /// Marks every RUNNING session of `station` UNFINISHED (its station died); the count.
    virtual std::optional<int> MarkUnfinished(const std::string& station, std::string& error) = 0;

    /// A new running session (its state and endedAt are not taken); startedAt "" is now. Its id.
    virtual std::optional<int64_t> BeginSession(const SessionInfo& info, std::string& error) = 0;
    /// An empty serial or product number keeps the one already stored.
    virtual bool SetIdentity(int64_t session, const std::string& cameraSerial, const std::string& productNumber,
                             std::string& error) = 0;
    virtual bool RecordSent(const RequestRecord& request, std::string& error) = 0;   ///< answered == false
    virtual bool RecordAnswer(const RequestRecord& request, std::string& error) = 0; ///< same (session, seq)
    virtual bool RecordTable(const TableRecord& table, std::string& error) = 0;
    /// Writes to a session refuse an unknown session and one that has ended.
    virtual bool EndSession(int64_t session, SessionState state, std::string& error) = 0;

    virtual std::optional<std::vector<SessionInfo>> ListSessions(const SessionFilter& filter, std::string& error) = 0;
    virtual std::optional<SessionInfo> GetSession(int64_t session,
                                                  std::string& error) = 0; ///< nullopt: unknown or error
    virtual std::optional<std::vector<RequestRecord>> GetRequests(int64_t session, std::string& error) = 0;
    virtual std::optional<std::vector<TableRecord>> GetTables(int64_t session, std::string& error) = 0;
    /// Requests with a verdict (an answer, or none in time) of the sessions the filter
    /// picks, whatever its limit; requests without a step are not counted.
    virtual std::optional<std::vector<StepYield>> YieldPerStep(const SessionFilter& filter, std::string& error) = 0;
};

/// Opens "postgresql://..." (or "postgres://...") with PostgreSQL, anything else as
/// the path of an SQLite file, and prepares it (Prepare). Null with a message when it
/// cannot be opened or used. Any thread; the store is then used by one at a time.
std::unique_ptr<ResultStore> OpenResultStore(const std::string& where, std::string& error);

} // namespace station
