#pragma once
// System log.

#ifdef __cplusplus
extern "C" {
#endif

/// Priorities, as the platform's log numbers them.
enum { DLOG_DEBUG = 3, DLOG_INFO = 4, DLOG_WARN = 5, DLOG_ERROR = 6 };

/// Appends one line (time, priority, tag, text) to the log. Any thread.
/// The number of bytes of text written, or negative on failure.
int __dlog_print(int log_id, int prio, const char* tag, const char* fmt, ...) __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif
