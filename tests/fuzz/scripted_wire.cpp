// The calls that the linker leads here, and the script behind them.
#include "scripted_wire.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace {

using Time = std::chrono::steady_clock::time_point;

CScriptedWire* g_pCurrent = nullptr;

CScriptedWire::SChannel* ChannelOf(int fd)
{
    return g_pCurrent ? g_pCurrent->Find(fd) : nullptr;
}

} // namespace

// The names are those that --wrap asks for.
extern "C" {
int __real_connect(int fd, const sockaddr* pAddr, socklen_t nLen);
int __real_nanosleep(const timespec* pTime, timespec* pLeft);
int __real_poll(pollfd* pEntries, nfds_t nEntries, int nMs);
ssize_t __real_recv(int fd, void* pBuf, size_t nLen, int nFlags);
ssize_t __real_send(int fd, const void* pBuf, size_t nLen, int nFlags);
int __real_usleep(useconds_t nUs);

int __wrap_connect(int fd, const sockaddr* pAddr, socklen_t nLen)
{
    if (!g_pCurrent)
        return __real_connect(fd, pAddr, nLen);
    sockaddr_in addr{};
    FUZZ_CHECK(nLen == sizeof addr);
    std::memcpy(&addr, pAddr, sizeof addr);
    g_pCurrent->Connect(fd, addr);
    return 0;
}

/// Pauses between steps are for a peer, and there is none.
int __wrap_nanosleep(const timespec* pTime, timespec* pLeft)
{
    if (!g_pCurrent)
        return __real_nanosleep(pTime, pLeft);
    g_pCurrent->Pass(std::chrono::seconds(pTime->tv_sec) + std::chrono::nanoseconds(pTime->tv_nsec));
    return 0;
}

int __wrap_usleep(useconds_t nUs)
{
    if (!g_pCurrent)
        return __real_usleep(nUs);
    g_pCurrent->Pass(std::chrono::microseconds(nUs));
    return 0;
}

int __wrap_poll(pollfd* pEntries, nfds_t nEntries, int nMs)
{
    const std::span entries(pEntries, nEntries);
    const auto isPlayed = [](const pollfd& entry) { return ChannelOf(entry.fd) != nullptr; };
    if (std::ranges::none_of(entries, isPlayed))
        return __real_poll(pEntries, nEntries, nMs);
    FUZZ_CHECK(std::ranges::all_of(entries, [&](const auto& e) { return e.fd == -1 || isPlayed(e); }));
    return g_pCurrent->Poll(entries, nMs);
}

ssize_t __wrap_recv(int fd, void* pBuf, size_t nLen, int nFlags)
{
    auto* pChannel = ChannelOf(fd);
    return pChannel ? g_pCurrent->Receive(*pChannel, pBuf, nLen, nFlags)
                    : __real_recv(fd, pBuf, nLen, nFlags);
}

ssize_t __wrap_send(int fd, const void* pBuf, size_t nLen, int nFlags)
{
    auto* pChannel = ChannelOf(fd);
    FUZZ_CHECK(!pChannel || (nFlags & MSG_DONTWAIT && nFlags & MSG_NOSIGNAL));
    return pChannel ? g_pCurrent->Send(*pChannel, pBuf, nLen) : __real_send(fd, pBuf, nLen, nFlags);
}
}

// The name of std::chrono::steady_clock::now(), which has no C form.
Time RealNow() __asm__("__real__ZNSt6chrono3_V212steady_clock3nowEv");
Time PlayedNow() __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
Time PlayedNow()
{
    return g_pCurrent ? g_pCurrent->Now() : RealNow();
}

BYTE CInput::Byte()
{
    if (m_left.empty())
        return 0;
    const BYTE n = m_left[0];
    m_left = m_left.subspan(1);
    return n;
}

std::span<const BYTE> CInput::Segment()
{
    const size_t nLow = Byte();
    const size_t nHigh = Byte(); // a statement of its own: it must be taken before what is left is counted
    const size_t nLen = std::min(nLow | nHigh << 8, m_left.size());
    const auto segment = m_left.first(nLen);
    m_left = m_left.subspan(nLen);
    return segment;
}

CScriptedWire MakeWire(BYTE nControl)
{
    const auto eEnd = nControl & 0x80 ? CScriptedWire::EEnd::Closed : CScriptedWire::EEnd::Silence;
    return CScriptedWire(nControl & 0x7F, eEnd);
}

