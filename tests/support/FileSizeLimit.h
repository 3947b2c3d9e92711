#pragma once
// A full disk for the tests: while a FileSizeLimit lives, no file of this
// process may grow past `limit` bytes, and writes beyond fail as on a full disk.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t limit)
    {
        getrlimit(RLIMIT_FSIZE, &m_saved);
        m_handler = signal(SIGXFSZ, SIG_IGN);
        rlimit reduced = m_saved;
        reduced.rlim_cur = limit;
        EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &reduced));
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_saved);
        signal(SIGXFSZ, m_handler);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_saved{};
    void (*m_handler)(int) = nullptr;
};
