#include "fx_os.h"

#include <chrono>
#include <mutex>
#include <new>
#include <thread>

struct _fx_mutex {
    std::mutex mutex;
};

extern "C" fx_mutex_t _fx_mutex_create(const char*, const char*, int)
{
    return new (std::nothrow) _fx_mutex;
}

extern "C" int _fx_mutex_lock(fx_mutex_t mutex, const char*, const char*, int)
{
    if (mutex == nullptr) return -1;
    mutex->mutex.lock();
    return 0;
}

extern "C" int _fx_mutex_unlock(fx_mutex_t mutex, const char*, const char*, int)
{
    if (mutex == nullptr) return -1;
    mutex->mutex.unlock();
    return 0;
}

extern "C" int _fx_mutex_delete(fx_mutex_t mutex, const char*, const char*, int)
{
    if (mutex == nullptr) return -1;
    delete mutex;
    return 0;
}

extern "C" void _fx_thread_sleep(const char*, const char*, int, unsigned int milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}
