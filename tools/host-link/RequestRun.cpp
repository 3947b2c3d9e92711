#include "RequestRun.h"

#include "kernel.h"

#include <chrono>

const char* RequestOutcome::Verdict(bool expectFail) const
{
    return asExpected ? (expectFail ? "PASS (failure expected)" : "PASS") : "FAIL";
}

RequestOutcome RunRequest(HostLinkClient& client, const HostRequest& request, int timeoutMs)
{
    RequestOutcome outcome;
    auto start = std::chrono::steady_clock::now();
    outcome.answer = request.isLine ? client.SendLine(request.line, timeoutMs)
                                    : client.SendOperation(request.code, request.args,
                                                           request.hasPayload ? &request.payload : nullptr, timeoutMs);
    outcome.millis = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    outcome.asExpected = outcome.answer.kind != HostAnswer::NONE && outcome.answer.Failed() == request.expectFail;
    if (outcome.answer.kind == HostAnswer::FILE_PATH)
        outcome.fileReadable = ReadWholeFile(KernelPath(outcome.answer.text.c_str()), outcome.fileContent);
    return outcome;
}
