#include "CEventFlag.h"

#include <chrono>

CEventFlag::~CEventFlag()
{
    Delete();
}

int CEventFlag::Create(unsigned long initial)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_created) return -1;
    m_bits = initial;
    m_created = true;
    return 0;
}

int CEventFlag::Set(unsigned long bits)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_created) return -1;
        m_bits |= bits;
    }
    m_changed.notify_all();
    return 0;
}

int CEventFlag::Clear(unsigned long bits)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_created) return -1;
    m_bits &= ~bits;
    return 0;
}

int CEventFlag::WaitOr(unsigned long mask, unsigned long* pattern, int timeout)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    auto ready = [&] { return !m_created || (m_bits & mask) != 0; };
    if (timeout < 0) {
        m_changed.wait(lock, ready);
    } else if (!m_changed.wait_for(lock, std::chrono::milliseconds(timeout), ready)) {
        return -1;
    }
    if (!m_created) return -2;
    if (pattern != nullptr) *pattern = m_bits;
    return 0;
}

int CEventFlag::Delete()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_created) return -1;
        m_created = false;
        m_bits = 0;
    }
    m_changed.notify_all();
    return 0;
}
