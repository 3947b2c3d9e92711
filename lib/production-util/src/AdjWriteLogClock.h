#pragma once
// Internal seam of the adjust write log: the clock it reads. Tests set a fixed
// time to check the time stamp; nullptr restores time().

#include <ctime>

using AdjWriteLogClock = time_t (*)(time_t*);

/// Replaces the clock of adj_write_log. Set before the log is used concurrently.
void adj_write_log_set_clock(AdjWriteLogClock clock);
