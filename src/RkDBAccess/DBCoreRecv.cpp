// The receive thread: reads the notification stream and hands each notification to its receiver.
#include "DBCore.h"

#include <chrono>
#include <cxxabi.h>
#include <pthread.h>
#include <thread>

namespace {

constexpr auto PAUSE_BEFORE_END = std::chrono::milliseconds(60);
constexpr size_t DRIVER_HEAD = 4; // driver id and tag position

/// How long a change of a tag without a value waits for the subscription that will bring one. The reply and
/// the changes come by different connections, so a change may be here first.
constexpr auto FIRST_VALUE_WAIT = std::chrono::milliseconds(500);
constexpr auto FIRST_VALUE_STEP = std::chrono::milliseconds(1);

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
        CRecvBuffer buffer;
        while (m_bConnect) {
            if (buffer.Fill(m_rcvSock) > 0) {
                if (!WalkReceive(buffer, python))
                    return;
                python.EndTurn();
                continue;
            }
            if (LoseConnection())
                return;
        }
    } catch (const std::exception&) {
        // No memory for a value: with that change passed over in silence the script would see a wrong one.
        if (pLink->OwnsCore())
            LoseConnection();
        return;
    }
    std::this_thread::sleep_for(PAUSE_BEFORE_END);
}

/// The connection has ended without the script's doing. False: the script was first.
bool CDBCore::LoseConnection()
{
    if (!m_bConnect.exchange(false))
        return false;
    m_reqSock.ShutDown();
    m_rcvSock.ShutDown();
    StopSock();
    ClearDrivers();
    return true;
}

/// Walks one receive. False: the core has gone meanwhile and must not be touched.
bool CDBCore::WalkReceive(CRecvBuffer& buffer, CPyThread& python)
{
    for (;;) {
        while (!buffer.IsWalked()) {
            const int nLen = OnDBNotify(buffer.Unwalked(), &python);
            if (nLen == NOTIFY_LEAVE)
                return false;
            if (nLen == NOTIFY_CUT)
                break;
            buffer.Skip(static_cast<size_t>(nLen));
        }
        if (buffer.IsWalked())
            return true;
        python.EndTurn(); // the network is awaited without the interpreter lock
        if (!m_bConnect || !buffer.More(m_rcvSock))
            return true;
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
    if (nLen <= 0 || nLen == NOTIFY_STOP)
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

bool CDBCore::HasTag(WORD nDriver, WORD nTag)
{
    const CDriverRef driver = DriverAt(nDriver);
    return driver && nTag < driver->GetTagCount();
}

int CDBCore::OnDriverNotify(WORD nDriver, std::span<const BYTE> bytes, CPyThread* pPython)
{
    const CDriverRef driver = DriverAt(nDriver);
    if (!driver)
        return NOTIFY_STOP;
    CWireReader reader(bytes);
    reader.Skip(2);
    const WORD nTag = reader.Get<WORD>();
    if (reader.IsBad())
        return NOTIFY_CUT;
    for (auto waited = FIRST_VALUE_STEP;
         waited < FIRST_VALUE_WAIT && m_bConnect && driver->AwaitsFirstValue(nTag);
         waited += FIRST_VALUE_STEP)
        std::this_thread::sleep_for(FIRST_VALUE_STEP);
    const int nValue = driver->OnDBNotify(nTag, reader.Rest(), pPython);
    return nValue > 0 ? nValue + static_cast<int>(DRIVER_HEAD) : nValue;
}
