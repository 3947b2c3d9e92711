#include "EventHub.h"

#include <chrono>

void EventHub::Reset()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.clear();
    ++m_epoch;
    m_changed.notify_all();
}

void EventHub::Publish(const std::string& json)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.push_back(json);
    m_changed.notify_all();
}

std::vector<std::string> EventHub::Wait(Cursor& cursor, int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                       [&] { return m_closed || cursor.epoch != m_epoch || cursor.next < m_events.size(); });
    if (m_closed) return {};
    if (cursor.epoch != m_epoch) cursor = {m_epoch, 0};
    std::vector<std::string> events(m_events.begin() + static_cast<std::ptrdiff_t>(cursor.next), m_events.end());
    cursor.next = m_events.size();
    return events;
}

void EventHub::Close()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closed = true;
    m_changed.notify_all();
}

bool EventHub::Closed()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_closed;
}
