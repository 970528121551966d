// See ThreadHelp.h.
#include "ThreadHelp.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <pthread.h>

namespace {

constexpr long NANOS_PER_SEC = 1'000'000'000;

class CDetached
{
public:
    CDetached() noexcept : m_nError(::pthread_attr_init(&m_attr)), m_bInit(m_nError == 0)
    {
        if (m_bInit)
            m_nError = ::pthread_attr_setdetachstate(&m_attr, PTHREAD_CREATE_DETACHED);
    }
    ~CDetached()
    {
        if (m_bInit)
            ::pthread_attr_destroy(&m_attr);
    }
    CDetached(const CDetached&) = delete;
    CDetached& operator=(const CDetached&) = delete;

    int Error() const noexcept { return m_nError; }
    const pthread_attr_t* Get() const noexcept { return &m_attr; }

private:
    pthread_attr_t m_attr{};
    int m_nError;
    bool m_bInit;
};

/// Blocks the signals of this thread for one scope; a thread started in it inherits that for life. Those that
/// a fault of the thread itself raises stay, so that whoever reports crashes sees them.
class CSignalsBlocked
{
public:
    CSignalsBlocked() noexcept
    {
        sigset_t all;
        ::sigfillset(&all);
        for (const int nFault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
            ::sigdelset(&all, nFault);
        ::pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~CSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    CSignalsBlocked(const CSignalsBlocked&) = delete;
    CSignalsBlocked& operator=(const CSignalsBlocked&) = delete;

private:
    sigset_t m_before{};
};

} // namespace

timespec AddMillisecs(timespec now, long ms) noexcept
{
    ms = std::max(ms, 0L);
    const long nNanos = now.tv_nsec + ms % 1000 * 1'000'000;
    now.tv_sec += ms / 1000 + nNanos / NANOS_PER_SEC;
    now.tv_nsec = nNanos % NANOS_PER_SEC;
    return now;
}

void XTEvent::Create()
{
    if (m_bCreate)
        return;
    m_bCreate = true;
    ::sem_init(&m_sem, 0, 0);
}

void XTEvent::Signal()
{
    if (m_bCreate)
        ::sem_post(&m_sem);
}

bool XTEvent::Wait(DWORD ms)
{
    return sem_timedwait_millsecs(&m_sem, static_cast<long>(ms)) == 0;
}

void XTEvent::Close()
{
    if (!m_bCreate)
        return;
    m_bCreate = false;
    ::sem_destroy(&m_sem);
}

int XTEvent::sem_timedwait_millsecs(sem_t* sem, long ms)
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const timespec deadline = AddMillisecs(now, ms);
    int nResult = 0;
    do
        nResult = ::sem_timedwait(sem, &deadline);
    while (nResult == -1 && errno == EINTR);
    return nResult;
}

int rkthread_create(void* (*start_rtn)(void*), void* arg)
{
    const CDetached attr;
    if (attr.Error() != 0)
        return attr.Error();
    const CSignalsBlocked blocked;
    pthread_t thread{};
    return ::pthread_create(&thread, attr.Get(), start_rtn, arg);
}
