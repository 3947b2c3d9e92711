#pragma once
// Collects the traces composed while an object of it lives (unlocked: for the test's own thread).

#include "PMReport.h"

#include <string>
#include <vector>

class TraceCapture {
public:
    TraceCapture()
    {
        lines.clear();
        pm::SetTraceSink([](const char* text) { lines.emplace_back(text); });
    }
    ~TraceCapture() { pm::SetTraceSink(nullptr); }

    inline static std::vector<std::string> lines;
};
