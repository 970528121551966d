// The bytes of one receive of the notification stream, and what has been walked of them.
//
// A receive is not over while it ends inside a notification: walked bytes make room and More() awaits the
// rest. Nothing is kept from one receive for the next.
#pragma once

#include "SyncSocket.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

class CRecvBuffer
{
public:
    static constexpr size_t SIZE = 2048;
    /// Room for one notification with a long text; the end of a longer one is not awaited.
    static constexpr size_t MAX_SIZE = 32 << 20;
    /// No notification is longer than this, unless it has a text.
    static constexpr size_t MAX_FIXED = 64;

    /// nRestMs: how long the next bytes of a notification may take that has begun.
    explicit CRecvBuffer(long nRestMs) : m_nRestMs(nRestMs), m_bytes(SIZE) {}

    std::span<const BYTE> Unwalked() const noexcept
    {
        return std::span(m_bytes).subspan(m_nPos, m_nEnd - m_nPos);
    }
    bool IsWalked() const noexcept { return m_nPos >= m_nEnd; }
    void Skip(size_t nLen) noexcept { m_nPos = std::min(m_nPos + nLen, m_nEnd); }
    /// Whether the last bytes took all the room there was: then what they end in goes on in the next receive.
    bool WasFilled() const noexcept { return m_nEnd == m_bytes.size(); }

    /// Begins a receive: what is left of the last one is dropped. Returns what the socket gave.
    int Fill(CSyncSocket& sock, int nFlags = 0)
    {
        m_nPos = m_nEnd = 0;
        if (m_bytes.size() > SIZE)
            m_bytes = std::vector<BYTE>(SIZE);
        const int nGot = sock._Recv(m_bytes.data(), static_cast<int>(SIZE), nFlags);
        m_nEnd = static_cast<size_t>(std::max(nGot, 0));
        return nGot;
    }

    /// Goes on with a receive that ends inside a notification. False when no byte comes in time, or when the
    /// notification is too long: where the next one begins is not known then.
    /// fnAwait: waits for bytes, a number of milliseconds at most. False: there are none.
    template <class F> bool More(CSyncSocket& sock, F&& fnAwait)
    {
        // What is longer than that and still not whole has a text, which ends with a NUL: it is not looked
        // through again for each piece.
        const bool bText = m_nEnd - m_nPos > MAX_FIXED;
        for (;;) {
            if (!MakeRoom())
                return false;
            const int nGot = Receive(sock, fnAwait);
            if (nGot <= 0)
                return false;
            const auto news = std::span(m_bytes).subspan(m_nEnd, static_cast<size_t>(nGot));
            m_nEnd += news.size();
            if (!bText || std::ranges::find(news, BYTE{0}) != news.end())
                return true;
        }
    }

private:
    template <class F> int Receive(CSyncSocket& sock, F&& fnAwait)
    {
        BYTE* pRest = m_bytes.data() + m_nEnd;
        const int nRoom = static_cast<int>(m_bytes.size() - m_nEnd);
        int nGot = sock._Recv(pRest, nRoom, MSG_DONTWAIT);
        while (nGot < 0 && fnAwait(m_nRestMs))
            nGot = sock._Recv(pRest, nRoom, MSG_DONTWAIT);
        return nGot;
    }

    bool MakeRoom()
    {
        std::memmove(m_bytes.data(), m_bytes.data() + m_nPos, m_nEnd - m_nPos);
        m_nEnd -= m_nPos;
        m_nPos = 0;
        if (m_nEnd == m_bytes.size() && m_bytes.size() < MAX_SIZE)
            m_bytes.resize(m_bytes.size() * 2);
        return m_nEnd < m_bytes.size();
    }

    const long m_nRestMs;
    std::vector<BYTE> m_bytes;
    size_t m_nPos = 0;
    size_t m_nEnd = 0;
};
