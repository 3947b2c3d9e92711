#include "SessionFacts.h"

#include <cctype>
#include <regex>
#include <sstream>

namespace {

/// The first run of digits after marker in text ("SN=40718833" -> "40718833"); empty when none.
std::string numberAfter(const std::string& text, const std::string& marker)
{
    std::smatch match;
    if (!std::regex_search(text, match, std::regex(marker + R"(\s*([0-9]+))"))) return "";
    return match[1].str() == "0" ? "" : match[1].str();
}

/// The word after "WORKER STEP" in a script line, e.g. ("sys_serial", "write").
std::string valueAfter(const std::vector<std::string>& words, size_t at, const std::string& first,
                       const std::string& second)
{
    return words.size() > at + 2 && words[at] == first && words[at + 1] == second ? words[at + 2] : "";
}

bool isNumber(const std::string& word)
{
    char* end = nullptr;
    std::strtod(word.c_str(), &end);
    return !word.empty() && end != nullptr && *end == '\0';
}

std::string baseName(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

std::string CameraIdentity::CameraSerial() const
{
    return !bodySerial.empty() ? bodySerial : sensorSerial;
}

bool CameraIdentity::operator==(const CameraIdentity& other) const
{
    return bodySerial == other.bodySerial && sensorSerial == other.sensorSerial && productNumber == other.productNumber;
}

void LearnIdentity(const HostRequest& request, const RequestOutcome& outcome, CameraIdentity& identity)
{
    if (request.isLine && !request.expectFail && !outcome.answer.Failed()) {
        const std::vector<std::string> words = SplitWords(request.line);
        std::string value;
        if (!(value = valueAfter(words, 0, "sys_serial", "write")).empty()) identity.bodySerial = value;
        if (!(value = valueAfter(words, 1, "product_number", "write")).empty()) identity.productNumber = value;
        if (!(value = valueAfter(words, 1, "cis_data", "set")).empty() && isNumber(value))
            identity.sensorSerial = value;
    }
    if (!request.isLine && request.hasPayload && !outcome.answer.Failed()) {
        const std::string serial = numberAfter(request.payload, "SN=");
        if (!serial.empty()) identity.sensorSerial = serial;
    }
    const std::string& text = outcome.answer.kind == HostAnswer::FILE_PATH ? outcome.fileContent : outcome.answer.text;
    const std::string serial = numberAfter(text, "CIS S/N");
    if (!serial.empty()) identity.sensorSerial = serial;
}

std::vector<station::TableRecord> TablesOf(const HostRequest& request, const RequestOutcome& outcome)
{
    std::vector<station::TableRecord> tables;
    const HostAnswer& answer = outcome.answer;
    if (answer.kind == HostAnswer::STREAM) {
        const size_t end = answer.text.find('\n');
        std::string name = answer.text.substr(0, end);
        if (!name.empty() && name.back() == '\r') name.pop_back();
        if (end != std::string::npos && name.size() > 4 && name.compare(name.size() - 4, 4, ".csv") == 0)
            tables.push_back({0, 0, name, answer.text.substr(end + 1)});
    } else if (answer.kind == HostAnswer::FILE_PATH && outcome.fileReadable) {
        tables.push_back({0, 0, baseName(answer.text), outcome.fileContent});
    }
    if (!request.isLine && request.code == 0x10011000u && request.hasPayload) {
        std::istringstream words(request.payload);
        std::string csv = "PASS,MEASURED_US\n", word;
        int pass = 0;
        bool numeric = true;
        while (words >> word) {
            numeric = numeric && isNumber(word);
            csv += std::to_string(++pass) + "," + word + "\n";
        }
        if (numeric && pass > 0) tables.push_back({0, 0, "shutter times sent", csv});
    }
    return tables;
}
