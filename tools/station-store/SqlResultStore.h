#pragma once
// The result store over a SqlConnection: one SQL text for SQLite and PostgreSQL.
// Every call is one transaction; a write to a session checks first that the
// session exists and is still running, so a late or stray write is refused with
// a message instead of changing a finished record. Used by one thread at a time.

#include "ResultStore.h"
#include "SqlConnection.h"

#include <functional>

namespace station {

class SqlResultStore : public ResultStore {
public:
    explicit SqlResultStore(std::unique_ptr<SqlConnection> connection) : m_db(std::move(connection)) {}

    bool Prepare(std::string& error) override;
    std::optional<int> MarkUnfinished(const std::string& station, std::string& error) override;
    std::optional<int64_t> BeginSession(const SessionInfo& info, std::string& error) override;
    bool SetIdentity(int64_t session, const std::string& cameraSerial, const std::string& productNumber,
                     std::string& error) override;
    bool RecordSent(const RequestRecord& request, std::string& error) override;
    bool RecordAnswer(const RequestRecord& request, std::string& error) override;
    bool RecordTable(const TableRecord& table, std::string& error) override;
    bool EndSession(int64_t session, SessionState state, std::string& error) override;
    std::optional<std::vector<SessionInfo>> ListSessions(const SessionFilter& filter, std::string& error) override;
    std::optional<SessionInfo> GetSession(int64_t session, std::string& error) override;
    std::optional<std::vector<RequestRecord>> GetRequests(int64_t session, std::string& error) override;
    std::optional<std::vector<TableRecord>> GetTables(int64_t session, std::string& error) override;
    std::optional<std::vector<StepYield>> YieldPerStep(const SessionFilter& filter, std::string& error) override;

private:
    /// Runs `work` in one transaction: committed when it answers true, rolled back otherwise.
    bool InTransaction(bool forWriting, std::string& error, const std::function<bool()>& work);
    /// True when `session` exists (and, with mustRun, is still running).
    bool CheckSessionOpen(int64_t session, bool mustRun, std::string& error);
    /// " AND ..." conditions on the sessions table (alias s) and their parameters, from $`first` on.
    static std::string FilterClause(const SessionFilter& filter, std::vector<SqlValue>& params);

    std::unique_ptr<SqlConnection> m_db;
};

} // namespace station
