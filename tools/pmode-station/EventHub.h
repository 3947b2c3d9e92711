#pragma once
// The live session's events (JSON texts) for the page's server-sent-event streams.
// The hub keeps every event of the session under way, so a page that connects late
// is shown the whole session; a new session starts a new epoch and the streams
// start over. Publish from the session's thread; Wait from any server thread.

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

class EventHub {
public:
    /// Where a stream stands: the epoch it follows and the events it has sent.
    struct Cursor {
        unsigned long epoch = 0;
        size_t next = 0;
    };

    /// Starts a new session's events: the streams start over with the next Publish.
    void Reset();
    void Publish(const std::string& json);
    /// The events after cursor (from the first of a newer epoch), waiting up to
    /// timeoutMs for one; empty on time-out or once the hub closes.
    std::vector<std::string> Wait(Cursor& cursor, int timeoutMs);
    /// Ends every stream (the station stops).
    void Close();
    bool Closed();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_events;
    unsigned long m_epoch = 1;
    bool m_closed = false;
};
