// pmode-pc: the factory PC. Sends requests to a running pmode-sim over the host
// link (the simulated key-value store below the device root) and prints the answers.
//
//   pmode-pc [OPTIONS] line WORDS...            one script line
//   pmode-pc [OPTIONS] op CODE [P1 [P2 [P3 [P4]]]] [--payload FILE]
//                                               one protocol operation; CODE is
//                                               group << 16 | sub-code (0x10021001);
//                                               an argument "size" stands for the
//                                               payload's byte count
//   pmode-pc [OPTIONS] batch FILE               the requests of a batch file
// Options: --root DIR (the device root; default $PMODE_ROOT; required, and never
// the host's "/"), --timeout SEC (per answer, default 10), --wait SEC (for
// pmode-sim to serve, default 10).
//
// Batch file: one request a line, "line WORDS..." or "op CODE [P1..P4] [payload=FILE]"
// (FILE relative to the batch file); "expect-fail " before a request expects the
// camera to report a failure; "#" starts a comment line.
//
// Exit status: 0 when every request got the answer expected, 1 otherwise, 2 bad
// usage or no device root, 3 when no pmode-sim serves the host link.
#include "DeviceRoot.h"
#include "HostLinkClient.h"
#include "PmodeSimHost.h"

#include "kernel.h"

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Request {
    bool isLine = true;
    std::string line;           ///< the script line
    uint32_t code = 0;
    uint32_t args[4] = {0, 0, 0, 0};
    bool hasPayload = false;
    std::string payload;
    bool expectFail = false;
    std::string text;           ///< as written, for the report
};

int usage()
{
    std::fprintf(stderr,
                 "usage: pmode-pc [--root DIR] [--timeout SEC] [--wait SEC] line WORDS...\n"
                 "       pmode-pc [OPTIONS] op CODE [P1 [P2 [P3 [P4]]]] [--payload FILE]\n"
                 "       pmode-pc [OPTIONS] batch FILE\n"
                 "the device root: %s\n",
                 devroot::kHowToGive);
    return 2;
}

bool parseNumber(const std::string& text, uint32_t& out)
{
    if (text.empty()) return false;
    char* end = nullptr;
    unsigned long long value = std::strtoull(text.c_str(), &end, 0);
    if (*end != '\0' || value > 0xFFFFFFFFull) return false;
    out = static_cast<uint32_t>(value);
    return true;
}

/// Seconds from 0 to a day, written as a plain number ("0.3", "20"); false for anything else.
bool parseSeconds(const std::string& text, int& milliseconds)
{
    if (text.empty()) return false;
    char* end = nullptr;
    double seconds = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !(seconds >= 0.0 && seconds <= 86400.0)) return false;
    milliseconds = static_cast<int>(seconds * 1000);
    return true;
}

bool readFile(const std::string& path, std::string& out)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    std::stringstream content;
    content << file.rdbuf();
    out = content.str();
    return true;
}

/// Fills an operation from its words (after "op"); error names what is wrong.
bool parseOperation(const std::vector<std::string>& words, const std::string& baseDir, Request& request, std::string& error)
{
    request.isLine = false;
    size_t argCount = 0;
    int sizeArg = -1; // the argument that stands for the payload's size
    for (size_t i = 0; i < words.size(); ++i) {
        std::string word = words[i];
        std::string payloadPath;
        if (word == "--payload" && i + 1 < words.size()) payloadPath = words[++i];
        else if (word.rfind("payload=", 0) == 0) payloadPath = word.substr(8);
        if (!payloadPath.empty()) {
            if (!baseDir.empty() && payloadPath[0] != '/') payloadPath = baseDir + "/" + payloadPath;
            if (!readFile(payloadPath, request.payload)) {
                error = "cannot read the payload file " + payloadPath;
                return false;
            }
            request.hasPayload = true;
            continue;
        }
        uint32_t value = 0;
        if (word == "size") {
            sizeArg = static_cast<int>(argCount);
            ++argCount;
            continue;
        }
        if (!parseNumber(word, value)) {
            error = "not a number: " + word;
            return false;
        }
        if (i == 0) request.code = value;
        else if (argCount >= 4) {
            error = "more than four arguments";
            return false;
        }
        else request.args[argCount++] = value;
    }
    if (words.empty() || request.code == 0) {
        error = "an operation needs a code other than 0";
        return false;
    }
    if (argCount > 4) {
        error = "more than four arguments";
        return false;
    }
    if (sizeArg >= 0) request.args[sizeArg] = static_cast<uint32_t>(request.payload.size());
    return true;
}

