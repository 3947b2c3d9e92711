// The simulated key-value store: subscriptions and the notification thread.
//
// Every set appends one record to the store's journal while it holds the
// store's lock, so the journal lists the sets of all processes in the order in
// which they happened. Each process that subscribes runs one notification
// thread. It wakes on inotify events of the store directory (and, as a safety
// net, every 50 ms), reads the journal from where it stopped, and calls the
// callbacks of the matching subscriptions one at a time, in journal order. A set
// made by another process therefore cannot be lost or overtaken: it is a record
// in the journal, and the reader only ever moves forward over whole records.
//
// A subscription sees the sets journalled after it was made: it remembers the
// journal's length at that moment, taken under the same mutex under which the
// thread reads records, so no record can slip between the two.
//
// Callbacks run without the store's mutex held: a callback may subscribe,
// unsubscribe or set keys. Unsubscribing does not wait for a callback that is
// running on the notification thread (the callback may itself be waiting for the
// unsubscribing thread); a subscription removed while its record is in flight
// is not called for it.
#include "vconf.h"
#include "vconf_sim.h"
#include "vconf_store.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vconf_sim {
namespace {

struct Subscription {
    uint64_t id;
    std::string key;
    vconf_callback_fn callback;
    void* userData;
    std::string journal;
    uint64_t start; ///< journal offset from which the subscription sees sets
};

/// One callback to make, taken from a journal record.
struct Delivery {
    uint64_t subscription;
    vconf_callback_fn callback;
    void* userData;
    std::shared_ptr<_keynode_t> node;
};

uint64_t fileSize(const std::string& path)
{
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

class Notifier {
public:
    Notifier()
    {
        m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        m_inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    }

    ~Notifier()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        Poke();
        if (m_thread.joinable()) {
            if (m_thread.get_id() == std::this_thread::get_id()) {
                m_thread.detach();
            } else {
                m_thread.join();
            }
        }
        if (m_wake >= 0) close(m_wake);
        if (m_inotify >= 0) close(m_inotify);
    }

    int Subscribe(const char* key, vconf_callback_fn callback, void* userData)
    {
        if (TakeFault(GetFaults().failNotify)) return -1;
        if (callback == nullptr || KeyFile(key).empty()) return -1;
        std::error_code error;
        std::filesystem::create_directories(StoreDir(), error);
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::string journal = JournalFile();
        m_subscriptions.push_back({m_nextId++, key, callback, userData, journal, fileSize(journal)});
        if (!m_thread.joinable()) m_thread = std::thread(&Notifier::run, this);
        return 0;
    }

    int Unsubscribe(const char* key, vconf_callback_fn callback)
    {
        if (TakeFault(GetFaults().failIgnore)) return -1;
        if (key == nullptr || callback == nullptr) return -1;
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto it = m_subscriptions.begin(); it != m_subscriptions.end(); ++it) {
            if (it->key == key && it->callback == callback) {
                m_subscriptions.erase(it);
                return 0;
            }
        }
        return -1;
    }

    void Poke()
    {
        if (m_wake < 0) return;
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t n = write(m_wake, &one, sizeof one);
    }

    int WaitIdle(int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_thread.joinable()) return 0;
        const std::string journal = JournalFile();
        const uint64_t target = fileSize(journal);
        lock.unlock();
        Poke();
        lock.lock();
        const bool done = m_idle.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                          [&] { return m_journal == journal && m_offset >= target && !m_delivering; });
        return done ? 0 : -1;
    }

