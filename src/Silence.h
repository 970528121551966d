// Bounds a transfer whose peer sends but brings nothing on: results of 0, blocks without content. Each of
// them is honest, a stream of them without end is not.
#pragma once

#include "SyncSocket.h"

#include <chrono>
#include <optional>

class CSilence
{
public:
    /// The limit is the socket's receive time-out, or one of its own where the socket has none.
    explicit CSilence(const CSyncSocket& sock)
    {
        long nMs = 0;
        if (!sock.GetRecvTimeOut(nMs) || nMs <= 0)
            nMs = DEFAULT_LIMIT;
        m_limit = std::chrono::milliseconds(nMs);
    }

    void Heard() noexcept { m_since.reset(); }
    /// To be called for each empty result: true when they have lasted for the limit.
    bool TooLong()
    {
        const auto now = std::chrono::steady_clock::now();
        if (!m_since)
            m_since = now;
        return now - *m_since >= m_limit;
    }

private:
    static constexpr long DEFAULT_LIMIT = 8000; // ms

    std::chrono::milliseconds m_limit{};
    std::optional<std::chrono::steady_clock::time_point> m_since;
};
