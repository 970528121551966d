// The socket calls behind SyncSocket.h. All options are set where a socket opens, so that no path misses one.
#include "SyncSocket.h"

#include "HostName.h"
#include "WaitHook.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <optional>
#include <poll.h>
#include <span>
#include <unistd.h>

namespace {

using Clock = CSyncSocket::Clock;

/// poll() takes this for: no time-out.
constexpr int POLL_NEVER = -1;

/// The moment by which a call has to end. Made once a call, so that signals do not stretch it.
class CDeadline
{
public:
    explicit CDeadline(long nMs, Clock::rep nLimit = Clock::time_point::max().time_since_epoch().count())
        : m_end(Clock::duration(nLimit))
    {
        if (const auto end = CSyncSocket::FromNow(nMs, 1))
            m_end = std::min(m_end, *end);
    }

    /// Waits until the descriptor is ready: 1 ready, 0 expired, -1 failed or ended by the thread's WaitHook.
    int Wait(SOCKET hSocket, short nEvents) const
    {
        pollfd entry{hSocket, nEvents, 0};
        return Wait({&entry, 1});
    }

    int Wait(std::span<pollfd> entries) const
    {
        const auto fnGoOn = WaitHook().fnGoOn;
        for (;;) {
            const int nMs = LeftMs();
            const bool bSlice = fnGoOn && (nMs == POLL_NEVER || nMs > SWaitHook::SLICE_MS);
            const int nReady =
                ::poll(entries.data(), entries.size(), bSlice ? int{SWaitHook::SLICE_MS} : nMs);
            const bool bAgain = nReady < 0 ? errno == EINTR : nReady == 0 && bSlice;
            if (fnGoOn && !fnGoOn())
                return -1;
            if (!bAgain)
                return nReady;
        }
    }

private:
    int LeftMs() const
    {
        if (m_end == Clock::time_point::max())
            return POLL_NEVER;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now()).count();
        return static_cast<int>(std::clamp<long long>(left, 0, 0x7FFFFFFF));
    }

    Clock::time_point m_end;
};

timeval ToTimeval(long nMs) noexcept
{
    return {nMs / 1000, (nMs % 1000) * 1000};
}

