// What a thread does between the slices of a wait for the network.
//
// A script's thread that waits in here has an interpreter whose signal handlers want to run, and a Ctrl-C has
// to end the wait. This floor knows no interpreter, so whoever calls from a script leaves two functions here
// for the time of that call. A thread without them, like the receive thread, waits in one piece.
#pragma once

struct SWaitHook
{
    /// Milliseconds: a wait asks fnGoOn at least this often, and at once when a signal interrupts it.
    static constexpr long SLICE_MS = 100;

    bool (*fnGoOn)() = nullptr;  // false: the wait has to end as failed; null: nobody asks
    void (*fnYield)() = nullptr; // lets another thread of the script run for a moment
};

/// The calling thread's.
SWaitHook& WaitHook() noexcept;

/// Sets the calling thread's functions for one scope.
class CWaitHookScope
{
public:
    explicit CWaitHookScope(const SWaitHook& hook) noexcept : m_before(WaitHook()) { WaitHook() = hook; }
    ~CWaitHookScope() { WaitHook() = m_before; }
    CWaitHookScope(const CWaitHookScope&) = delete;
    CWaitHookScope& operator=(const CWaitHookScope&) = delete;

private:
    const SWaitHook m_before;
};
