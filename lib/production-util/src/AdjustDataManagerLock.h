#pragma once
// Holds the adjust data manager's mutex for the life of a scope, naming the
// locking operation to the OS layer.

#include "fx_os.h"

class AdjustDataManagerLock {
public:
    AdjustDataManagerLock(fx_mutex_t mutex, const char* file, const char* func, int line)
        : m_mutex(mutex), m_file(file), m_func(func), m_line(line)
    {
        _fx_mutex_lock(m_mutex, m_file, m_func, m_line);
    }
    ~AdjustDataManagerLock() { _fx_mutex_unlock(m_mutex, m_file, m_func, m_line); }
    AdjustDataManagerLock(const AdjustDataManagerLock&) = delete;
    AdjustDataManagerLock& operator=(const AdjustDataManagerLock&) = delete;

private:
    fx_mutex_t m_mutex;
    const char* m_file;
    const char* m_func;
    int m_line;
};

#define ADJUST_DATA_MANAGER_LOCK(mutex)                                                                                \
    AdjustDataManagerLock adjustDataManagerLock_((mutex), __FILE__, __func__, __LINE__)
