#pragma once
// Sending one request over the host link and judging its answer: a request passes
// when an answer came and it reports a failure exactly when the request expects one.
// Called by the thread that owns the client.

#include "HostLinkClient.h"
#include "HostRequest.h"

#include <string>

struct RequestOutcome {
    HostAnswer answer;
    double millis = 0.0;       ///< from sending to the answer (or the time-out)
    bool asExpected = false;   ///< the PC's verdict on this request
    bool fileReadable = false; ///< FILE_PATH: the file could be read below the device root
    std::string fileContent;   ///< FILE_PATH: its content

    /// "PASS", "PASS (failure expected)" or "FAIL".
    const char* Verdict(bool expectFail) const;
};

/// Sends request through client, waits up to timeoutMs and judges the answer.
RequestOutcome RunRequest(HostLinkClient& client, const HostRequest& request, int timeoutMs);
