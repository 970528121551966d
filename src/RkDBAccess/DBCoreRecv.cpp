// The receive thread: reads the notification stream and hands each notification to its receiver.
#include "DBCore.h"

#include <chrono>
#include <cxxabi.h>
#include <pthread.h>
#include <thread>

namespace {

constexpr auto PAUSE_BEFORE_END = std::chrono::milliseconds(60);
constexpr size_t DRIVER_HEAD = 4; // driver id and tag position

constexpr auto FIRST_VALUE_STEP = std::chrono::milliseconds(1);
/// Between two looks whether the request is over that is reading the end of its connection.
constexpr long REQUEST_STEP_MS = 5;
constexpr auto LOOK_STEP = std::chrono::milliseconds(100);
constexpr auto LOOK_GRACE = std::chrono::seconds(1);

std::atomic<int> g_nThreads{0};
[[maybe_unused]] const int g_nForkHandler = ::pthread_atfork(nullptr, nullptr, [] { g_nThreads = 0; });

struct SThreadCount
{
    SThreadCount() { ++g_nThreads; }
    ~SThreadCount() { --g_nThreads; }
    SThreadCount(const SThreadCount&) = delete;
    SThreadCount& operator=(const SThreadCount&) = delete;
};

} // namespace

int CDBCore::CountThreads() noexcept
{
    return g_nThreads;
}

void* CDBCore::RecvThread(void* pParam)
{
    const SThreadCount count;
    try {
        static_cast<CDBCore*>(pParam)->DoRecv();
    } catch (const abi::__forced_unwind&) {
        throw; // the interpreter ends its threads this way
    } catch (const std::exception&) {
        // No memory left even for ending the connection. DoRecv has let go of the core on its way out.
    }
    return nullptr;
}

void CDBCore::DoRecv()
{
    const std::shared_ptr<CRecvLink> pLink = m_pRecvLink;
    /// However this body ends, the core is not kept waiting.
    struct SDone
    {
        CRecvLink& link;
        ~SDone() { link.Done(); }
    };
    CPyThread python(*pLink); // outlives SDone: a thread state is given back after the core was let go
    const SDone done{*pLink};
    try {
        CRecvBuffer buffer(m_reqSock.KeptRecvTimeOut());
        while (m_bConnect) {
            const EWalk eWalk = Receive(buffer) ? WalkReceive(buffer, python) : EWalk::Lost;
            if (eWalk == EWalk::Gone || (eWalk == EWalk::Lost && LoseConnection()))
                return;
            python.EndTurn();
        }
    } catch (const std::exception&) {
        // No memory for a value: with that change passed over in silence the script would see a wrong one.
        if (pLink->OwnsCore())
            LoseConnection();
        return;
    }
    std::this_thread::sleep_for(PAUSE_BEFORE_END);
}

/// A stream that never pauses is never awaited, so the end of the request connection is looked for now and
/// then. What came before it has some time to be told of.
bool CDBCore::HasRequestEnded()
{
    const auto now = CSyncSocket::Clock::now();
    if (now < m_nextLook)
        return false;
    m_nextLook = now + LOOK_STEP;
    if (IsExchanging() || !m_reqSock.HasPeerEnded())
        m_endSeen.reset();
    else if (!m_endSeen)
        m_endSeen = now;
    return m_endSeen && now - *m_endSeen > LOOK_GRACE;
}

/// Begins a receive. False when one of the two connections has ended: neither is of use without the other.
bool CDBCore::Receive(CRecvBuffer& buffer)
{
    if (HasRequestEnded())
        return false;
    int nGot = buffer.Fill(m_rcvSock, MSG_DONTWAIT);
    while (nGot < 0 && AwaitReceive(0))
        nGot = buffer.Fill(m_rcvSock, MSG_DONTWAIT);
    return nGot > 0;
}

/// Until bytes are there. False when there are none within nMs (0: any time), or when a connection has ended.
bool CDBCore::AwaitReceive(long nMs)
{
    using EWake = CSyncSocket::EWake;
    EWake eWake = m_rcvSock.WaitRecv(&m_reqSock, nMs);
    // The request connection has ended, but a request may still read the reply in front of that end. It ends
    // both connections itself if it finds no whole one.
    while (eWake == EWake::OtherEnded && m_bConnect && IsExchanging()) {
        if (m_rcvSock.WaitRecv(nullptr, REQUEST_STEP_MS) == EWake::Ready)
            return true;
    }
    return eWake == EWake::Ready;
}

