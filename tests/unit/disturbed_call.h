// A call that runs in a thread of its own while signals keep interrupting it, as a script's timers would.
// Tells a call that is resumed from one that gives up.
#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <pthread.h>
#include <thread>

class CDisturbedCall
{
public:
    explicit CDisturbedCall(const std::function<void()>& fnCall)
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++s_nHandled; };
        ::sigaction(SIGUSR1, &action, &m_before); // without SA_RESTART: blocked calls return
        m_thread = std::thread([this, fnCall] {
            fnCall();
            m_bReturned = true;
        });
    }
    ~CDisturbedCall()
    {
        Join();
        ::sigaction(SIGUSR1, &m_before, nullptr);
    }
    CDisturbedCall(const CDisturbedCall&) = delete;
    CDisturbedCall& operator=(const CDisturbedCall&) = delete;

    /// Sends up to nSignals signals, each handled before the next. False as soon as the call has returned,
    /// and when a signal was not handled within seconds.
    bool Disturb(int nSignals)
    {
        for (int i = 0; i < nSignals && !m_bReturned; ++i) {
            const int nBefore = s_nHandled;
            std::this_thread::sleep_for(std::chrono::milliseconds(5)); // lets it get back into its call
            ::pthread_kill(m_thread.native_handle(), SIGUSR1);
            for (int n = 0; n < 5000 && s_nHandled == nBefore && !m_bReturned; ++n)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (s_nHandled == nBefore)
                return false;
        }
        return !m_bReturned;
    }

    bool HasReturned() const { return m_bReturned; }

    void Join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    static inline std::atomic<int> s_nHandled{0};

    struct sigaction m_before = {};
    std::atomic<bool> m_bReturned{false};
    std::thread m_thread;
};
