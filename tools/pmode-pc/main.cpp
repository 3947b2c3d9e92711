// pmode-pc: the factory PC. Sends requests to a running pmode-sim over the host
// link (the simulated key-value store below the device root) and prints the answers.
//
//   pmode-pc [OPTIONS] line WORDS...            one script line (words that start
//                                               with "-" follow "--")
//   pmode-pc [OPTIONS] op CODE [P1 [P2 [P3 [P4]]]] [--payload FILE]
//                                               one protocol operation; CODE is
//                                               group << 16 | sub-code, one the camera
//                                               serves: 0x10011000 shutter_speed2,
//                                               0x10021000 cis_data2, 0x10021001
//                                               cis_data_info, 0x10030000 rtc2,
//                                               0x10040000 paf2; P1..P4 are 0 to
//                                               0xFFFFFFFF, "size" stands for the
//                                               payload's byte count
//   pmode-pc [OPTIONS] batch FILE               the requests of a batch file
//   pmode-pc --help | --version
// Options: --root DIR (the device root; default $PMODE_ROOT; required, and never
// the host's "/"), --timeout SEC (per answer, above 0 to 86400, default 10),
// --wait SEC (for pmode-sim to serve, 0 to 86400, default 10).
//
// Batch file: one request a line, "line WORDS..." or "op CODE [P1..P4] [payload=FILE]"
// (FILE relative to the batch file); "expect-fail " before a request expects the
// camera to report a failure; "#" starts a comment line. A batch is read and
// checked whole before anything is sent; one with no request is refused.
//
// Exit status: 0 when every request got the answer expected, 1 otherwise, 2 a
// wrong argument, a bad batch file or no device root, 3 when no pmode-sim serves
// the host link.
#include "DeviceRoot.h"
#include "HostLinkClient.h"
#include "PmodeSimHost.h"
#include "RequestBatch.h"
#include "RequestRun.h"
#include "ToolCommandLine.h"

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

CLI::Validator wordCheck(bool isCode)
{
    return CLI::Validator([isCode](std::string& word) { return HostRequest::WordError(word, isCode); }, "");
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
bool runRequest(HostLinkClient& client, const HostRequest& request, int index, int timeoutMs)
{
    std::printf("[%2d] %s\n", index, request.text.c_str());
    const RequestOutcome outcome = RunRequest(client, request, timeoutMs);
    const HostAnswer& answer = outcome.answer;
    const char* verdict = outcome.Verdict(request.expectFail);
    const double ms = outcome.millis;
    switch (answer.kind) {
    case HostAnswer::RESPONSE:
        std::printf("     -> response 0x%08X 0x%X 0x%X: %s  [%s, %.0f ms]\n", answer.code, answer.value2, answer.value3,
                    answer.Describe().c_str(), verdict, ms);
        break;
    case HostAnswer::STREAM:
        std::printf("     -> %s  [%s, %.0f ms]\n", answer.Describe().c_str(), verdict, ms);
        printIndented(answer.text);
        break;
    case HostAnswer::FILE_PATH:
        std::printf("     -> %s (%s)  [%s, %.0f ms]\n", answer.Describe().c_str(),
                    outcome.fileReadable ? (std::to_string(outcome.fileContent.size()) + " bytes").c_str()
                                         : "not readable",
                    verdict, ms);
        if (outcome.fileReadable) printIndented(outcome.fileContent);
        break;
    case HostAnswer::NONE: std::printf("     -> no answer within %d ms  [FAIL]\n", timeoutMs); break;
    }
    return outcome.asExpected;
}

/// Reads and checks a batch file before anything is sent; false (reported) on any error.
bool loadBatch(const std::string& path, std::vector<BatchEntry>& requests)
{
    std::vector<BatchError> errors;
    const bool good = LoadBatch(path, requests, errors);
    for (const BatchError& error : errors)
        std::fprintf(stderr, "%s%s\n", error.lineNumber > 0 ? "" : "pmode-pc: ", error.Format(path).c_str());
    return good;
}

int runBatch(HostLinkClient& client, const std::string& path, const std::vector<BatchEntry>& requests, int timeoutMs)
{
    int passed = 0;
    std::vector<std::string> failures;
    auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < requests.size(); ++i) {
        if (runRequest(client, requests[i].request, static_cast<int>(i + 1), timeoutMs))
            ++passed;
        else
            failures.push_back(path + ":" + std::to_string(requests[i].lineNumber) + ": " + requests[i].request.text);
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("batch %s: %zu requests, %d passed, %zu failed, %.2f s\n", path.c_str(), requests.size(), passed,
                failures.size(), seconds);
    for (const std::string& failure : failures) std::printf("  failed: %s\n", failure.c_str());
    std::printf("%s\n", failures.empty() ? "BATCH PASSED" : "BATCH FAILED");
    return failures.empty() ? 0 : 1;
}

/// The request of the "line" or "op" sub-command, as a batch line would hold it.
std::string requestText(const std::string& kind, const std::vector<std::string>& words, const std::string& payload)
{
    std::string text = kind;
    for (const std::string& word : words) text += " " + word;
    return payload.empty() ? text : text + " --payload " + payload;
}

} // namespace

