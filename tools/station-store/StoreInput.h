#pragma once
// What the result store accepts, checked before anything is written, so a bad
// record gets a message naming the field and the database stays as it was. Texts
// are UTF-8 without NUL bytes (PostgreSQL stores nothing else; SQLite is held to
// the same) and within a size: a request line of the host link is at most 509
// bytes, so 4 KiB already means a broken caller.

#include "ResultStore.h"

#include <string>

namespace station {

class StoreInput {
public:
    static constexpr size_t kMaxName = 256;           ///< station, batch, step, serials, kinds, table names
    static constexpr size_t kMaxRequestText = 4096;   ///< a request as sent
    static constexpr size_t kMaxDescribe = 64 * 1024; ///< an answer in words
    static constexpr size_t kMaxBlock = 8 << 20;      ///< a data block or a received table
    static constexpr int kMaxPlanned = 1000000;
    static constexpr int kMaxLimit = 10000;

    static bool CheckSession(const SessionInfo& info, std::string& error);
    static bool CheckSent(const RequestRecord& request, std::string& error);
    static bool CheckAnswer(const RequestRecord& request, std::string& error);
    static bool CheckTable(const TableRecord& table, std::string& error);
    static bool CheckFilter(const SessionFilter& filter, std::string& error);
    static bool CheckText(const char* what, const std::string& text, size_t maxBytes, bool required,
                          std::string& error);

    /// The current time as the store writes it: "2026-11-23T20:41:07.123Z".
    static std::string UtcNow();
    /// True for a time written that way (a real date and time).
    static bool IsUtcTime(const std::string& text);
    /// The day after a valid "YYYY-MM-DD" (the exclusive end of an inclusive date range).
    static std::string NextDay(const std::string& day);
};

} // namespace station
