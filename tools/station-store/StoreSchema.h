#pragma once
// The results database's tables, written once for both back ends: {id} and
// {text_c} are replaced by each back end's own type words (SqlConnection::SchemaType).

#include <string>

namespace station {

class SqlConnection;

class StoreSchema {
public:
    static constexpr int kVersion = 1;

    /// The DDL in the dialect of `connection`.
    static std::string Statements(const SqlConnection& connection);
};

} // namespace station
