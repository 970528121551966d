// Blocking IPv4 stream sockets with millisecond time-outs, and nothing more: no protocol lives here.
//
// Results are booleans or byte counts; nothing throws. A call that a handled signal interrupts is resumed
// and still ends by the time-out it began with. Every socket is close-on-exec, sends without SIGPIPE, never
// waits for the kernel to gather small packets (TCP_NODELAY), and has the kernel probe a silent peer
// (SO_KEEPALIVE), so that a call without a time-out ends when the network is gone.
//
// While a wait lasts, the calling thread's WaitHook is asked; a wait that it ends has failed like one whose
// time is up.
//
// Threads: one thread transfers at a time, but any thread may Close() or ShutDown() meanwhile. Each call
// pins the descriptor, so its number is closed once, by whoever leaves it last, and is never reused by the
// system while a call is still inside it.
#pragma once

#include "ThreadLock.h"
#include "wintypes.h"

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <span>
#include <sys/socket.h>

/// One open descriptor, closed when its last holder lets go.
class CSockHandle
{
public:
    explicit CSockHandle(SOCKET hSocket) noexcept : m_hSocket(hSocket) {}
    ~CSockHandle();
    CSockHandle(const CSockHandle&) = delete;
    CSockHandle& operator=(const CSockHandle&) = delete;

    SOCKET Get() const noexcept { return m_hSocket; }
    void Forget() noexcept { m_hSocket = -1; }

private:
    SOCKET m_hSocket;
};

class CSyncSocket
{
public:
    using Clock = std::chrono::steady_clock;
    /// A time-out beyond this is none: adding it to the clock must not overflow.
    static constexpr long LONGEST_MS = 1L << 40;

    static constexpr int RECV_EXPIRED = -3; // RecvTimeOut: nothing came in time (0: peer closed, -1: error)
    // A peer that has been silent is probed after a while, and taken for gone after so many probes: 90 s in
    // all, about two minutes by the kernel's coarse timers.
    static constexpr int PROBE_AFTER_S = 30;
    static constexpr int PROBE_EVERY_S = 10;
    static constexpr int PROBES = 6;

    CSyncSocket() noexcept = default;
    explicit CSyncSocket(SOCKET hSocket);
    virtual ~CSyncSocket() = default; // closes any descriptor but -1, 0 included
    /// Neither 0 nor -1 is a socket here.
    virtual bool IsSocket() const noexcept;
    /// Sends once; a send that a signal cut short goes on. Returns the bytes sent, or -1.
    virtual int _Send(const void* pBuf, int nLen, int nFlags = 0);
    /// Receives once. Returns the bytes received, 0 when the peer closed, -1 on error or time-out.
    virtual int _Recv(void* pBuf, int nLen, int nFlags = 0);
    CSyncSocket(const CSyncSocket&) = delete;
    CSyncSocket& operator=(const CSyncSocket&) = delete;

    /// Opens a socket unless one is held; binds it when a port or an address is given.
    bool Create(UINT nPort = 0, int nType = SOCK_STREAM, LPCSTR szAddr = nullptr, int nReuse = 0);
    /// A name is looked up for nMs at most (0: no limit); one that is not found leaves the address all-ones.
    static void CreateAddrIn(LPCSTR szHost, UINT nPort, sockaddr_in& addr, long nMs = 0);
    static void CreateAddrIn(ULONG nIp, UINT nPort, sockaddr_in& addr) noexcept;
    /// nIp in network byte order. Bounded by SetConnectTimeOut, and so is the look-up of a name. A failure
    /// leaves the descriptor open.
    bool _Connect(ULONG nIp, UINT nPort);
    bool _Connect(LPCSTR szHost, UINT nPort);
    bool Listen(int nBacklog = 5);
    bool Accept(CSyncSocket& sockNew, sockaddr* pAddr, socklen_t* pAddrLen);
    /// Ends both directions at once and wakes whoever waits in a call; the descriptor stays.
    bool ShutDown() noexcept;
    void Close();
    /// For the copy that a fork made: closes the number without a word to the peer and without taking the
    /// lock, which a thread that does not exist in this process may hold.
    void CloseForked() noexcept;

