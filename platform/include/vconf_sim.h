#pragma once
// Controls of the simulated key-value store that the camera's store does not
// have: fault switches for tests and a way to wait for pending notifications.
// Every switch acts in the calling process only and may be set from any thread.
//
// How the simulation works: each key is one file below "/var/run/vconf/" (under
// $PMODE_ROOT), replaced whole by rename(), so a reader sees the old or the new
// value. Every set also appends one record (key, type, value) to the store's
// journal "/var/run/vconf/.journal" while it holds the store's lock file, so the
// journal lists the sets of all processes in the order they happened. A process
// that subscribes runs one notification thread that wakes on inotify events of
// the store directory (with a 50 ms poll as safety net), reads the journal
// forward from where it stopped, and calls the subscribed callbacks one at a
// time in journal order. A set by another process is thus never lost or
// reordered. The journal only grows; it lives as long as the root directory.

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The next `count` calls of vconf_set_int / vconf_set_str fail with -1 and
/// change nothing (no value written, nobody notified).
void vconf_sim_fail_next_set(int count);
/// The next `count` calls of vconf_get_int / vconf_get_str fail (-1 / NULL).
void vconf_sim_fail_next_get(int count);
/// The next `count` calls of vconf_notify_key_changed fail with -1.
void vconf_sim_fail_next_notify(int count);
/// The next `count` calls of vconf_ignore_key_changed fail with -1 and keep the
/// subscription.
void vconf_sim_fail_next_ignore(int count);
/// The next `count` notifications this process would deliver are dropped (the
/// sets themselves happen; other processes still see them).
void vconf_sim_drop_next_notification(int count);
/// Waits until this process's notification thread has delivered (or dropped)
/// every set journalled before the call and no callback runs any more. 0, or -1
/// after timeout_ms milliseconds. Not from a callback.
int vconf_sim_wait_idle(int timeout_ms);
/// Host path of the file that holds a key's value (size bytes, NUL-terminated);
/// the length, or -1. Lets tests damage a value on purpose.
int vconf_sim_key_file(const char* key, char* out, size_t size);

#ifdef __cplusplus
}
#endif