bool WouldBlock() noexcept
{
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

/// Milliseconds; nothing for what is no socket.
std::optional<long> TimeOption(SOCKET hSocket, int nName) noexcept
{
    timeval tv{};
    socklen_t nLen = sizeof tv;
    if (::getsockopt(hSocket, SOL_SOCKET, nName, &tv, &nLen) != 0)
        return std::nullopt;
    return tv.tv_sec * 1000 + tv.tv_usec / 1000;
}

/// Calls again what a signal has interrupted, until nMs (0: no limit) have passed since the first call.
template <class Fn> auto Resumed(SOCKET hSocket, short nEvents, long nMs, Fn fnCall) -> decltype(fnCall())
{
    const CDeadline deadline(nMs);
    for (;;) {
        const auto nResult = fnCall();
        if (nResult >= 0 || errno != EINTR)
            return nResult;
        if (deadline.Wait(hSocket, nEvents) != 1) {
            errno = EAGAIN;
            return -1;
        }
    }
}

bool SetOption(SOCKET hSocket, int nLevel, int nName, int nValue) noexcept
{
    return ::setsockopt(hSocket, nLevel, nName, &nValue, sizeof nValue) == 0;
}

/// Requests are short and each awaits its reply: gathering them in the kernel would only delay them. A
/// network that fails says nothing, and who only listens would wait for ever: the kernel asks a peer that has
/// been silent whether it is still there. Only stream sockets know the options; for others the refusal means
/// nothing.
void SetStreamOptions(SOCKET hSocket) noexcept
{
    SetOption(hSocket, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(hSocket, IPPROTO_TCP, TCP_KEEPIDLE, CSyncSocket::PROBE_AFTER_S);
    SetOption(hSocket, IPPROTO_TCP, TCP_KEEPINTVL, CSyncSocket::PROBE_EVERY_S);
    SetOption(hSocket, IPPROTO_TCP, TCP_KEEPCNT, CSyncSocket::PROBES);
    SetOption(hSocket, SOL_SOCKET, SO_KEEPALIVE, 1);
}

/// Number 0 means no socket here, but it is free in a process that was started without standard input.
SOCKET OpenSocket(int nType) noexcept
{
    const SOCKET hSocket = ::socket(AF_INET, nType | SOCK_CLOEXEC, 0);
    if (hSocket != 0)
        return hSocket;
    const SOCKET hOther = ::fcntl(hSocket, F_DUPFD_CLOEXEC, 1);
    ::close(hSocket);
    return hOther;
}

/// Owns the descriptor from here on, also when there is no memory.
std::shared_ptr<CSockHandle> MakeHandle(SOCKET hSocket)
{
    if (hSocket == -1)
        return nullptr;
    try {
        return std::make_shared<CSockHandle>(hSocket);
    } catch (...) {
        ::close(hSocket);
        throw;
    }
}

/// Puts a descriptor into non-blocking mode for one scope.
class CNonBlocking
{
public:
    explicit CNonBlocking(SOCKET hSocket) noexcept : m_hSocket(hSocket), m_nFlags(::fcntl(hSocket, F_GETFL))
    {
        ::fcntl(m_hSocket, F_SETFL, m_nFlags | O_NONBLOCK);
    }
    ~CNonBlocking() { ::fcntl(m_hSocket, F_SETFL, m_nFlags); }
    CNonBlocking(const CNonBlocking&) = delete;
    CNonBlocking& operator=(const CNonBlocking&) = delete;

private:
    SOCKET m_hSocket;
    int m_nFlags;
};

} // namespace

CSockHandle::~CSockHandle()
{
    if (m_hSocket != -1)
        ::close(m_hSocket);
}

CSyncSocket::CSyncSocket(SOCKET hSocket)
{
    SetHandle(hSocket);
}

void CSyncSocket::SetHandle(SOCKET hSocket)
{
    Pin pHandle = MakeHandle(hSocket);
    m_nRecvTimeOut = TimeOption(hSocket, SO_RCVTIMEO).value_or(0);
    m_nSendTimeOut = TimeOption(hSocket, SO_SNDTIMEO).value_or(0);
    const CThreadGuard guard(m_lock);
    m_hSocket.swap(pHandle);
    m_bTimedOut = false;
}

CSyncSocket::Pin CSyncSocket::PinHandle() const
{
    const CThreadGuard guard(m_lock);
    return m_hSocket;
}

SOCKET CSyncSocket::GetHandle() const
{
    const auto pin = PinHandle();
    return pin ? pin->Get() : -1;
}

bool CSyncSocket::IsSocket() const noexcept
{
    const SOCKET hSocket = GetHandle();
    return hSocket != 0 && hSocket != -1;
}

bool CSyncSocket::Create(UINT nPort, int nType, LPCSTR szAddr, int nReuse)
{
    if (GetHandle() != -1)
        return true;
    const SOCKET hSocket = OpenSocket(nType);
    if (hSocket == -1)
        return false;
    SetHandle(hSocket);
    SetStreamOptions(hSocket);
    if (nPort == 0 && !szAddr)
        return true;
    if (nReuse != 0)
        SetOption(hSocket, SOL_SOCKET, SO_REUSEADDR, nReuse);
    sockaddr_in addr;
    CreateAddrIn(szAddr, nPort, addr);
    if (::bind(hSocket, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0)
        return true;
    SetHandle(-1);
    return false;
}

void CSyncSocket::CreateAddrIn(LPCSTR szHost, UINT nPort, sockaddr_in& addr, long nMs)
{
    CreateAddrIn(ULONG{INADDR_ANY}, nPort, addr);
    if (!szHost)
        return;
    addr.sin_addr.s_addr = ::inet_addr(szHost);
    if (addr.sin_addr.s_addr != INADDR_ANY && addr.sin_addr.s_addr != INADDR_NONE)
        return;
    if (const auto found = ResolveHost(szHost, nMs))
        addr.sin_addr = *found;
}

void CSyncSocket::CreateAddrIn(ULONG nIp, UINT nPort, sockaddr_in& addr) noexcept
{
    addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(nPort));
    addr.sin_addr.s_addr = static_cast<in_addr_t>(nIp);
}

bool CSyncSocket::_Connect(ULONG nIp, UINT nPort)
{
    const auto pin = PinHandle();
    if (!pin)
        return false;
    sockaddr_in addr;
    CreateAddrIn(nIp, nPort, addr);
    const CDeadline deadline(m_nConnectTimeOut);
    const CNonBlocking nonBlocking(pin->Get());
    if (::connect(pin->Get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0)
        return true;
    if (errno != EINPROGRESS && errno != EINTR)
        return false;
    if (deadline.Wait(pin->Get(), POLLOUT) != 1)
        return false;
    int nError = 0;
    socklen_t nLen = sizeof nError;
    return ::getsockopt(pin->Get(), SOL_SOCKET, SO_ERROR, &nError, &nLen) == 0 && nError == 0;
}

bool CSyncSocket::_Connect(LPCSTR szHost, UINT nPort)
{
    sockaddr_in addr;
    CreateAddrIn(szHost, nPort, addr, m_nConnectTimeOut);
    return _Connect(ULONG{addr.sin_addr.s_addr}, nPort);
}

bool CSyncSocket::Listen(int nBacklog)
{
    const auto pin = PinHandle();
    return pin && ::listen(pin->Get(), nBacklog) == 0;
}

bool CSyncSocket::Accept(CSyncSocket& sockNew, sockaddr* pAddr, socklen_t* pAddrLen)
{
    const auto pin = PinHandle();
    const SOCKET hListener = pin ? pin->Get() : -1;
    const SOCKET hNew = Resumed(hListener, POLLIN, m_nRecvTimeOut,
                                [&] { return ::accept4(hListener, pAddr, pAddrLen, SOCK_CLOEXEC); });
    sockNew.SetHandle(hNew);
    if (hNew != -1)
        SetStreamOptions(hNew);
    return hNew != -1;
}

bool CSyncSocket::ShutDown() noexcept
{
    const auto pin = PinHandle();
    return pin && ::shutdown(pin->Get(), SHUT_RDWR) == 0;
}

void CSyncSocket::Close()
{
    // The virtual test comes first: a derived class may have its own idea of what is a socket.
    const bool bClose = IsSocket();
    Pin pHandle;
    {
        const CThreadGuard guard(m_lock);
        m_hSocket.swap(pHandle);
    }
    if (pHandle && !bClose)
        pHandle->Forget();
}

bool CSyncSocket::IsQuiet() const noexcept
{
    const auto pin = PinHandle();
    BYTE nByte = 0;
    return pin && ::recv(pin->Get(), &nByte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && WouldBlock();
}

bool CSyncSocket::HasPeerEnded() const noexcept
{
    const auto pin = PinHandle();
    pollfd entry{pin ? pin->Get() : -1, POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) > 0;
}

CSyncSocket::EWake CSyncSocket::WaitRecv(const CSyncSocket* pOther, long nMs) const
{
    const auto pin = PinHandle();
    const auto other = pOther ? pOther->PinHandle() : nullptr;
    if (!pin || (pOther && !other))
        return EWake::OtherEnded;
    std::array<pollfd, 2> entries{pollfd{pin->Get(), POLLIN, 0},
                                  pollfd{other ? other->Get() : -1, POLLRDHUP, 0}};
    if (CDeadline(nMs).Wait(entries) < 1)
        return EWake::Expired;
    return entries[0].revents ? EWake::Ready : EWake::OtherEnded;
}

void CSyncSocket::SetLimit(std::optional<Clock::time_point> until) noexcept
{
    m_nLimit = until ? until->time_since_epoch().count() : NO_LIMIT;
}

std::optional<CSyncSocket::Clock::time_point> CSyncSocket::FromNow(long nMs, int nTimes) noexcept
{
    if (nMs <= 0 || nMs >= LONGEST_MS)
        return std::nullopt;
    return Clock::now() + nTimes * std::chrono::milliseconds(nMs);
}

void CSyncSocket::CloseForked() noexcept RK_NO_THREAD_SAFETY
{
    if (!m_hSocket)
        return;
    ::close(m_hSocket->Get());
    m_hSocket->Forget();
}

void CSyncSocket::NoteTimeOut() noexcept
{
    m_bTimedOut = true;
    errno = EAGAIN;
}

int CSyncSocket::SendOn(SOCKET hSocket, const void* pBuf, int nLen, int nFlags)
{
    const CDeadline deadline(m_nSendTimeOut, m_nLimit);
    const auto* pFrom = static_cast<const BYTE*>(pBuf);
    int nDone = 0;
    for (;;) {
        const auto nLeft = static_cast<size_t>(nLen - nDone);
        const auto nSent = ::send(hSocket, pFrom + nDone, nLeft, nFlags | MSG_NOSIGNAL | MSG_DONTWAIT);
        if (nSent >= 0) {
            nDone += static_cast<int>(nSent);
            if (nDone >= nLen || (nFlags & MSG_DONTWAIT))
                return nDone;
        } else if (errno != EINTR && (nFlags & MSG_DONTWAIT || !WouldBlock())) {
            return nDone > 0 ? nDone : -1;
        }
        if (deadline.Wait(hSocket, POLLOUT) != 1) {
            NoteTimeOut();
            return nDone > 0 ? nDone : -1;
        }
    }
}

bool CSyncSocket::IsBeyondLimit() const
{
    const Clock::rep nLimit = m_nLimit;
    return nLimit != NO_LIMIT && Clock::now().time_since_epoch().count() >= nLimit;
}

int CSyncSocket::RecvOn(SOCKET hSocket, void* pBuf, int nLen, int nFlags)
{
    const CDeadline deadline(nFlags & MSG_DONTWAIT ? 0 : KeptRecvTimeOut(), m_nLimit);
    for (;;) {
        if (IsBeyondLimit()) {
            NoteTimeOut();
            return -1;
        }
        const auto nGot = ::recv(hSocket, pBuf, static_cast<size_t>(nLen), nFlags | MSG_DONTWAIT);
        if (nGot >= 0 || (errno != EINTR && (nFlags & MSG_DONTWAIT || !WouldBlock())))
            return static_cast<int>(nGot);
        if (deadline.Wait(hSocket, POLLIN) != 1) {
            NoteTimeOut();
            return -1;
        }
    }
}

int CSyncSocket::_Send(const void* pBuf, int nLen, int nFlags)
{
    const auto pin = PinHandle();
    return pin && nLen >= 0 ? SendOn(pin->Get(), pBuf, nLen, nFlags) : -1;
}

int CSyncSocket::_Recv(void* pBuf, int nLen, int nFlags)
{
    const auto pin = PinHandle();
    return pin && nLen >= 0 ? RecvOn(pin->Get(), pBuf, nLen, nFlags) : -1;
}

bool CSyncSocket::SendAll(const void* pBuf, int nLen, int nFlags)
{
    if (nLen < 1)
        return nLen == 0;
    const auto pin = PinHandle();
    int nDone = 0;
    while (pin && nDone < nLen) {
        const int nSent = SendOn(pin->Get(), static_cast<const BYTE*>(pBuf) + nDone, nLen - nDone, nFlags);
        if (nSent < 1)
            return false;
        nDone += nSent;
    }
    return nDone == nLen;
}

bool CSyncSocket::RecvAll(void* pBuf, int nLen, int nFlags)
{
    if (nLen < 1)
        return nLen == 0;
    const auto pin = PinHandle();
    int nDone = 0;
    while (pin && nDone < nLen) {
        const int nGot = RecvOn(pin->Get(), static_cast<BYTE*>(pBuf) + nDone, nLen - nDone, nFlags);
        if (nGot < 1)
            return false;
        nDone += nGot;
    }
    return nDone == nLen;
}

int CSyncSocket::RecvUntil(std::span<BYTE> buf, const std::function<bool(std::span<const BYTE>)>& fnWhole)
{
    for (size_t nDone = 0; nDone < buf.size();) {
        const int nGot = _Recv(buf.data() + nDone, static_cast<int>(buf.size() - nDone), 0);
        if (nGot < 1)
            return 0;
        nDone += static_cast<size_t>(nGot);
        if (fnWhole(buf.first(nDone)) || nDone == buf.size())
            return static_cast<int>(nDone);
    }
    return 0;
}

bool CSyncSocket::SendTimeOut(const void* pBuf, ULONG nLen, long nMs)
{
    const auto pin = PinHandle();
    if (!pin || nLen > 0x7FFFFFFF || CDeadline(std::max(nMs, 1L)).Wait(pin->Get(), POLLOUT) != 1)
        return false;
    return _Send(pBuf, static_cast<int>(nLen), 0) == static_cast<int>(nLen);
}

int CSyncSocket::RecvTimeOut(void* pBuf, int nLen, long nMs)
{
    const auto pin = PinHandle();
    if (!pin || CDeadline(std::max(nMs, 1L)).Wait(pin->Get(), POLLIN) != 1)
        return RECV_EXPIRED;
    return _Recv(pBuf, nLen, 0);
}

int CSyncSocket::_SendTo(const void* pBuf, int nLen, UINT nPort, LPCSTR szHost, int nFlags)
{
    const auto pin = PinHandle();
    if (!pin || nLen < 0)
        return -1;
    sockaddr_in addr;
    CreateAddrIn(szHost, nPort, addr);
    return static_cast<int>(Resumed(pin->Get(), POLLOUT, m_nSendTimeOut, [&] {
        return ::sendto(pin->Get(), pBuf, static_cast<size_t>(nLen), nFlags | MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    }));
}

int CSyncSocket::_RecvFrom(void* pBuf, int nLen, sockaddr_in& addr, int nFlags)
{
    const auto pin = PinHandle();
    addr = {};
    if (!pin || nLen < 0)
        return -1;
    socklen_t nAddrLen = sizeof addr;
    return static_cast<int>(Resumed(pin->Get(), POLLIN, m_nRecvTimeOut, [&] {
        return ::recvfrom(pin->Get(), pBuf, static_cast<size_t>(nLen), nFlags,
                          reinterpret_cast<sockaddr*>(&addr), &nAddrLen);
    }));
}

bool CSyncSocket::SetTimeOption(int nName, long nMs, std::atomic<long>& nKept)
{
    const auto pin = PinHandle();
    const timeval tv = ToTimeval(nMs);
    if (!pin || ::setsockopt(pin->Get(), SOL_SOCKET, nName, &tv, sizeof tv) != 0)
        return false;
    nKept = nMs;
    return true;
}

bool CSyncSocket::SetRecvTimeOut(long nMs)
{
    return SetTimeOption(SO_RCVTIMEO, nMs, m_nRecvTimeOut);
}

bool CSyncSocket::SetSendTimeOut(long nMs)
{
    return SetTimeOption(SO_SNDTIMEO, nMs, m_nSendTimeOut);
}

bool CSyncSocket::SetTimeOut(long nMs)
{
    return nMs == 0 || (SetRecvTimeOut(nMs) && SetSendTimeOut(nMs));
}

bool CSyncSocket::GetRecvTimeOut(long& nMs) const
{
    const auto pin = PinHandle();
    const auto found = TimeOption(pin ? pin->Get() : -1, SO_RCVTIMEO);
    nMs = found.value_or(nMs);
    return found.has_value();
}

bool CScnSocket::_Connect(LPCSTR szHost, UINT nPort)
{
    const ULONG nCenterIp = m_nCenterIp;
    return nCenterIp != 0 ? CSyncSocket::_Connect(nCenterIp, nPort) : CSyncSocket::_Connect(szHost, nPort);
}

int CReqTimeSock::_Send(const void* pBuf, int nLen, int nFlags)
{
    m_lastReqTime = std::time(nullptr);
    return CSyncSocket::_Send(pBuf, nLen, nFlags);
}
