#pragma once
// A batch file of the factory PC: one request a line (see HostRequest), "#" starts
// a comment line. The whole file is read and checked before anything is sent.
// Any thread.

#include "HostRequest.h"

#include <string>
#include <vector>

struct BatchEntry {
    int lineNumber = 0;
    HostRequest request;
};

struct BatchError {
    int lineNumber = 0;  ///< 0: the file as a whole
    std::string message; ///< "unknown request 'send' (line or op)", "cannot read the batch file F", ...

    /// "FILE:LINE: error: MESSAGE" for a line, the message alone for the file.
    std::string Format(const std::string& path) const;
};

/// Reads and checks the batch file at path. False when it cannot be read, is a
/// directory, holds no request or a bad line; errors gets one entry per fault.
bool LoadBatch(const std::string& path, std::vector<BatchEntry>& requests, std::vector<BatchError>& errors);
