#pragma once
// A PostgreSQL database (every station of a line writing to one) as a
// SqlConnection, through libpq. A connection that broke is re-opened before the
// next transaction. A connection is used by one thread at a time.

#include "SqlConnection.h"

#include <memory>

struct pg_conn;

namespace station {

class PostgresConnection : public SqlConnection {
public:
    /// Connects to `uri` ("postgresql://user@host:port/db"); null with a message when it cannot.
    static std::unique_ptr<PostgresConnection> Open(const std::string& uri, std::string& error);
    ~PostgresConnection() override;
    PostgresConnection(const PostgresConnection&) = delete;
    PostgresConnection& operator=(const PostgresConnection&) = delete;

    bool Run(const std::string& sql, std::string& error) override;
    std::optional<std::vector<SqlRow>> Query(const std::string& sql, const std::vector<SqlValue>& params,
                                             std::string& error) override;
    std::string BeginStatement(bool forWriting) const override;
    std::string SchemaType(const std::string& token) const override;
    std::string SchemaLockStatement() const override;

private:
    explicit PostgresConnection(pg_conn* conn) : m_conn(conn) {}
    std::string LastError() const;

    pg_conn* m_conn;
};

} // namespace station
