#include "HostRequest.h"
#include "HostLinkClient.h"
#include "ToolCommandLine.h"

#include <cctype>
#include <fstream>
#include <sstream>

namespace {

/// A 32-bit unsigned value, decimal or 0x hexadecimal.
bool parseNumber(const std::string& text, uint32_t& out)
{
    long long value = 0;
    if (!toolcli::ParseWhole(text, value) || value < 0 || value > 0xFFFFFFFFll) return false;
    out = static_cast<uint32_t>(value);
    return true;
}

/// Fills an operation from its words (after "op"); error names what is wrong.
bool parseOperation(const std::vector<std::string>& words, const std::string& baseDir, HostRequest& request,
                    std::string& error)
{
    request.isLine = false;
    size_t argCount = 0;
    int sizeArg = -1; // the argument that stands for the payload's size
    bool haveCode = false;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        std::string payloadPath;
        if (word == "--payload" && i + 1 < words.size())
            payloadPath = words[++i];
        else if (word.rfind("payload=", 0) == 0)
            payloadPath = word.substr(8);
        if (!payloadPath.empty()) {
            if (!baseDir.empty() && payloadPath[0] != '/') payloadPath = baseDir + "/" + payloadPath;
            if (!ReadWholeFile(payloadPath, request.payload)) {
                error = "cannot read the payload file " + payloadPath;
                return false;
            }
            request.hasPayload = true;
            continue;
        }
        const bool isCode = !haveCode;
        if (!(error = HostRequest::WordError(word, isCode)).empty()) return false;
        if (!isCode && argCount >= 4) {
            error = "more than four arguments";
            return false;
        }
        uint32_t value = 0;
        if (word == "size")
            sizeArg = static_cast<int>(argCount);
        else
            parseNumber(word, value);
        if (isCode)
            request.code = value;
        else
            request.args[argCount++] = value;
        haveCode = true;
    }
    if (!haveCode) {
        error = "an operation needs its code";
        return false;
    }
    if (sizeArg >= 0) request.args[sizeArg] = static_cast<uint32_t>(request.payload.size());
    return true;
}

} // namespace

std::vector<std::string> SplitWords(const std::string& text)
{
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

bool ReadWholeFile(const std::string& path, std::string& out)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    std::stringstream content;
    content << file.rdbuf();
    out = content.str();
    return true;
}

std::string HostRequest::WordError(const std::string& word, bool isCode)
{
    uint32_t value = 0;
    if ((!isCode && word == "size")
        || (parseNumber(word, value) && (!isCode || HostLinkClient::OperationName(value) != nullptr)))
        return "";
    if (!parseNumber(word, value))
        return "'" + word + "' is not a number from 0 to 0xFFFFFFFF" + (isCode ? "" : " or \"size\"");
    return "'" + word
           + "' is an operation code the camera does not serve (0x10011000 shutter_speed2, "
             "0x10021000 cis_data2, 0x10021001 cis_data_info, 0x10030000 rtc2, 0x10040000 paf2)";
}

bool HostRequest::Parse(const std::string& text, const std::string& baseDir, HostRequest& request, std::string& error)
{
    std::vector<std::string> words = SplitWords(text);
    request.text = text;
    if (!words.empty() && words[0] == "expect-fail") {
        request.expectFail = true;
        words.erase(words.begin());
    }
    if (words.empty()) {
        error = "empty request";
        return false;
    }
    std::string kind = words[0];
    words.erase(words.begin());
    if (kind == "line") {
        if (words.empty()) {
            error = "a script line needs words";
            return false;
        }
        // The line goes as written after "line": the camera splits it itself.
        size_t at = text.find("line") + 4;
        while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
        request.line = text.substr(at);
        return true;
    }
    if (kind == "op") return parseOperation(words, baseDir, request, error);
    error = "unknown request '" + kind + "' (line or op)";
    return false;
}

std::string HostRequest::Step() const
{
    if (!isLine) {
        const char* name = HostLinkClient::OperationName(code);
        return std::string("op ") + (name != nullptr ? name : "unknown");
    }
    std::vector<std::string> words = SplitWords(line);
    if (words.size() > 2) words.resize(2);
    std::string step;
    for (const std::string& word : words) step += (step.empty() ? "" : " ") + word;
    return step;
}
