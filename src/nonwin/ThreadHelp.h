// What threads tell each other with: an event with a timed wait; signals, and the start of a detached thread.
#pragma once

#include "wintypes.h"

#include <csignal>
#include <ctime>
#include <semaphore.h>

/// The moment ms milliseconds after now. A negative ms is no time at all.
timespec AddMillisecs(timespec now, long ms) noexcept;

/// An event that one thread signals and another waits for. Signals count; each lets one wait pass.
class XTEvent
{
public:
    XTEvent() = default;
    ~XTEvent() { Close(); }
    XTEvent(const XTEvent&) = delete;
    XTEvent& operator=(const XTEvent&) = delete;

    /// Harmless when created already.
    void Create();
    /// Nothing unless created.
    void Signal();
    /// REQUIRES: created. True when signalled within ms. The deadline is on the real-time clock, so a change
    /// of the system time lengthens or shortens the wait.
    bool Wait(DWORD ms);
    void Close();
    /// 0 when signalled, -1 otherwise. A wait that a signal interrupts is resumed.
    static int sem_timedwait_millsecs(sem_t* sem, long ms);

private:
    sem_t m_sem{};
    bool m_bCreate = false;
};

/// The signals that a thread blocks.
class CSignalMask
{
public:
    /// Those of the calling thread.
    CSignalMask() noexcept { ::pthread_sigmask(SIG_SETMASK, nullptr, &m_set); }
    /// Makes them the calling thread's.
    void Apply() const noexcept { ::pthread_sigmask(SIG_SETMASK, &m_set, nullptr); }

private:
    sigset_t m_set{};
};

/// Starts a detached thread. Signals are blocked in it: they are the script's and must not interrupt calls of
/// a thread that the script knows nothing of. Those that a fault of the thread itself raises are not. The
/// caller's own mask is as before. Returns 0, or the error number of the failing call.
int rkthread_create(void* (*start_rtn)(void*), void* arg);
