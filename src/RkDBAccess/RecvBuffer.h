// The bytes of one receive of the notification stream, and what has been walked of them.
//
// A receive is not over while it ends inside a notification whose rest is on its way: walked bytes make room
// and More() reads on. Nothing is kept from one receive for the next.
#pragma once

#include "SyncSocket.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

class CRecvBuffer
{
public:
    static constexpr size_t SIZE = 2048;
    /// A text that does not fit SIZE is let grow up to here; a longer one cannot be told from garbage.
    static constexpr size_t MAX_SIZE = 64 * 1024;
    static constexpr long REST_MS = 1000; // for the rest of a notification: a few retransmissions' time

    CRecvBuffer() : m_bytes(SIZE) {}

    std::span<const BYTE> Unwalked() const noexcept
    {
        return std::span(m_bytes).subspan(m_nPos, m_nEnd - m_nPos);
    }
    bool IsWalked() const noexcept { return m_nPos >= m_nEnd; }
    /// nLen may lead beyond the end: that is the end.
    void Skip(size_t nLen) noexcept
    {
        m_nPos = std::min(m_nPos + nLen, m_nEnd);
        m_restUntil.reset();
    }

    /// Begins a receive: what is left of the last one is dropped. Returns what the socket gave.
    int Fill(CSyncSocket& sock)
    {
        m_nPos = m_nEnd = 0;
        m_restUntil.reset();
        const int nGot = sock._Recv(m_bytes.data(), static_cast<int>(SIZE), 0);
        m_nEnd = static_cast<size_t>(std::max(nGot, 0));
        return nGot;
    }

    /// Goes on with a receive that ends inside a notification. False when its rest does not come in time.
    bool More(CSyncSocket& sock)
    {
        using Clock = std::chrono::steady_clock;
        const auto now = Clock::now();
        if (!m_restUntil)
            m_restUntil = now + std::chrono::milliseconds(REST_MS);
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_restUntil - now).count();
        if (left <= 0 || !MakeRoom())
            return false;
        BYTE* pRest = m_bytes.data() + m_nEnd;
        const int nRoom = static_cast<int>(m_bytes.size() - m_nEnd);
        int nGot = sock._Recv(pRest, nRoom, MSG_DONTWAIT);
        if (nGot < 0)
            nGot = sock.RecvTimeOut(pRest, nRoom, left);
        if (nGot <= 0)
            return false;
        m_nEnd += static_cast<size_t>(nGot);
        return true;
    }

private:
    bool MakeRoom()
    {
        std::memmove(m_bytes.data(), m_bytes.data() + m_nPos, m_nEnd - m_nPos);
        m_nEnd -= m_nPos;
        m_nPos = 0;
        if (m_nEnd == m_bytes.size() && m_bytes.size() < MAX_SIZE)
            m_bytes.resize(m_bytes.size() * 2);
        return m_nEnd < m_bytes.size();
    }

    std::vector<BYTE> m_bytes;
    size_t m_nPos = 0;
    size_t m_nEnd = 0;
    std::optional<std::chrono::steady_clock::time_point> m_restUntil;
};
