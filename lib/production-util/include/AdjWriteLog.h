#pragma once
// The adjust write log: a time-stamped, append-only trace of writes to the adjust
// data in "/mnt/ubi1/log/adj_log.inf" on the internal flash (no size limit, no
// rotation). Each entry is a time stamp "Mon DD hh:mm:ss : " (local time) followed
// by the caller's text, cut to 2047 characters; callers end their texts with
// " \n". Every entry opens the file, appends, forces the data to the medium and
// closes it, so it survives a power loss right after the call.
//
// The log is enabled from process start. No lock is taken: the callers run under
// the adjust data manager's mutex. Nothing is returned: a missing "/mnt/ubi1/"
// drops the entry silently, a file that cannot be opened is reported with
// perror("write_log: ").

#include "ProductionModeExport.h"

#include <ctime>

/// Appends one entry (printf-style) when the log is enabled. Any thread, callers serialise.
PM_EXPORT void adj_write_log(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// Switches the log on. Any thread.
PM_EXPORT void adj_enable_write_log();
/// Switches the log off: entries are dropped, no file is touched. Any thread.
PM_EXPORT void adj_disable_write_log();

/// The clock of the time stamps; tests set a fixed one, nullptr restores time().
using AdjWriteLogClock = time_t (*)(time_t*);
/// Replaces the clock of adj_write_log. Set before the log is used concurrently.
PM_EXPORT void adj_write_log_set_clock(AdjWriteLogClock clock);