std::vector<std::string> splitWords(const std::string& text)
{
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

/// Parses one request from its words ("line ...", "op ...", optionally after "expect-fail").
bool parseRequest(const std::string& text, const std::string& baseDir, Request& request, std::string& error)
{
    std::vector<std::string> words = splitWords(text);
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

void printIndented(const std::string& text)
{
    std::istringstream lines(text);
    int shown = 0;
    for (std::string line; std::getline(lines, line) && shown < 20; ++shown) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::printf("       | %s\n", line.c_str());
    }
    if (shown == 20) std::printf("       | ...\n");
}

/// Sends one request, prints it and its answer; true when the answer is the one expected.
bool runRequest(HostLinkClient& client, const Request& request, int index, int timeoutMs)
{
    std::printf("[%2d] %s\n", index, request.text.c_str());
    auto start = std::chrono::steady_clock::now();
    HostAnswer answer = request.isLine
                            ? client.SendLine(request.line, timeoutMs)
                            : client.SendOperation(request.code, request.args, request.hasPayload ? &request.payload : nullptr, timeoutMs);
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    bool asExpected = answer.kind != HostAnswer::NONE && answer.Failed() == request.expectFail;
    const char* verdict = asExpected ? (request.expectFail ? "PASS (failure expected)" : "PASS") : "FAIL";
    switch (answer.kind) {
    case HostAnswer::RESPONSE:
        std::printf("     -> response 0x%08X 0x%X 0x%X: %s  [%s, %.0f ms]\n", answer.code, answer.value2, answer.value3,
                    answer.Describe().c_str(), verdict, ms);
        break;
    case HostAnswer::STREAM:
        std::printf("     -> %s  [%s, %.0f ms]\n", answer.Describe().c_str(), verdict, ms);
        printIndented(answer.text);
        break;
    case HostAnswer::FILE_PATH: {
        std::string content;
        bool readable = readFile(KernelPath(answer.text.c_str()), content);
        std::printf("     -> %s (%s)  [%s, %.0f ms]\n", answer.Describe().c_str(),
                    readable ? (std::to_string(content.size()) + " bytes").c_str() : "not readable", verdict, ms);
        if (readable) printIndented(content);
        break;
    }
    case HostAnswer::NONE:
        std::printf("     -> no answer within %d ms  [FAIL]\n", timeoutMs);
        break;
    }
    return asExpected;
}

using Batch = std::vector<std::pair<int, Request>>; ///< requests with their line numbers

/// Reads and checks a batch file before anything is sent; false (reported) on any error.
bool loadBatch(const std::string& path, Batch& requests)
{
    std::ifstream file(path);
    if (!file) {
        std::fprintf(stderr, "pmode-pc: cannot open the batch file %s\n", path.c_str());
        return false;
    }
    std::string baseDir = std::filesystem::path(path).parent_path().string();
    int lineNumber = 0;
    bool good = true;
    for (std::string line; std::getline(file, line);) {
        ++lineNumber;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::vector<std::string> words = splitWords(line);
        if (words.empty() || words[0][0] == '#') continue;
        Request request;
        std::string error;
        if (!parseRequest(line, baseDir, request, error)) {
            std::fprintf(stderr, "%s:%d: error: %s\n", path.c_str(), lineNumber, error.c_str());
            good = false;
            continue;
        }
        requests.emplace_back(lineNumber, request);
    }
    return good;
}

int runBatch(HostLinkClient& client, const std::string& path, const Batch& requests, int timeoutMs)
{
    int passed = 0;
    std::vector<std::string> failures;
    auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < requests.size(); ++i) {
        if (runRequest(client, requests[i].second, static_cast<int>(i + 1), timeoutMs)) ++passed;
        else failures.push_back(path + ":" + std::to_string(requests[i].first) + ": " + requests[i].second.text);
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("batch %s: %zu requests, %d passed, %zu failed, %.2f s\n", path.c_str(), requests.size(), passed,
                failures.size(), seconds);
    for (const std::string& failure : failures) std::printf("  failed: %s\n", failure.c_str());
    std::printf("%s\n", failures.empty() ? "BATCH PASSED" : "BATCH FAILED");
    return failures.empty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    int timeoutMs = 10000;
    int waitMs = 10000;
    std::string given;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        std::string option = argv[i];
        if (i + 1 >= argc) return usage();
        if (option == "--root") given = argv[++i];
        else if (option == "--timeout") { if (!parseSeconds(argv[++i], timeoutMs)) return usage(); }
        else if (option == "--wait") { if (!parseSeconds(argv[++i], waitMs)) return usage(); }
        else return usage();
    }
    if (i >= argc || timeoutMs <= 0 || waitMs < 0) return usage();
    std::string root, error;
    if (!devroot::Use(given, root, error)) {
        std::fprintf(stderr, "pmode-pc: %s\n", error.c_str());
        return 2;
    }
    std::string command = argv[i++];

    Request single;
    std::string batchPath;
    Batch batch;
    if (command == "batch") {
        if (i + 1 != argc) return usage();
        batchPath = argv[i];
        if (!loadBatch(batchPath, batch)) return 2;
    } else if (command == "line" || command == "op") {
        std::string text = command;
        for (; i < argc; ++i) text += std::string(" ") + argv[i];
        std::string error;
        if (!parseRequest(text, "", single, error)) {
            std::fprintf(stderr, "pmode-pc: %s\n", error.c_str());
            return 2;
        }
    } else {
        return usage();
    }

    HostLinkClient client;
    if (!client.Open()) {
        std::fprintf(stderr, "pmode-pc: cannot subscribe to the answer keys\n");
        return 3;
    }
    if (!client.WaitForCamera(waitMs)) {
        std::fprintf(stderr, "pmode-pc: no camera serves the host link below %s (is pmode-sim running in host-link mode?)\n",
                     root.c_str());
        return 3;
    }
    if (!batchPath.empty()) return runBatch(client, batchPath, batch, timeoutMs);
    return runRequest(client, single, 1, timeoutMs) ? 0 : 1;
}