static int runTool(int argc, char** argv)
{
    CLI::App app("The factory PC: sends script lines and protocol operations to a running pmode-sim over the host link "
                 "and prints the answers.",
                 "pmode-pc");
    toolcli::Describe(app, "0 every request got the answer expected; 1 otherwise; 2 a wrong argument, a bad batch file "
                           "or no device root; 3 no pmode-sim serves the host link");
    std::string given, batchPath, payload;
    std::vector<std::string> words;
    double timeout = 10.0, wait = 10.0;
    app.add_option("--root", given, std::string("the device root (default: $PMODE_ROOT); ") + devroot::kHowToGive)
        ->type_name("DIR");
    toolcli::AddHostLinkWaits(app, timeout, wait);
    app.require_subcommand(1);
    CLI::App* line = app.add_subcommand("line", "send one script line; words that start with \"-\" follow \"--\"");
    line->add_option("WORDS", words, "the line's words")->required();
    CLI::App* op = app.add_subcommand("op", "send one protocol operation");
    std::string code;
    op->add_option("CODE", code,
                   "group << 16 | sub-code, one the camera serves: 0x10011000 shutter_speed2, "
                   "0x10021000 cis_data2, 0x10021001 cis_data_info, 0x10030000 rtc2, 0x10040000 paf2")
        ->required()
        ->check(wordCheck(true));
    std::string args[4];
    CLI::Option* argOptions[4];
    for (int i = 0; i < 4; ++i)
        argOptions[i] = op->add_option("P" + std::to_string(i + 1), args[i],
                                       i == 0 ? "the arguments, each 0 to 0xFFFFFFFF "
                                                "or \"size\": the payload's byte count"
                                              : "as P1")
                            ->check(wordCheck(false));
    op->add_option("--payload", payload, "the file handed over with the operation")->type_name("FILE");
    CLI::App* batch =
        app.add_subcommand("batch", "send the requests of a batch file, one a line: \"line WORDS...\" or "
                                    "\"op CODE [P1..P4] [payload=FILE]\", optionally after \"expect-fail\"; "
                                    "\"#\" starts a comment");
    batch->add_option("FILE", batchPath, "the batch file")->required();
    if (const int status = toolcli::Parse(app, argc, argv); status >= 0) return status;

    const int timeoutMs = static_cast<int>(timeout * 1000), waitMs = static_cast<int>(wait * 1000);
    std::string root, error;
    if (!devroot::Use(given, root, error)) {
        std::fprintf(stderr, "pmode-pc: %s\n", error.c_str());
        return 2;
    }

    HostRequest single;
    std::vector<BatchEntry> requests;
    if (batch->parsed()) {
        if (!loadBatch(batchPath, requests)) return 2;
    } else if (op->parsed()) {
        words.push_back(code);
        for (int i = 0; i < 4; ++i)
            if (argOptions[i]->count() > 0) words.push_back(args[i]);
    }
    if (!batch->parsed()
        && !HostRequest::Parse(requestText(line->parsed() ? "line" : "op", words, payload), "", single, error)) {
        std::fprintf(stderr, "pmode-pc: %s\n", error.c_str());
        return 2;
    }

    HostLinkClient client;
    if (!client.Open()) {
        std::fprintf(stderr, "pmode-pc: cannot subscribe to the answer keys\n");
        return 3;
    }
    if (!client.WaitForCamera(waitMs)) {
        std::fprintf(stderr,
                     "pmode-pc: no camera serves the host link below %s (is pmode-sim running in host-link mode?)\n",
                     root.c_str());
        return 3;
    }
    if (batch->parsed()) return runBatch(client, batchPath, requests, timeoutMs);
    return runRequest(client, single, 1, timeoutMs) ? 0 : 1;
}

int main(int argc, char** argv)
{
    return toolcli::Guarded("pmode-pc", runTool, argc, argv);
}
