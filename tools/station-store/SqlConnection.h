#pragma once
// One open database connection as the result store sees it: statements with
// numbered parameters ($1, $2, ...; both SQLite and PostgreSQL read them) whose
// rows come back as text. The result store writes one SQL text for both back ends
// and asks the connection only for what the dialects spell differently.
// A connection is used by one thread at a time.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace station {

using SqlValue = std::variant<int64_t, double, std::string>;
using SqlRow = std::vector<std::string>; ///< one text per column; NULL reads ""

class SqlConnection {
public:
    virtual ~SqlConnection() = default;

    /// Runs statements without parameters or rows (DDL, BEGIN, COMMIT).
    virtual bool Run(const std::string& sql, std::string& error) = 0;
    /// Runs one statement with $1.. bound to `params`; its rows, or nullopt with a message.
    virtual std::optional<std::vector<SqlRow>> Query(const std::string& sql, const std::vector<SqlValue>& params,
                                                     std::string& error) = 0;
    /// The statement that opens a transaction; `forWriting` takes the write lock at once
    /// where the back end would otherwise upgrade it later (and could then deadlock).
    virtual std::string BeginStatement(bool forWriting) const = 0;
    /// The schema's type words: {id} (an automatic 64-bit key) and {text_c} (text that
    /// compares and sorts byte by byte).
    virtual std::string SchemaType(const std::string& token) const = 0;
    /// Statements run first in the transaction that creates the schema (PostgreSQL
    /// serialises concurrent creators with an advisory lock); may be empty.
    virtual std::string SchemaLockStatement() const = 0;
};

} // namespace station
