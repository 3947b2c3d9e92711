#pragma once
// Event flag of the OS abstraction library: a word of bits that threads set,
// clear and wait on.

#include <condition_variable>
#include <mutex>

/// Every operation may be called from any thread. Operations on a flag that is
/// not created (or deleted) do nothing and report failure.
class CEventFlag {
public:
    CEventFlag() = default;
    ~CEventFlag();
    CEventFlag(const CEventFlag&) = delete;
    CEventFlag& operator=(const CEventFlag&) = delete;

    /// Makes the flag usable with the given bits set. 0, or -1 when already created.
    int Create(unsigned long initial);
    /// Sets bits and wakes the waiters whose mask they meet. 0, or -1 when not created.
    int Set(unsigned long bits);
    /// Clears bits. 0, or -1 when not created.
    int Clear(unsigned long bits);
    /// Waits until any bit of mask is set; *pattern receives the flag's bits at that
    /// moment (bits are not cleared). timeout in milliseconds, -1 without limit.
    /// 0 when a bit was met, -1 on time-out, -2 when the flag is not created or is
    /// deleted while waiting (then *pattern is not written).
    int WaitOr(unsigned long mask, unsigned long* pattern, int timeout);
    /// Ends the flag: every waiter returns -2. 0, or -1 when not created.
    int Delete();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    unsigned long m_bits = 0;
    bool m_created = false;
};
