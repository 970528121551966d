// Events, the start of detached threads, and the lock with its condition.
#include "ThreadHelp.h"
#include "ThreadLock.h"
#include "disturbed_call.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <ctime>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr long NANOS_PER_MILLI = 1'000'000;
constexpr DWORD LONG_WAIT = 16'000;

int64_t RealTimeMillis()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1000 + now.tv_nsec / NANOS_PER_MILLI;
}

// ---- events

TEST(XTEvent, SignalledWhileWaitedForEndsTheWaitThenAndWithTrue)
{
    XTEvent event;
    event.Create();
    const auto begin = steady_clock::now();
    std::thread other([&event] {
        std::this_thread::sleep_for(milliseconds(300));
        event.Signal();
    });
    EXPECT_TRUE(event.Wait(LONG_WAIT));
    const auto waited = steady_clock::now() - begin;
    EXPECT_GE(waited, milliseconds(300));
    EXPECT_LT(waited, milliseconds(LONG_WAIT)) << "it ended by the signal, not by the deadline";
    other.join();
}

TEST(XTEvent, NeverSignalledEndsTheWaitAtItsDeadlineWithFalse)
{
    XTEvent event;
    event.Create();
    const int64_t nBegin = RealTimeMillis();
    EXPECT_FALSE(event.Wait(300));
    EXPECT_GE(RealTimeMillis(), nBegin + 300);
    EXPECT_FALSE(event.Wait(0));
}

