#pragma once
// An SQLite database file as a SqlConnection. Opened in WAL mode (readers never
// wait for the writer), with a busy time-out (several stations may write one file:
// a writer waits its turn instead of failing), foreign keys on and synchronous=FULL:
// each commit is on the disk before the call returns, so neither a killed station
// nor a power cut of the factory PC loses an answer the station has shown. NORMAL
// would survive a killed process only; the extra fsync per answer costs far less
// than the camera's round trip. A connection is used by one thread at a time.

#include "SqlConnection.h"

#include <memory>

struct sqlite3;

namespace station {

class SqliteConnection : public SqlConnection {
public:
    /// Opens (creating) the file at `path`; null with a message when it cannot be used.
    static std::unique_ptr<SqliteConnection> Open(const std::string& path, std::string& error);
    ~SqliteConnection() override;
    SqliteConnection(const SqliteConnection&) = delete;
    SqliteConnection& operator=(const SqliteConnection&) = delete;

    bool Run(const std::string& sql, std::string& error) override;
    std::optional<std::vector<SqlRow>> Query(const std::string& sql, const std::vector<SqlValue>& params,
                                             std::string& error) override;
    std::string BeginStatement(bool forWriting) const override;
    std::string SchemaType(const std::string& token) const override;
    std::string SchemaLockStatement() const override { return ""; }

    static constexpr int kBusyTimeoutMs = 30000;

private:
    explicit SqliteConnection(sqlite3* db) : m_db(db) {}
    bool Configure(std::string& error);

    sqlite3* m_db;
};

} // namespace station
