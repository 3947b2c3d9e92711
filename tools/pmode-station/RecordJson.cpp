#include "RecordJson.h"

#include <chrono>
#include <ctime>

using nlohmann::json;

json SessionJson(const station::SessionInfo& session)
{
    return {{"id", session.id},
            {"station", session.station},
            {"batch", session.batch},
            {"startedAt", session.startedAt},
            {"endedAt", session.endedAt},
            {"state", station::StateName(session.state)},
            {"requestsPlanned", session.requestsPlanned},
            {"cameraSerial", session.cameraSerial},
            {"productNumber", session.productNumber}};
}

json RequestJson(const station::RequestRecord& request)
{
    return {{"seq", request.seq},
            {"text", request.text},
            {"step", request.step},
            {"expectFail", request.expectFail},
            {"sentAt", request.sentAt},
            {"answered", request.answered},
            {"answerKind", request.answerKind},
            {"code", request.code},
            {"value2", request.value2},
            {"value3", request.value3},
            {"data", request.data},
            {"describe", request.describe},
            {"passed", request.passed},
            {"millis", request.millis}};
}

json TableJson(const station::TableRecord& table)
{
    return {{"seq", table.seq}, {"name", table.name}, {"csv", table.csv}};
}

namespace {

std::string csvField(const std::string& text)
{
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

} // namespace

std::string SessionsCsv(const std::vector<station::SessionInfo>& sessions)
{
    std::string csv = "id,station,batch,started_at,ended_at,state,requests_planned,camera_serial,product_number\r\n";
    for (const station::SessionInfo& s : sessions)
        csv += std::to_string(s.id) + "," + csvField(s.station) + "," + csvField(s.batch) + "," + s.startedAt + ","
               + s.endedAt + "," + station::StateName(s.state) + "," + std::to_string(s.requestsPlanned) + ","
               + csvField(s.cameraSerial) + "," + csvField(s.productNumber) + "\r\n";
    return csv;
}

std::string UtcNow()
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const long millis =
        static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    char full[48];
    std::snprintf(full, sizeof full, "%s.%03ldZ", text, millis);
    return full;
}
