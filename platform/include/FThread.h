#pragma once
// Thread base class of the OS abstraction library.

#include <pthread.h>

/// A thread whose body is the virtual t_Main, run once on a thread of its own.
/// The constructor does not create the thread; Start() does. A derived class
/// whose t_Main touches its own fields must call Destroy() in its destructor,
/// before its part of the object is gone.
class FThread {
public:
    FThread();
    /// Calls Destroy() when the thread was created.
    virtual ~FThread();

    /// Ends the thread: waits for t_Main to return (joins). Does nothing when the
    /// thread was never created or has been destroyed already. Not from the thread itself.
    virtual void Destroy();

    /// Creates the thread and runs t_Main on it once. False when it is already
    /// created or the thread cannot be created. Any thread except this one's.
    bool Start();

    /// True between a successful Start() and Destroy().
    bool IsCreated() const { return m_created; }

protected:
    /// The thread body.
    virtual void t_Main() = 0;

private:
    static void* entry(void* self);

    pthread_t m_thread{};
    bool m_created = false;
};
