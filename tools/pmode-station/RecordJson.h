#pragma once
// The station's records as JSON (the page, the live events, the exports) and a
// query's sessions as CSV. Pure functions; any thread.

#include "ResultStore.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

nlohmann::json SessionJson(const station::SessionInfo& session);
nlohmann::json RequestJson(const station::RequestRecord& request);
nlohmann::json TableJson(const station::TableRecord& table);
/// One line per session, a header first; fields quoted where they need it.
std::string SessionsCsv(const std::vector<station::SessionInfo>& sessions);
/// The time now, UTC, ISO 8601 with milliseconds ("2026-11-23T20:41:07.123Z").
std::string UtcNow();
