#include "StoreInput.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace station {

namespace {

bool IsUtf8(const std::string& text)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const size_t size = text.size();
    for (size_t i = 0; i < size;) {
        const unsigned char lead = bytes[i];
        if (lead == 0) return false;
        size_t extra = 0;
        uint32_t point = lead;
        if (lead < 0x80) {
            ++i;
            continue;
        }
        if ((lead & 0xE0) == 0xC0) extra = 1, point = lead & 0x1F;
        else if ((lead & 0xF0) == 0xE0) extra = 2, point = lead & 0x0F;
        else if ((lead & 0xF8) == 0xF0) extra = 3, point = lead & 0x07;
        else return false;
        if (i + extra >= size) return false; // cut short
        for (size_t k = 1; k <= extra; ++k) {
            if ((bytes[i + k] & 0xC0) != 0x80) return false;
            point = (point << 6) | (bytes[i + k] & 0x3F);
        }
        static const uint32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
        if (point < kLeast[extra] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
        i += extra + 1;
    }
    return true;
}

bool ParseDay(const std::string& day, std::tm& out)
{
    int y = 0, m = 0, d = 0, used = 0;
    if (day.size() != 10 || std::sscanf(day.c_str(), "%4d-%2d-%2d%n", &y, &m, &d, &used) != 3 || used != 10)
        return false;
    for (size_t i : {0u, 1u, 2u, 3u, 5u, 6u, 8u, 9u})
        if (day[i] < '0' || day[i] > '9') return false;
    out = std::tm{};
    out.tm_year = y - 1900;
    out.tm_mon = m - 1;
    out.tm_mday = d;
    out.tm_hour = 12;
    std::tm normalised = out;
    timegm(&normalised); // a day that does not exist (02-30) comes back moved
    return m >= 1 && m <= 12 && normalised.tm_mday == d && normalised.tm_mon == m - 1;
}

std::string FormatDay(const std::tm& day)
{
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d", day.tm_year + 1900, day.tm_mon + 1, day.tm_mday);
    return buffer;
}

bool IsDigits(const std::string& text, size_t from, size_t count)
{
    for (size_t i = from; i < from + count; ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    return true;
}

bool CheckTimeField(const char* what, const std::string& text, std::string& error)
{
    if (text.empty() || StoreInput::IsUtcTime(text)) return true;
    error = std::string(what) + " \"" + text.substr(0, 40) + "\" is not a UTC time like 2026-11-23T20:41:07.123Z";
    return false;
}

} // namespace

bool StoreInput::CheckText(const char* what, const std::string& text, size_t maxBytes, bool required,
                           std::string& error)
{
    if (required && text.empty()) {
        error = std::string(what) + " is empty";
    } else if (text.size() > maxBytes) {
        error = std::string(what) + " is " + std::to_string(text.size()) + " bytes long; at most " +
                std::to_string(maxBytes) + " are taken";
    } else if (!IsUtf8(text)) {
        error = std::string(what) + " is not UTF-8 text (or holds a NUL byte)";
    } else {
        return true;
    }
    return false;
}

bool StoreInput::CheckSession(const SessionInfo& info, std::string& error)
{
    if (info.requestsPlanned < 0 || info.requestsPlanned > kMaxPlanned) {
        error = "requests planned " + std::to_string(info.requestsPlanned) + " is out of range (0 to " +
                std::to_string(kMaxPlanned) + ")";
        return false;
    }
    return CheckText("the station name", info.station, kMaxName, true, error)
           && CheckText("the batch name", info.batch, kMaxName, true, error)
           && CheckText("the camera serial", info.cameraSerial, kMaxName, false, error)
           && CheckText("the product number", info.productNumber, kMaxName, false, error)
           && CheckTimeField("the start time", info.startedAt, error);
}

bool StoreInput::CheckSent(const RequestRecord& request, std::string& error)
{
    if (request.seq < 1) {
        error = "request number " + std::to_string(request.seq) + " is not 1 or more";
        return false;
    }
    return CheckText("the request text", request.text, kMaxRequestText, true, error)
           && CheckText("the step", request.step, kMaxName, false, error)
           && CheckTimeField("the send time", request.sentAt, error);
}

bool StoreInput::CheckAnswer(const RequestRecord& request, std::string& error)
{
    const std::string& kind = request.answerKind;
    const bool known = kind == "response" || kind == "stream" || kind == "file" || kind == "none";
    if (!known || (kind == "none") == request.answered) {
        error = "answer kind \"" + kind.substr(0, 40) + "\" does not fit " +
                (request.answered ? "an answer (response, stream or file)" : "a missing answer (none)");
        return false;
    }
    if (!std::isfinite(request.millis) || request.millis < 0) {
        error = "the answer time " + std::to_string(request.millis) + " ms is not a time";
        return false;
    }
    return CheckText("the answer's data", request.data, kMaxBlock, false, error)
           && CheckText("the answer's description", request.describe, kMaxDescribe, false, error);
}

bool StoreInput::CheckTable(const TableRecord& table, std::string& error)
{
    return CheckText("the table name", table.name, kMaxName, true, error)
           && CheckText("the table", table.csv, kMaxBlock, false, error);
}

bool StoreInput::CheckFilter(const SessionFilter& filter, std::string& error)
{
    std::tm day{};
    if (filter.limit < 1 || filter.limit > kMaxLimit) {
        error = "limit " + std::to_string(filter.limit) + " is out of range (1 to " + std::to_string(kMaxLimit) + ")";
    } else if (filter.state && (static_cast<int>(*filter.state) < 0
                                || static_cast<int>(*filter.state) > static_cast<int>(SessionState::UNFINISHED))) {
        error = "the state filter is not a session state";
    } else if (!filter.from.empty() && !ParseDay(filter.from, day)) {
        error = "from date \"" + filter.from.substr(0, 40) + "\" is not a date like 2026-11-23";
    } else if (!filter.to.empty() && !ParseDay(filter.to, day)) {
        error = "to date \"" + filter.to.substr(0, 40) + "\" is not a date like 2026-11-23";
    } else if (!filter.from.empty() && !filter.to.empty() && filter.from > filter.to) {
        error = "from date " + filter.from + " is after to date " + filter.to;
    } else {
        return CheckText("the camera serial filter", filter.cameraSerial, kMaxName, false, error);
    }
    return false;
}

std::string StoreInput::UtcNow()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char buffer[80];
    std::snprintf(buffer, sizeof buffer, "%sT%02d:%02d:%02d.%03dZ", FormatDay(utc).c_str(), utc.tm_hour, utc.tm_min,
                  utc.tm_sec, static_cast<int>(now.tv_nsec / 1000000));
    return buffer;
}

bool StoreInput::IsUtcTime(const std::string& text)
{
    std::tm day{};
    if (text.size() != 24 || text[10] != 'T' || text[13] != ':' || text[16] != ':' || text[19] != '.'
        || text[23] != 'Z' || !ParseDay(text.substr(0, 10), day))
        return false;
    if (!IsDigits(text, 11, 2) || !IsDigits(text, 14, 2) || !IsDigits(text, 17, 2) || !IsDigits(text, 20, 3))
        return false;
    return std::stoi(text.substr(11, 2)) < 24 && std::stoi(text.substr(14, 2)) < 60 && std::stoi(text.substr(17, 2)) < 61;
}

std::string StoreInput::NextDay(const std::string& day)
{
    std::tm parsed{};
    if (!ParseDay(day, parsed)) return day;
    parsed.tm_mday += 1;
    timegm(&parsed);
    return FormatDay(parsed);
}

} // namespace station