/// Ends the connection as lost. False: it had ended before.
bool CDBCore::LoseConnection()
{
    if (!m_bConnect.exchange(false))
        return false;
    ClearDrivers(); // first: whoever sees a connection end finds the loss known here
    m_reqSock.ShutDown();
    m_rcvSock.ShutDown();
    StopSock();
    return true;
}

CDBCore::EWalk CDBCore::WalkReceive(CRecvBuffer& buffer, CPyThread& python)
{
    for (;;) {
        while (!buffer.IsWalked()) {
            const int nLen = OnDBNotify(buffer.Unwalked(), &python);
            if (nLen == NOTIFY_LEAVE)
                return EWalk::Gone;
            if (nLen == NOTIFY_CUT)
                break;
            // What cannot be told apart is dropped with the rest of its receive. The next one begins with a
            // notification only if this one did not end for want of room.
            if (nLen == NOTIFY_STOP)
                return buffer.WasFilled() ? EWalk::Lost : EWalk::Walked;
            buffer.Skip(static_cast<size_t>(nLen));
        }
        if (buffer.IsWalked())
            return EWalk::Walked;
        python.EndTurn(); // the network is awaited without the interpreter lock
        const auto await = [this](long nMs) { return AwaitReceive(nMs); };
        if (!m_bConnect || !buffer.More(m_rcvSock, await))
            return EWalk::Lost;
    }
}

int CDBCore::OnDBNotify(std::span<const BYTE> bytes, CPyThread* pPython)
{
    CWireReader reader(bytes);
    const WORD nWord = reader.Get<WORD>();
    if (reader.IsBad())
        return NOTIFY_CUT;
    if (nWord != SYSTEM_NOTIFY)
        return OnDriverNotify(nWord, bytes, pPython);
    const int nLen =
        SysNotifyLength(bytes, [this](WORD nDriver, WORD nTag) { return HasTag(nDriver, nTag); });
    if (nLen <= 0)
        return nLen;
    const BYTE nSubType = bytes[2];
    if (nSubType != SYS_ALARM && nSubType != SYS_ALARM_EVENT)
        return nLen;
    return OnAlarm(bytes.first(static_cast<size_t>(nLen)), pPython);
}

CDriverRef CDBCore::DriverAt(WORD nDriver)
{
    const CThreadGuard guard(m_lock);
    return CDriverRef(nDriver < m_pDrivers.size() ? m_pDrivers[nDriver] : nullptr);
}

bool CDBCore::IsInDirectory(WORD nDriver)
{
    const CThreadGuard guard(m_lock);
    return nDriver < m_pDrivers.size();
}

bool CDBCore::HasTag(WORD nDriver, WORD nTag)
{
    const CDriverRef driver = DriverAt(nDriver);
    return driver && nTag < driver->GetTagCount();
}

int CDBCore::OnDriverNotify(WORD nDriver, std::span<const BYTE> bytes, CPyThread* pPython)
{
    CWireReader reader(bytes);
    reader.Skip(2);
    const WORD nTag = reader.Get<WORD>();
    if (reader.IsBad())
        return IsInDirectory(nDriver) ? NOTIFY_CUT : NOTIFY_STOP;
    const CDriverRef driver = DriverAt(nDriver);
    if (!driver)
        return NOTIFY_STOP;
    int nValue = 0;
    do {
        AwaitFirstValue(*driver.Get(), nTag, pPython);
        nValue = driver->OnDBNotify(nTag, reader.Rest(), pPython);
    } while (nValue == NOTIFY_AWAIT && m_bConnect);
    if (nValue == NOTIFY_AWAIT)
        return NOTIFY_CUT; // the connection has ended
    return nValue > 0 ? nValue + static_cast<int>(DRIVER_HEAD) : nValue;
}

/// The reply of a subscription and the changes come by different connections, so a change may be here before
/// the first value, whose type says how to decode it. The request is bounded by its own time-out.
void CDBCore::AwaitFirstValue(CDBDriver& driver, WORD nTag, CPyThread* pPython)
{
    while (m_bConnect && driver.AwaitsFirstValue(nTag)) {
        if (pPython)
            pPython->EndTurn(); // the request is the script's, which may need the interpreter lock
        std::this_thread::sleep_for(FIRST_VALUE_STEP);
    }
}