CScriptedWire::CScriptedWire(size_t nPiece, EEnd eEnd) : m_nPiece(nPiece), m_eEnd(eEnd)
{
    FUZZ_CHECK(!g_pCurrent);
    g_pCurrent = this;
}

CScriptedWire::~CScriptedWire()
{
    g_pCurrent = nullptr;
}

CScriptedWire::SChannel* CScriptedWire::Find(int fd)
{
    const auto it = m_channels.find(fd);
    return it != m_channels.end() ? &it->second : nullptr;
}

void CScriptedWire::Reply(std::span<const BYTE> bytes, bool bClose)
{
    m_replies.push_back({{bytes.begin(), bytes.end()}, bClose});
}

void CScriptedWire::Connect(int fd, const sockaddr_in& addr)
{
    m_connected.push_back(addr);
    Open(fd);
}

size_t CScriptedWire::Piece(size_t nLen, size_t nHave) const
{
    return std::min({nLen, nHave, m_nPiece > 0 ? m_nPiece : nLen});
}

ssize_t CScriptedWire::Receive(SChannel& channel, void* pBuf, size_t nLen, int nFlags)
{
    FUZZ_CHECK(nFlags & MSG_DONTWAIT);
    if (!HasBytes(channel)) {
        errno = EAGAIN;
        return HasEnded(channel) ? 0 : -1;
    }
    const size_t nGot = Piece(nLen, channel.incoming.size());
    const auto end = channel.incoming.begin() + static_cast<std::ptrdiff_t>(nGot);
    std::copy(channel.incoming.begin(), end, static_cast<BYTE*>(pBuf));
    if (nFlags & MSG_PEEK)
        return static_cast<ssize_t>(nGot);
    channel.incoming.erase(channel.incoming.begin(), end);
    channel.received.push_back(nGot);
    channel.next = m_now + channel.pause;
    return static_cast<ssize_t>(nGot);
}

ssize_t CScriptedWire::Send(SChannel& channel, const void* pBuf, size_t nLen)
{
    const auto* pFrom = static_cast<const BYTE*>(pBuf);
    channel.sent.insert(channel.sent.end(), pFrom, pFrom + nLen);
    if (m_nReplied < m_replies.size()) {
        const auto& reply = m_replies[m_nReplied++];
        channel.incoming.insert(channel.incoming.end(), reply.bytes.begin(), reply.bytes.end());
        channel.bClosed |= reply.bClose;
    }
    return static_cast<ssize_t>(nLen);
}

/// True once the end of the stream is all that is left to receive or, with all bytes here, is known of.
bool CScriptedWire::HasEnded(const SChannel& channel) const
{
    const bool bClosed = channel.bClosed || (m_eEnd == EEnd::Closed && m_nReplied == m_replies.size());
    return bClosed && (channel.incoming.empty() || channel.pause == Clock::duration(0));
}

int CScriptedWire::Ready(std::span<pollfd> entries)
{
    int nReady = 0;
    for (pollfd& entry : entries) {
        entry.revents = 0;
        const auto* pChannel = Find(entry.fd);
        if (!pChannel)
            continue;
        const bool bEnded = HasEnded(*pChannel);
        const int nEvents = (bEnded || HasBytes(*pChannel) ? POLLIN : 0) | (bEnded ? POLLRDHUP : 0) | POLLOUT;
        entry.revents = static_cast<short>(entry.events & nEvents);
        nReady += entry.revents != 0;
    }
    return nReady;
}

/// A wait ends when the next bytes are there or its time is up, whichever is first.
int CScriptedWire::Poll(std::span<pollfd> entries, int nMs)
{
    if (const int nReady = Ready(entries); nReady > 0)
        return nReady;
    std::optional<Clock::time_point> until;
    if (nMs >= 0)
        until = m_now + std::chrono::milliseconds(nMs);
    for (const pollfd& entry : entries) {
        const auto* pChannel = Find(entry.fd);
        if (pChannel && (entry.events & POLLIN) && !pChannel->incoming.empty())
            until = until ? std::min(*until, pChannel->next) : pChannel->next;
    }
    FUZZ_CHECK(until); // nothing would ever end this wait
    m_now = *until;
    return Ready(entries);
}
