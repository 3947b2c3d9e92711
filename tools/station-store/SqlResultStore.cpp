#include "SqlResultStore.h"

#include "StoreInput.h"
#include "StoreSchema.h"

#include <cstdlib>

namespace station {

namespace {

const char* const kSessionColumns = "s.id, s.station, s.batch, s.started_at, s.ended_at, s.state, "
                                    "s.requests_planned, s.camera_serial, s.product_number";

int64_t ToInt(const std::string& text)
{
    return std::strtoll(text.c_str(), nullptr, 10);
}

SessionInfo ToSession(const SqlRow& row)
{
    SessionInfo info;
    info.id = ToInt(row[0]);
    info.station = row[1];
    info.batch = row[2];
    info.startedAt = row[3];
    info.endedAt = row[4];
    ParseState(row[5], info.state);
    info.requestsPlanned = static_cast<int>(ToInt(row[6]));
    info.cameraSerial = row[7];
    info.productNumber = row[8];
    return info;
}

RequestRecord ToRequest(int64_t session, const SqlRow& row)
{
    RequestRecord request;
    request.sessionId = session;
    request.seq = static_cast<int>(ToInt(row[0]));
    request.text = row[1];
    request.step = row[2];
    request.expectFail = row[3] == "1";
    request.sentAt = row[4];
    request.answerKind = row[5];
    request.answered = row[6] == "1";
    request.code = static_cast<uint32_t>(ToInt(row[7]));
    request.value2 = static_cast<uint32_t>(ToInt(row[8]));
    request.value3 = static_cast<uint32_t>(ToInt(row[9]));
    request.data = row[10];
    request.describe = row[11];
    request.passed = row[12] == "1";
    request.millis = std::strtod(row[13].c_str(), nullptr);
    return request;
}

std::string Param(std::vector<SqlValue>& params, SqlValue value)
{
    params.push_back(std::move(value));
    return "$" + std::to_string(params.size());
}

std::string RequestName(const RequestRecord& request)
{
    return "request " + std::to_string(request.seq) + " of session " + std::to_string(request.sessionId);
}

} // namespace

bool SqlResultStore::InTransaction(bool forWriting, std::string& error, const std::function<bool()>& work)
{
    if (!m_db->Run(m_db->BeginStatement(forWriting), error)) return false;
    if (work() && m_db->Run("COMMIT", error)) return true;
    std::string ignored; // the first message is the one that says why
    m_db->Run("ROLLBACK", ignored);
    return false;
}

bool SqlResultStore::CheckSessionOpen(int64_t session, bool mustRun, std::string& error)
{
    const auto rows = m_db->Query("SELECT state FROM sessions WHERE id = $1", {session}, error);
    if (!rows) return false;
    if (rows->empty()) {
        error = "no session " + std::to_string(session);
        return false;
    }
    if (mustRun && rows->front()[0] != StateName(SessionState::RUNNING)) {
        error = "session " + std::to_string(session) + " has ended (" + rows->front()[0] + ")";
        return false;
    }
    return true;
}

bool SqlResultStore::Prepare(std::string& error)
{
    return InTransaction(true, error, [&] {
        const std::string lock = m_db->SchemaLockStatement();
        if (!lock.empty() && !m_db->Query(lock, {}, error)) return false;
        if (!m_db->Run(StoreSchema::Statements(*m_db), error)) return false;
        const auto version = m_db->Query("SELECT version FROM store_version", {}, error);
        if (!version) return false;
        if (version->empty())
            return m_db->Query("INSERT INTO store_version (version) VALUES ($1)", {int64_t{StoreSchema::kVersion}},
                               error)
                .has_value();
        if (ToInt(version->front()[0]) == StoreSchema::kVersion) return true;
        error = "the database holds results of schema version " + version->front()[0] + "; this station writes " +
                std::to_string(StoreSchema::kVersion);
        return false;
    });
}

std::optional<int> SqlResultStore::MarkUnfinished(const std::string& station, std::string& error)
{
    if (!StoreInput::CheckText("the station name", station, StoreInput::kMaxName, true, error)) return std::nullopt;
    std::optional<std::vector<SqlRow>> marked;
    const bool done = InTransaction(true, error, [&] {
        marked = m_db->Query("UPDATE sessions SET state = $1, ended_at = $2 WHERE station = $3 AND state = $4 "
                             "RETURNING id",
                             {StateName(SessionState::UNFINISHED), StoreInput::UtcNow(), station,
                              StateName(SessionState::RUNNING)},
                             error);
        return marked.has_value();
    });
    if (!done) return std::nullopt;
    return static_cast<int>(marked->size());
}

std::optional<int64_t> SqlResultStore::BeginSession(const SessionInfo& info, std::string& error)
{
    if (!StoreInput::CheckSession(info, error)) return std::nullopt;
    std::optional<std::vector<SqlRow>> inserted;
    const bool done = InTransaction(true, error, [&] {
        inserted = m_db->Query(
            "INSERT INTO sessions (station, batch, started_at, state, requests_planned, camera_serial, "
            "product_number) VALUES ($1, $2, $3, $4, $5, $6, $7) RETURNING id",
            {info.station, info.batch, info.startedAt.empty() ? StoreInput::UtcNow() : info.startedAt,
             StateName(SessionState::RUNNING), int64_t{info.requestsPlanned}, info.cameraSerial, info.productNumber},
            error);
        return inserted.has_value();
    });
    if (!done) return std::nullopt;
    return ToInt(inserted->front()[0]);
}

bool SqlResultStore::SetIdentity(int64_t session, const std::string& cameraSerial, const std::string& productNumber,
                                 std::string& error)
{
    if (!StoreInput::CheckText("the camera serial", cameraSerial, StoreInput::kMaxName, false, error)
        || !StoreInput::CheckText("the product number", productNumber, StoreInput::kMaxName, false, error))
        return false;
    return InTransaction(true, error, [&] {
        return CheckSessionOpen(session, true, error)
               && m_db->Query("UPDATE sessions SET "
                              "camera_serial = CASE WHEN $1 = '' THEN camera_serial ELSE $1 END, "
                              "product_number = CASE WHEN $2 = '' THEN product_number ELSE $2 END WHERE id = $3",
                              {cameraSerial, productNumber, session}, error);
    });
}

bool SqlResultStore::RecordSent(const RequestRecord& request, std::string& error)
{
    if (!StoreInput::CheckSent(request, error)) return false;
    return InTransaction(true, error, [&] {
        if (!CheckSessionOpen(request.sessionId, true, error)) return false;
        const auto existing = m_db->Query("SELECT 1 FROM requests WHERE session_id = $1 AND seq = $2",
                                          {request.sessionId, int64_t{request.seq}}, error);
        if (!existing) return false;
        if (!existing->empty()) {
            error = RequestName(request) + " was sent already";
            return false;
        }
        return m_db
            ->Query("INSERT INTO requests (session_id, seq, request_text, step, expect_fail, sent_at) "
                    "VALUES ($1, $2, $3, $4, $5, $6)",
                    {request.sessionId, int64_t{request.seq}, request.text, request.step,
                     int64_t{request.expectFail ? 1 : 0},
                     request.sentAt.empty() ? StoreInput::UtcNow() : request.sentAt},
                    error)
            .has_value();
    });
}

bool SqlResultStore::RecordAnswer(const RequestRecord& request, std::string& error)
{
    if (!StoreInput::CheckAnswer(request, error)) return false;
    return InTransaction(true, error, [&] {
        if (!CheckSessionOpen(request.sessionId, true, error)) return false;
        const auto pending = m_db->Query("SELECT CASE WHEN answer_kind IS NULL THEN 1 ELSE 0 END FROM requests WHERE session_id = $1 AND seq = $2",
                                         {request.sessionId, int64_t{request.seq}}, error);
        if (!pending) return false;
        if (pending->empty() || pending->front()[0] != "1") {
            error = RequestName(request) + (pending->empty() ? " was never sent" : " has its answer already");
            return false;
        }
        return m_db
            ->Query("UPDATE requests SET answer_kind = $1, answered = $2, answered_at = $3, code = $4, value2 = $5, "
                    "value3 = $6, data = $7, description = $8, passed = $9, millis = $10 "
                    "WHERE session_id = $11 AND seq = $12",
                    {request.answerKind, int64_t{request.answered ? 1 : 0}, StoreInput::UtcNow(),
                     int64_t{request.code}, int64_t{request.value2}, int64_t{request.value3}, request.data,
                     request.describe, int64_t{request.passed ? 1 : 0}, request.millis, request.sessionId,
                     int64_t{request.seq}},
                    error)
            .has_value();
    });
}

bool SqlResultStore::RecordTable(const TableRecord& table, std::string& error)
{
    if (!StoreInput::CheckTable(table, error)) return false;
    return InTransaction(true, error, [&] {
        if (!CheckSessionOpen(table.sessionId, true, error)) return false;
        const auto sent = m_db->Query("SELECT 1 FROM requests WHERE session_id = $1 AND seq = $2",
                                      {table.sessionId, int64_t{table.seq}}, error);
        if (!sent) return false;
        if (sent->empty()) {
            error = "request " + std::to_string(table.seq) + " of session " + std::to_string(table.sessionId) +
                    " was never sent";
            return false;
        }
        return m_db
            ->Query("INSERT INTO result_tables (session_id, seq, name, csv) VALUES ($1, $2, $3, $4)",
                    {table.sessionId, int64_t{table.seq}, table.name, table.csv}, error)
            .has_value();
    });
}

bool SqlResultStore::EndSession(int64_t session, SessionState state, std::string& error)
{
    if (state == SessionState::RUNNING || static_cast<int>(state) < 0
        || static_cast<int>(state) > static_cast<int>(SessionState::UNFINISHED)) {
        error = "a session ends passed, failed, stopped, no_answer or unfinished";
        return false;
    }
    return InTransaction(true, error, [&] {
        return CheckSessionOpen(session, true, error)
               && m_db->Query("UPDATE sessions SET state = $1, ended_at = $2 WHERE id = $3",
                              {StateName(state), StoreInput::UtcNow(), session}, error);
    });
}

std::string SqlResultStore::FilterClause(const SessionFilter& filter, std::vector<SqlValue>& params)
{
    std::string sql;
    if (!filter.cameraSerial.empty()) sql += " AND s.camera_serial = " + Param(params, filter.cameraSerial);
    if (filter.state) sql += " AND s.state = " + Param(params, std::string(StateName(*filter.state)));
    if (!filter.from.empty()) sql += " AND s.started_at >= " + Param(params, filter.from);
    if (!filter.to.empty()) sql += " AND s.started_at < " + Param(params, StoreInput::NextDay(filter.to));
    return sql;
}

std::optional<std::vector<SessionInfo>> SqlResultStore::ListSessions(const SessionFilter& filter, std::string& error)
{
    if (!StoreInput::CheckFilter(filter, error)) return std::nullopt;
    std::vector<SqlValue> params;
    const std::string where = FilterClause(filter, params);
    const std::string sql = std::string("SELECT ") + kSessionColumns + " FROM sessions s WHERE 1 = 1" + where +
                            " ORDER BY s.started_at DESC, s.id DESC LIMIT " + Param(params, int64_t{filter.limit});
    const auto rows = m_db->Query(sql, params, error);
    if (!rows) return std::nullopt;
    std::vector<SessionInfo> sessions;
    for (const SqlRow& row : *rows) sessions.push_back(ToSession(row));
    return sessions;
}

std::optional<SessionInfo> SqlResultStore::GetSession(int64_t session, std::string& error)
{
    const auto rows =
        m_db->Query(std::string("SELECT ") + kSessionColumns + " FROM sessions s WHERE s.id = $1", {session}, error);
    if (!rows) return std::nullopt;
    if (rows->empty()) {
        error = "no session " + std::to_string(session);
        return std::nullopt;
    }
    return ToSession(rows->front());
}

std::optional<std::vector<RequestRecord>> SqlResultStore::GetRequests(int64_t session, std::string& error)
{
    std::optional<std::vector<SqlRow>> rows;
    const bool done = InTransaction(false, error, [&] {
        if (!CheckSessionOpen(session, false, error)) return false;
        rows = m_db->Query("SELECT seq, request_text, step, expect_fail, sent_at, answer_kind, answered, code, "
                           "value2, value3, data, description, passed, millis FROM requests "
                           "WHERE session_id = $1 ORDER BY seq",
                           {session}, error);
        return rows.has_value();
    });
    if (!done) return std::nullopt;
    std::vector<RequestRecord> requests;
    for (const SqlRow& row : *rows) requests.push_back(ToRequest(session, row));
    return requests;
}

std::optional<std::vector<TableRecord>> SqlResultStore::GetTables(int64_t session, std::string& error)
{
    std::optional<std::vector<SqlRow>> rows;
    const bool done = InTransaction(false, error, [&] {
        if (!CheckSessionOpen(session, false, error)) return false;
        rows = m_db->Query("SELECT seq, name, csv FROM result_tables WHERE session_id = $1 ORDER BY seq, id",
                           {session}, error);
        return rows.has_value();
    });
    if (!done) return std::nullopt;
    std::vector<TableRecord> tables;
    for (const SqlRow& row : *rows) tables.push_back({session, static_cast<int>(ToInt(row[0])), row[1], row[2]});
    return tables;
}

std::optional<std::vector<StepYield>> SqlResultStore::YieldPerStep(const SessionFilter& filter, std::string& error)
{
    if (!StoreInput::CheckFilter(filter, error)) return std::nullopt;
    std::vector<SqlValue> params;
    const std::string where = FilterClause(filter, params);
    // A request counts once it has its verdict: an answer, or none in time (a fail).
    const auto rows = m_db->Query("SELECT r.step, SUM(r.passed), SUM(1 - r.passed) FROM requests r "
                                  "JOIN sessions s ON s.id = r.session_id "
                                  "WHERE r.answer_kind IS NOT NULL AND r.step <> ''" +
                                      where + " GROUP BY r.step ORDER BY r.step",
                                  params, error);
    if (!rows) return std::nullopt;
    std::vector<StepYield> yields;
    for (const SqlRow& row : *rows)
        yields.push_back({row[0], static_cast<int>(ToInt(row[1])), static_cast<int>(ToInt(row[2]))});
    return yields;
}

} // namespace station
