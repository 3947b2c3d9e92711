#include "FThread.h"

FThread::FThread() = default;

FThread::~FThread()
{
    if (m_created) FThread::Destroy();
}

bool FThread::Start()
{
    if (m_created) return false;
    if (pthread_create(&m_thread, nullptr, &FThread::entry, this) != 0) return false;
    m_created = true;
    return true;
}

void FThread::Destroy()
{
    if (!m_created) return;
    pthread_join(m_thread, nullptr);
    m_created = false;
}

void* FThread::entry(void* self)
{
    static_cast<FThread*>(self)->t_Main();
    return nullptr;
}
