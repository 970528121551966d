// A mutex that clang's -Wthread-safety understands: members say which lock guards them, and a clang build
// fails where one is touched without it. Elsewhere the annotations are nothing.
#pragma once

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
