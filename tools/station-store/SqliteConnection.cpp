#include "SqliteConnection.h"

#include <sqlite3.h>

namespace station {

namespace {

bool Bind(sqlite3_stmt* statement, const std::vector<SqlValue>& params)
{
    for (size_t i = 0; i < params.size(); ++i) {
        const std::string name = "$" + std::to_string(i + 1);
        const int index = sqlite3_bind_parameter_index(statement, name.c_str());
        if (index == 0) continue; // a parameter the statement does not use
        int rc = SQLITE_OK;
        if (const auto* number = std::get_if<int64_t>(&params[i]))
            rc = sqlite3_bind_int64(statement, index, *number);
        else if (const auto* real = std::get_if<double>(&params[i]))
            rc = sqlite3_bind_double(statement, index, *real);
        else {
            const std::string& text = std::get<std::string>(params[i]);
            rc = sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
        }
        if (rc != SQLITE_OK) return false;
    }
    return true;
}

SqlRow ReadRow(sqlite3_stmt* statement)
{
    SqlRow row;
    const int columns = sqlite3_column_count(statement);
    for (int c = 0; c < columns; ++c) {
        const auto* text = sqlite3_column_text(statement, c);
        row.emplace_back(text ? reinterpret_cast<const char*>(text) : "",
                         text ? static_cast<size_t>(sqlite3_column_bytes(statement, c)) : 0);
    }
    return row;
}

} // namespace

std::unique_ptr<SqliteConnection> SqliteConnection::Open(const std::string& path, std::string& error)
{
    if (path.empty()) {
        error = "no SQLite file given";
        return nullptr;
    }
    sqlite3* db = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    std::unique_ptr<SqliteConnection> connection(db ? new SqliteConnection(db) : nullptr);
    if (rc != SQLITE_OK) {
        error = "cannot open the SQLite file \"" + path + "\": " + (db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
        return nullptr;
    }
    if (!connection->Configure(error)) {
        error = "cannot use the SQLite file \"" + path + "\": " + error;
        return nullptr;
    }
    return connection;
}

SqliteConnection::~SqliteConnection()
{
    sqlite3_close_v2(m_db);
}

bool SqliteConnection::Configure(std::string& error)
{
    sqlite3_extended_result_codes(m_db, 1);
    sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
    const auto mode = Query("PRAGMA journal_mode=WAL", {}, error);
    if (!mode) return false;
    if (mode->empty() || mode->front().empty() || mode->front()[0] != "wal") {
        error = "the file system does not allow WAL mode";
        return false;
    }
    return Run("PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON;", error);
}

bool SqliteConnection::Run(const std::string& sql, std::string& error)
{
    char* message = nullptr;
    if (sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &message) == SQLITE_OK) return true;
    error = message ? message : sqlite3_errmsg(m_db);
    sqlite3_free(message);
    return false;
}

std::optional<std::vector<SqlRow>> SqliteConnection::Query(const std::string& sql,
                                                           const std::vector<SqlValue>& params, std::string& error)
{
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(m_db, sql.c_str(), static_cast<int>(sql.size()), &raw, nullptr) != SQLITE_OK) {
        error = sqlite3_errmsg(m_db);
        return std::nullopt;
    }
    std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement(raw, sqlite3_finalize);
    if (!Bind(raw, params)) {
        error = sqlite3_errmsg(m_db);
        return std::nullopt;
    }
    std::vector<SqlRow> rows;
    for (;;) {
        const int rc = sqlite3_step(raw);
        if (rc == SQLITE_ROW) {
            rows.push_back(ReadRow(raw));
        } else if (rc == SQLITE_DONE) {
            return rows;
        } else {
            error = sqlite3_errmsg(m_db);
            return std::nullopt;
        }
    }
}

std::string SqliteConnection::BeginStatement(bool forWriting) const
{
    return forWriting ? "BEGIN IMMEDIATE" : "BEGIN";
}

std::string SqliteConnection::SchemaType(const std::string& token) const
{
    // INTEGER PRIMARY KEY is the row id; SQLite's TEXT already compares byte by byte.
    return token == "id" ? "INTEGER PRIMARY KEY" : "TEXT";
}

} // namespace station
