#pragma once
// Mutexes and sleep of the OS abstraction library. Every call names its caller
// (source file, function, line) so that the platform can report misuse.

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _fx_mutex* fx_mutex_t;

/// A new unlocked, non-recursive mutex, or NULL when none can be made.
fx_mutex_t _fx_mutex_create(const char* file, const char* func, int line);
/// Blocks until the mutex is held by the caller. 0, or -1 for a NULL mutex.
int _fx_mutex_lock(fx_mutex_t mutex, const char* file, const char* func, int line);
/// Releases a mutex the caller holds. 0, or -1 for a NULL mutex.
int _fx_mutex_unlock(fx_mutex_t mutex, const char* file, const char* func, int line);
/// Frees an unlocked mutex. 0, or -1 for a NULL mutex.
int _fx_mutex_delete(fx_mutex_t mutex, const char* file, const char* func, int line);
/// Sleeps the calling thread for the given number of milliseconds.
void _fx_thread_sleep(const char* file, const char* func, int line, unsigned int milliseconds);

#ifdef __cplusplus
}
#endif