    bool SendAll(const void* pBuf, int nLen, int nFlags = 0);
    bool RecvAll(void* pBuf, int nLen, int nFlags = 0);
    /// Receives a reply that says itself where it ends: until fnWhole is true of the bytes so far, or buf is
    /// full. Returns the bytes, or 0 when the stream ended before.
    int RecvUntil(std::span<BYTE> buf, const std::function<bool(std::span<const BYTE>)>& fnWhole);
    bool SendTimeOut(const void* pBuf, ULONG nLen, long nMs);
    int RecvTimeOut(void* pBuf, int nLen, long nMs);
    int _SendTo(const void* pBuf, int nLen, UINT nPort, LPCSTR szHost, int nFlags = 0);
    int _RecvFrom(void* pBuf, int nLen, sockaddr_in& addr, int nFlags = 0);

    bool SetRecvTimeOut(long nMs);
    bool SetSendTimeOut(long nMs);
    /// 0 leaves both time-outs as they are.
    bool SetTimeOut(long nMs);
    bool GetRecvTimeOut(long& nMs) const;
    /// The receive time-out that was set last, in ms; 0: none.
    long KeptRecvTimeOut() const noexcept { return m_nRecvTimeOut; }
    /// No send or receive lasts beyond this moment, whatever its time-out; one that begins later fails even
    /// if there is something to receive. Nothing: no such moment.
    void SetLimit(std::optional<Clock::time_point> until) noexcept;
    /// nTimes nMs from now; nothing for 0 ms and for more than the clock can hold.
    static std::optional<Clock::time_point> FromNow(long nMs, int nTimes) noexcept;
    void SetLimit(long nMs, int nTimes) noexcept { SetLimit(FromNow(nMs, nTimes)); }
    void SetConnectTimeOut(long nMs) noexcept { m_nConnectTimeOut = nMs; }
    /// True once a blocking transfer on the current socket has ended by its time-out: the peer may still
    /// answer what was asked, so the stream can no longer be trusted.
    bool HasTimedOut() const noexcept { return m_bTimedOut; }
    SOCKET GetHandle() const;
    /// True while the peer has neither sent anything that was not received nor ended the stream.
    bool IsQuiet() const noexcept;
    /// True once the peer has ended its side, whatever is still to be received.
    bool HasPeerEnded() const noexcept;
    /// What ended a wait for this socket's next bytes beside another socket.
    enum class EWake
    {
        Ready,      // there is something to receive here, the end of the stream included
        OtherEnded, // the peer of the other socket has ended it
        Expired,
    };
    /// Waits until this socket has something to receive or the other one's peer has ended that one; a socket
    /// that is closed counts as ended. nMs 0: no limit. What the other one receives does not matter.
    EWake WaitRecv(const CSyncSocket* pOther, long nMs) const;

protected:
    using Pin = std::shared_ptr<CSockHandle>;
    Pin PinHandle() const;
    int SendOn(SOCKET hSocket, const void* pBuf, int nLen, int nFlags);
    int RecvOn(SOCKET hSocket, void* pBuf, int nLen, int nFlags);

private:
    void SetHandle(SOCKET hSocket);
    bool SetTimeOption(int nName, long nMs, std::atomic<long>& nKept);
    void NoteTimeOut() noexcept;

    bool IsBeyondLimit() const;
    static constexpr Clock::rep NO_LIMIT = Clock::time_point::max().time_since_epoch().count();

    mutable CThreadLock m_lock;
    Pin m_hSocket RK_GUARDED_BY(m_lock); // null: no socket
    std::atomic<long> m_nRecvTimeOut{0}; // ms, 0: none; what SO_RCVTIMEO of the descriptor holds
    std::atomic<long> m_nSendTimeOut{0};
    std::atomic<long> m_nConnectTimeOut{0};
    std::atomic<Clock::rep> m_nLimit{NO_LIMIT};
    std::atomic<bool> m_bTimedOut{false};
};

/// A socket that can be told to connect to a relay centre in place of the host it is given.
class CScnSocket : public CSyncSocket
{
public:
    bool _Connect(LPCSTR szHost, UINT nPort);

    std::atomic<ULONG> m_nCenterIp{0}; // network byte order; 0: connect to the host that is named
};

/// The request socket: remembers when the last request went out.
class CReqTimeSock : public CScnSocket
{
public:
    CReqTimeSock() : m_lastReqTime(std::time(nullptr)) {}
    int _Send(const void* pBuf, int nLen, int nFlags = 0) override;

    time_t m_lastReqTime;
};
