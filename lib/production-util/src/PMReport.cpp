#include "PMReport.h"

#include "dlog.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace pm {
namespace {

constexpr size_t kBufferSize = 256;
constexpr const char* kRed = "\x1b[31m";
constexpr const char* kPlain = "\x1b[m";
constexpr const char* kEnd = "\x1b[m\n";

std::atomic<TraceSink> g_traceSink{nullptr};
std::atomic<unsigned long> g_assertions{0};

/// prefix + text without one trailing newline + "\x1b[m\n", cut to fit 256 bytes.
void compose(char (&buffer)[kBufferSize], const char* prefix, const char* fmt, va_list args)
{
    char text[kBufferSize];
    std::vsnprintf(text, sizeof text, fmt, args);
    size_t length = std::strlen(text);
    if (length > 0 && text[length - 1] == '\n') --length;
    // A long text is cut so that the colour reset and the newline always fit.
    const size_t prefixLength = std::strlen(prefix);
    const size_t endLength = std::strlen(kEnd);
    const size_t room = kBufferSize - 1 - prefixLength - endLength;
    if (length > room) length = room;
    std::memcpy(buffer, prefix, prefixLength);
    std::memcpy(buffer + prefixLength, text, length);
    std::memcpy(buffer + prefixLength + length, kEnd, endLength + 1);
}

const char* baseName(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

bool traceToStderr()
{
    static const bool enabled = [] {
        const char* value = std::getenv("PMODE_TRACE");
        return value != nullptr && value[0] == '1';
    }();
    return enabled;
}

} // namespace

void ErrorLog(const char* file, const char* func, int line, const char* fmt, ...)
{
    char buffer[kBufferSize];
    va_list args;
    va_start(args, fmt);
    compose(buffer, kRed, fmt, args);
    va_end(args);
    std::puts(buffer);
    __dlog_print(3, DLOG_ERROR, "PMODE", "%s: %s(%d) > %s", baseName(file), func, line, buffer);
}

void Trace(bool red, const char* fmt, ...)
{
    TraceSink sink = g_traceSink.load();
    if (sink == nullptr && !traceToStderr()) return;
    char buffer[kBufferSize];
    va_list args;
    va_start(args, fmt);
    compose(buffer, red ? kRed : kPlain, fmt, args);
    va_end(args);
    if (sink != nullptr) sink(buffer);
    if (traceToStderr()) std::fputs(buffer, stderr);
}

void AssertFailed(const char* file, int line)
{
    ++g_assertions;
    std::printf("Assertion Failed! --- File %s Line %d\n", file, line);
    std::fflush(stdout);
}

unsigned long AssertionCount()
{
    return g_assertions.load();
}

void SetTraceSink(TraceSink sink)
{
    g_traceSink.store(sink);
}

} // namespace pm