TEST(XTEvent, DeadlineIsTheMomentThatManyMillisecondsAhead)
{
    struct SCase
    {
        timespec now;
        long ms;
        timespec want;
    };
    const SCase cases[] = {
        {{100, 0}, LONG_WAIT, {116, 0}},
        {{100, 999'999'999}, LONG_WAIT, {116, 999'999'999}},
        {{100, 5}, 0, {100, 5}},
        {{100, 5}, 1, {100, 1'000'005}},
        {{100, 999'000'000}, 1, {101, 0}},
        {{100, 999'999'999}, 1, {101, 999'999}},
        {{100, 999'999'999}, 999, {101, 998'999'999}},
        {{100, 500'000'000}, 1'500, {102, 0}},
        {{100, 0}, 0xFFFFFFFFL, {100 + 4'294'967, 295'000'000}},
        {{100, 5}, -1, {100, 5}},
        {{0, 999'999'999}, LONG_MAX, {LONG_MAX / 1000 + 1, (LONG_MAX % 1000) * NANOS_PER_MILLI - 1}},
    };
    for (const SCase& c : cases) {
        SCOPED_TRACE(c.ms);
        const timespec deadline = AddMillisecs(c.now, c.ms);
        EXPECT_EQ(deadline.tv_sec, c.want.tv_sec);
        EXPECT_EQ(deadline.tv_nsec, c.want.tv_nsec);
    }
}

TEST(XTEvent, SignalledBeforehandLetsOneWaitPassForEachSignal)
{
    XTEvent event;
    event.Create();
    event.Signal();
    event.Signal();
    EXPECT_TRUE(event.Wait(0));
    EXPECT_TRUE(event.Wait(LONG_WAIT));
    EXPECT_FALSE(event.Wait(0));
}

TEST(XTEvent, NotCreatedIgnoresSignalsAndClosing)
{
    XTEvent event;
    event.Signal();
    event.Close();
    event.Create();
    EXPECT_FALSE(event.Wait(0));
}

TEST(XTEvent, CreatedTwiceKeepsItsSignals)
{
    XTEvent event;
    event.Create();
    event.Signal();
    event.Create();
    EXPECT_TRUE(event.Wait(0));
}

TEST(XTEvent, ClosedIgnoresSignalsAndIsNewWhenCreatedAgain)
{
    XTEvent event;
    event.Create();
    event.Signal();
    event.Close();
    event.Close();
    event.Signal();
    event.Create();
    EXPECT_FALSE(event.Wait(0));
    event.Signal();
    EXPECT_TRUE(event.Wait(0));
}

TEST(XTEvent, TimedWaitGivesTheResultOfTheSystemsWait)
{
    sem_t sem;
    ASSERT_EQ(::sem_init(&sem, 0, 1), 0);
    EXPECT_EQ(XTEvent::sem_timedwait_millsecs(&sem, 0), 0);
    errno = 0;
    EXPECT_EQ(XTEvent::sem_timedwait_millsecs(&sem, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    ::sem_destroy(&sem);
}

TEST(XTEvent, WaitInterruptedBySignalsIsResumed)
{
    XTEvent event;
    event.Create();
    std::atomic<bool> bSignalled{false};
    CDisturbedCall call([&event, &bSignalled] { bSignalled = event.Wait(LONG_WAIT); });
    EXPECT_TRUE(call.Disturb(10));
    event.Signal();
    call.Join();
    EXPECT_TRUE(bSignalled);
}

TEST(XTEvent, WaitInterruptedBySignalsKeepsItsDeadline)
{
    XTEvent event;
    event.Create();
    std::atomic<bool> bSignalled{true};
    const int64_t nBegin = RealTimeMillis();
    CDisturbedCall call([&event, &bSignalled] { bSignalled = event.Wait(300); });
    // Signals come more often than every 300 ms and for much longer than that: a deadline that each of them
    // moved would not be reached.
    EXPECT_FALSE(call.Disturb(2000));
    EXPECT_TRUE(call.HasReturned());
    call.Join();
    EXPECT_FALSE(bSignalled);
    EXPECT_GE(RealTimeMillis(), nBegin + 300);
}

// ---- threads

/// What a started thread saw of itself.
struct SSeen
{
    XTEvent done;
    XTEvent leave;
    pthread_t id{};
    int nDetachState = -1;
    sigset_t mask{};

    SSeen()
    {
        done.Create();
        leave.Create();
    }
};

void* Look(void* pArg)
{
    auto* pSeen = static_cast<SSeen*>(pArg);
    pSeen->id = ::pthread_self();
    pthread_attr_t attr;
    if (::pthread_getattr_np(pSeen->id, &attr) == 0) {
        ::pthread_attr_getdetachstate(&attr, &pSeen->nDetachState);
        ::pthread_attr_destroy(&attr);
    }
    ::pthread_sigmask(SIG_SETMASK, nullptr, &pSeen->mask);
    pSeen->done.Signal();
    return nullptr;
}

std::vector<bool> BlockedSignals()
{
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::vector<bool> blocked;
    for (int n = 1; n < NSIG; ++n)
        blocked.push_back(::sigismember(&mask, n) == 1);
    return blocked;
}

TEST(RkThread, RunsDetachedWithItsArgument)
{
    SSeen seen;
    ASSERT_EQ(rkthread_create(Look, &seen), 0);
    ASSERT_TRUE(seen.done.Wait(LONG_WAIT));
    EXPECT_EQ(seen.nDetachState, PTHREAD_CREATE_DETACHED);
    EXPECT_FALSE(::pthread_equal(seen.id, ::pthread_self()));
}

TEST(RkThread, TakesNoSignalsButThoseOfItsOwnFaults)
{
    const std::vector<bool> before = BlockedSignals();
    SSeen seen;
    ASSERT_EQ(rkthread_create(Look, &seen), 0);
    EXPECT_EQ(BlockedSignals(), before) << "the starter's own mask is as before";
    ASSERT_TRUE(seen.done.Wait(LONG_WAIT));
    for (const int n : {SIGHUP,    SIGINT,  SIGQUIT,  SIGUSR1, SIGUSR2, SIGPIPE,  SIGALRM, SIGTERM,
                        SIGCHLD,   SIGCONT, SIGTSTP,  SIGTTIN, SIGTTOU, SIGURG,   SIGXCPU, SIGXFSZ,
                        SIGVTALRM, SIGPROF, SIGWINCH, SIGIO,   SIGPWR,  SIGRTMIN, SIGRTMAX})
        EXPECT_EQ(::sigismember(&seen.mask, n), 1) << n;
    for (const int n : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
        EXPECT_EQ(::sigismember(&seen.mask, n), 0) << n;
}

std::atomic<int> g_nHandled{0};
std::atomic<bool> g_bElsewhere{false};
pthread_t g_started;

TEST(RkThread, LeavesSignalsOfTheProcessToOtherThreads)
{
    SSeen seen;
    const auto stay = [](void* pArg) -> void* {
        auto* pSeen = static_cast<SSeen*>(pArg);
        g_started = ::pthread_self();
        pSeen->done.Signal();
        pSeen->leave.Wait(LONG_WAIT);
        pSeen->done.Signal();
        return nullptr;
    };
    ASSERT_EQ(rkthread_create(stay, &seen), 0);
    ASSERT_TRUE(seen.done.Wait(LONG_WAIT));
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {
        if (::pthread_equal(::pthread_self(), g_started))
            g_bElsewhere = true;
        ++g_nHandled;
    };
    ::sigaction(SIGUSR2, &action, &before);
    // With this thread blocking the signal too, nobody takes it: it stays pending until it is let in here.
    sigset_t one;
    ::sigemptyset(&one);
    ::sigaddset(&one, SIGUSR2);
    ::pthread_sigmask(SIG_BLOCK, &one, nullptr);
    ::kill(::getpid(), SIGUSR2);
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(g_nHandled, 0);
    ::pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
    for (int i = 0; i < 5000 && g_nHandled == 0; ++i)
        std::this_thread::sleep_for(milliseconds(1));
    EXPECT_EQ(g_nHandled, 1);
    EXPECT_FALSE(g_bElsewhere);
    ::sigaction(SIGUSR2, &before, nullptr);
    seen.leave.Signal();
    EXPECT_TRUE(seen.done.Wait(LONG_WAIT));
}

TEST(RkThread, ThatCannotStartGivesTheSystemsErrorAndTheMaskIsAsBefore)
{
    pthread_attr_t normal;
    ASSERT_EQ(::pthread_getattr_default_np(&normal), 0);
    pthread_attr_t huge;
    ASSERT_EQ(::pthread_attr_init(&huge), 0);
    ASSERT_EQ(::pthread_attr_setstacksize(&huge, size_t{1} << 47), 0); // more than a process can map
    ASSERT_EQ(::pthread_setattr_default_np(&huge), 0);
    const std::vector<bool> before = BlockedSignals();
    SSeen seen;
    EXPECT_EQ(rkthread_create(Look, &seen), EAGAIN);
    EXPECT_EQ(BlockedSignals(), before);
    EXPECT_EQ(::pthread_setattr_default_np(&normal), 0);
    ::pthread_attr_destroy(&huge);
    ::pthread_attr_destroy(&normal);
    EXPECT_FALSE(seen.done.Wait(50)) << "nothing was started";
}

// ---- the lock and its condition

/// A number that several threads change.
struct SShared
{
    CThreadLock lock;
    CThreadCond changed;
    int nValue RK_GUARDED_BY(lock) = 0;
};

TEST(ThreadLock, LetsOneThreadAtATimeChangeWhatItGuards)
{
    SShared shared;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&shared] {
            for (int n = 0; n < 5000; ++n) {
                const CThreadGuard guard(shared.lock);
                ++shared.nValue;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const CThreadGuard guard(shared.lock);
    EXPECT_EQ(shared.nValue, 20'000);
}

/// Whether another thread gets the lock at once.
bool IsFree(SShared& shared)
{
    bool bFree = false;
    std::thread([&shared, &bFree] {
        if (shared.lock.TryLock()) {
            bFree = true;
            shared.lock.Unlock();
        }
    }).join();
    return bFree;
}

TEST(ThreadLock, IsTriedInVainWhileHeldAndFreeBehindItsScope)
{
    SShared shared;
    EXPECT_TRUE(IsFree(shared));
    {
        const CThreadGuard guard(shared.lock);
        EXPECT_FALSE(IsFree(shared));
    }
    EXPECT_TRUE(IsFree(shared));
    shared.lock.Lock();
    EXPECT_FALSE(IsFree(shared));
    shared.lock.Unlock();
    EXPECT_TRUE(IsFree(shared));
}

TEST(ThreadCond, WakesEveryWaitingThreadWithTheLockHeld)
{
    SShared shared;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&shared, i] {
            const CThreadGuard guard(shared.lock);
            while (shared.nValue == 0)
                i == 0 ? static_cast<void>(shared.changed.WaitFor(shared.lock, LONG_WAIT))
                       : shared.changed.Wait(shared.lock);
            ++shared.nValue;
        });
    }
    std::this_thread::sleep_for(milliseconds(50));
    {
        const CThreadGuard guard(shared.lock);
        EXPECT_EQ(shared.nValue, 0);
        shared.nValue = 1;
    }
    shared.changed.NotifyAll();
    for (std::thread& thread : threads)
        thread.join();
    const CThreadGuard guard(shared.lock);
    EXPECT_EQ(shared.nValue, 4);
}

TEST(ThreadCond, NotNotifiedEndsTheWaitAtItsTimeWithTheLockHeld)
{
    SShared shared;
    const auto begin = steady_clock::now();
    {
        const CThreadGuard guard(shared.lock);
        while (shared.changed.WaitFor(shared.lock, 100)) {
            // woken without a reason
        }
        EXPECT_FALSE(IsFree(shared));
    }
    EXPECT_GE(steady_clock::now() - begin, milliseconds(100));
    EXPECT_TRUE(IsFree(shared));
}

} // namespace