private:
    void run()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_stop) {
            followRoot();
            std::vector<Delivery> deliveries = readNewRecords();
            m_delivering = !deliveries.empty();
            lock.unlock();
            deliver(deliveries);
            lock.lock();
            m_delivering = false;
            m_idle.notify_all();
            if (m_stop) break;
            lock.unlock();
            waitForChange();
            lock.lock();
        }
    }

    /// The root may change between uses (tests give each case its own): the
    /// thread then reads the journal of the new root from its current end.
    void followRoot()
    {
        const std::string journal = JournalFile();
        if (journal == m_journal && m_watch >= 0) return;
        if (journal != m_journal) {
            m_journal = journal;
            m_offset = fileSize(journal);
            for (const Subscription& s : m_subscriptions) {
                if (s.journal == journal && s.start < m_offset) m_offset = s.start;
            }
        }
        if (m_inotify >= 0) {
            if (m_watch >= 0) inotify_rm_watch(m_inotify, m_watch);
            m_watch = inotify_add_watch(m_inotify, StoreDir().c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO);
        }
    }

    std::vector<Delivery> readNewRecords()
    {
        std::vector<Delivery> deliveries;
        int fd = open(m_journal.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return deliveries;
        std::string data;
        char buffer[65536];
        ssize_t n;
        uint64_t at = m_offset;
        while ((n = pread(fd, buffer, sizeof buffer, static_cast<off_t>(at))) > 0) {
            data.append(buffer, static_cast<size_t>(n));
            at += static_cast<uint64_t>(n);
        }
        close(fd);

        size_t pos = 0;
        while (data.size() - pos >= sizeof(JournalHeader)) {
            JournalHeader header;
            std::memcpy(&header, data.data() + pos, sizeof header);
            if (header.magic != kJournalMagic || header.keyLength > kMaxKeyLength
                || header.valueLength > kMaxValueLength) {
                std::fprintf(stderr, "vconf: journal %s is damaged at offset %llu; notifications resume at its end\n",
                             m_journal.c_str(), static_cast<unsigned long long>(m_offset) + pos);
                pos = data.size();
                break;
            }
            const size_t length = sizeof header + header.keyLength + header.valueLength;
            if (data.size() - pos < length) break; // a record still being written
            const uint64_t recordOffset = m_offset + pos;
            std::string key = data.substr(pos + sizeof header, header.keyLength);
            std::string value = data.substr(pos + sizeof header + header.keyLength, header.valueLength);
            pos += length;
            collect(deliveries, recordOffset, key, header.type, value);
        }
        m_offset += pos;
        return deliveries;
    }

    void collect(std::vector<Delivery>& deliveries, uint64_t recordOffset, const std::string& key, int type,
                 const std::string& value)
    {
        std::shared_ptr<_keynode_t> node;
        for (const Subscription& s : m_subscriptions) {
            if (s.key != key || s.journal != m_journal || recordOffset < s.start) continue;
            if (!node) {
                node = std::make_shared<_keynode_t>();
                node->name = key;
                node->type = type;
                if (type == VCONF_TYPE_INT) {
                    node->ivalue = static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
                } else {
                    node->svalue = value;
                }
            }
            deliveries.push_back({s.id, s.callback, s.userData, node});
        }
    }

    bool stillSubscribed(uint64_t id)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const Subscription& s : m_subscriptions) {
            if (s.id == id) return true;
        }
        return false;
    }

    void deliver(const std::vector<Delivery>& deliveries)
    {
        for (const Delivery& d : deliveries) {
            if (!stillSubscribed(d.subscription)) continue;
            if (TakeFault(GetFaults().dropNotification)) continue;
            // Each callback gets its own node: a callback may not change what the
            // next subscriber of the same set sees.
            _keynode_t node = *d.node;
            d.callback(&node, d.userData);
        }
    }

    void waitForChange()
    {
        pollfd fds[2] = {{m_wake, POLLIN, 0}, {m_inotify, POLLIN, 0}};
        poll(fds, 2, 50);
        char drain[4096];
        if (m_wake >= 0) {
            while (read(m_wake, drain, sizeof(uint64_t)) > 0) {}
        }
        if (m_inotify >= 0) {
            while (read(m_inotify, drain, sizeof drain) > 0) {}
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_idle;
    std::vector<Subscription> m_subscriptions;
    uint64_t m_nextId = 1;
    std::thread m_thread;
    bool m_stop = false;
    bool m_delivering = false;
    std::string m_journal;
    uint64_t m_offset = 0;
    int m_wake = -1;
    int m_inotify = -1;
    int m_watch = -1;
};

Notifier& GetNotifier()
{
    static Notifier notifier;
    return notifier;
}

} // namespace

void PokeNotifier()
{
    GetNotifier().Poke();
}

} // namespace vconf_sim

extern "C" int vconf_notify_key_changed(const char* key, vconf_callback_fn cb, void* user_data)
{
    return vconf_sim::GetNotifier().Subscribe(key, cb, user_data);
}

extern "C" int vconf_ignore_key_changed(const char* key, vconf_callback_fn cb)
{
    return vconf_sim::GetNotifier().Unsubscribe(key, cb);
}

extern "C" int vconf_sim_wait_idle(int timeout_ms)
{
    return vconf_sim::GetNotifier().WaitIdle(timeout_ms);
}
