#include "ResultStore.h"

#include "PostgresConnection.h"
#include "SqlResultStore.h"
#include "SqliteConnection.h"

namespace station {

namespace {

const char* const kStateNames[] = {"running", "passed", "failed", "stopped", "no_answer", "unfinished"};

bool StartsWith(const std::string& text, const char* prefix)
{
    return text.rfind(prefix, 0) == 0;
}

} // namespace

const char* StateName(SessionState state)
{
    const auto index = static_cast<size_t>(state);
    return index < std::size(kStateNames) ? kStateNames[index] : "unknown";
}

bool ParseState(const std::string& name, SessionState& state)
{
    for (size_t i = 0; i < std::size(kStateNames); ++i) {
        if (name == kStateNames[i]) {
            state = static_cast<SessionState>(i);
            return true;
        }
    }
    return false;
}

std::unique_ptr<ResultStore> OpenResultStore(const std::string& where, std::string& error)
{
    std::unique_ptr<SqlConnection> connection;
    if (StartsWith(where, "postgresql://") || StartsWith(where, "postgres://"))
        connection = PostgresConnection::Open(where, error);
    else
        connection = SqliteConnection::Open(where, error);
    if (!connection) return nullptr;
    auto store = std::make_unique<SqlResultStore>(std::move(connection));
    if (!store->Prepare(error)) return nullptr;
    return store;
}

} // namespace station
