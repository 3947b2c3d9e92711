#pragma once
// The results database shared by the session's thread and the server's threads:
// one call at a time, under the lock. Any thread.

#include "ResultStore.h"

#include <memory>
#include <mutex>
#include <utility>

class SharedStore {
public:
    explicit SharedStore(std::unique_ptr<station::ResultStore> store) : m_store(std::move(store)) {}

    /// Runs work(store) under the lock and answers what it answers.
    template <typename Work>
    auto With(Work&& work)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return work(*m_store);
    }

private:
    std::mutex m_mutex;
    std::unique_ptr<station::ResultStore> m_store;
};
