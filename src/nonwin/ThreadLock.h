// A mutex that clang's -Wthread-safety understands: members say which lock guards them, and a clang build
// fails where one is touched without it. Elsewhere the annotations are nothing.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define RK_ATTRIBUTE(x) __attribute__((x))
#else
#define RK_ATTRIBUTE(x)
#endif
#define RK_GUARDED_BY(x) RK_ATTRIBUTE(guarded_by(x))
#define RK_REQUIRES(x) RK_ATTRIBUTE(requires_capability(x))
#define RK_EXCLUDES(x) RK_ATTRIBUTE(locks_excluded(x))
#define RK_NO_THREAD_SAFETY RK_ATTRIBUTE(no_thread_safety_analysis)

class RK_ATTRIBUTE(capability("mutex")) CThreadLock
{
public:
    CThreadLock() = default;
    CThreadLock(const CThreadLock&) = delete;
    CThreadLock& operator=(const CThreadLock&) = delete;

    void Lock() RK_ATTRIBUTE(acquire_capability()) { m_mutex.lock(); }
    void Unlock() RK_ATTRIBUTE(release_capability()) { m_mutex.unlock(); }
    bool TryLock() RK_ATTRIBUTE(try_acquire_capability(true)) { return m_mutex.try_lock(); }

private:
    friend class CThreadCond;

    std::mutex m_mutex;
};

/// Holds a lock for one scope.
class RK_ATTRIBUTE(scoped_lockable) CThreadGuard
{
public:
    explicit CThreadGuard(CThreadLock& lock) RK_ATTRIBUTE(acquire_capability(lock)) : m_lock(lock)
    {
        m_lock.Lock();
    }
    ~CThreadGuard() RK_ATTRIBUTE(release_capability()) { m_lock.Unlock(); }
    CThreadGuard(const CThreadGuard&) = delete;
    CThreadGuard& operator=(const CThreadGuard&) = delete;

private:
    CThreadLock& m_lock;
};

/// Waits for what other threads change under a lock. Waits may end without a reason: ask in a loop.
class CThreadCond
{
public:
    CThreadCond() = default;
    CThreadCond(const CThreadCond&) = delete;
    CThreadCond& operator=(const CThreadCond&) = delete;

    /// The lock is let go while waiting and held again on return.
    void Wait(CThreadLock& lock) RK_REQUIRES(lock)
    {
        std::unique_lock held(lock.m_mutex, std::adopt_lock);
        m_cond.wait(held);
        held.release();
    }

    /// Wait for ms milliseconds at most, which a change of the system time does not touch. False when they
    /// have passed.
    bool WaitFor(CThreadLock& lock, long ms) RK_REQUIRES(lock)
    {
        std::unique_lock held(lock.m_mutex, std::adopt_lock);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        const bool bNotified = m_cond.wait_until(held, deadline) == std::cv_status::no_timeout;
        held.release();
        return bNotified;
    }

    void NotifyAll() noexcept { m_cond.notify_all(); }

private:
    std::condition_variable m_cond;
};
