#pragma once
// The library's three ways of reporting, written once:
//  - the error log: red text on standard output and an error line in the system log;
//  - debug traces: composed, then sent to a debug channel that is off unless
//    PMODE_TRACE=1 is set in the environment or a sink is installed;
//  - failed checks: "Assertion Failed! --- File <path> Line <n>" on standard output.
//
// A failed check does not end the process: it is reported and the operation
// that made it stops there and returns its failure value (PM_CHECK).
//
// Part of the library's ABI, so that workers and host programs report the same
// way and share one count of failed checks and one trace sink with the library.

#include "ProductionModeExport.h"

namespace pm {

/// "\x1b[31m" + text (one trailing newline removed) + "\x1b[m\n" in a 256-byte
/// buffer, to puts() and to __dlog_print(3, 6, "PMODE", ...). Any thread.
PM_EXPORT void ErrorLog(const char* file, const char* func, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

/// Composes a trace ("\x1b[m" or, when red, "\x1b[31m" + text + "\x1b[m\n") and
/// hands it to the debug channel. Any thread.
PM_EXPORT void Trace(bool red, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

/// Prints "Assertion Failed! --- File %s Line %d\n" to standard output. Any thread.
PM_EXPORT void AssertFailed(const char* file, int line);

/// Number of failed checks reported by this process so far.
PM_EXPORT unsigned long AssertionCount();

/// Receives every composed trace while installed (nullptr removes it). Meant for
/// tests and debugging; install before the threads that trace are started.
using TraceSink = void (*)(const char* text);
PM_EXPORT void SetTraceSink(TraceSink sink);

} // namespace pm

#define PM_ERROR_LOG(...) ::pm::ErrorLog(__FILE__, __func__, __LINE__, __VA_ARGS__)
#define PM_TRACE(...) ::pm::Trace(false, __VA_ARGS__)
#define PM_TRACE_RED(...) ::pm::Trace(true, __VA_ARGS__)
#define PM_ASSERT_FAILED() ::pm::AssertFailed(__FILE__, __LINE__)

/// Checks cond; when it fails, reports it and returns from the calling function
/// with the value given after the condition (nothing for a void function).
#define PM_CHECK(cond, ...)                                                                                            \
    do {                                                                                                               \
        if (!(cond)) {                                                                                                 \
            PM_ASSERT_FAILED();                                                                                        \
            return __VA_ARGS__;                                                                                        \
        }                                                                                                              \
    } while (0)
