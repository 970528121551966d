// Connecting, ending, the driver directory and the small requests. The receive thread is in DBCoreRecv.cpp,
// the alarms are in DBCoreAlarm.cpp.
//
// Login request, 256 bytes at most, and its reply:
//
//   offset  size   field               offset  size  field
//   0       1      '9'                 0       1     '9' accepted, '0' refused
//   1       u + 1  user name, NUL      1       4     not examined
//   u + 2   p + 1  password, NUL       5       4     rights word; bit 0x08: may write
#include "DBCore.h"

#include "DownFile.h"
#include "ThreadHelp.h"

#include <array>
#include <bit>
#include <cctype>
#include <chrono>
#include <set>
#include <strings.h>
#include <thread>

namespace {

constexpr size_t LOGIN_SIZE = 256;
constexpr size_t LOGIN_REPLY_SIZE = 9; // more may follow, which says nothing
constexpr size_t NAME_REQUEST_SIZE = 256;
constexpr size_t POSITION_SIZE = 3;
constexpr DWORD EXIT_WAIT_MS = 16000;
constexpr UINT ASK_ALWAYS = 0xFFFFFFFF; // time and size that no local copy has
constexpr const char* DRVINFO_FILE = "RecData/drvinfo.dat";
constexpr const char* DRVINFO_KEY = "recdata/drvinfo.dat";
constexpr auto ALWAYS_SYNCED = std::to_array({"media/", "recdata/", "syscfg/"});

void PauseBetweenSteps()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(6));
}

constexpr DWORD FromBigEndian(DWORD n)
{
    return n << 24 | (n & 0xFF00) << 8 | (n >> 8 & 0xFF00) | n >> 24;
}

/// Every core of the process. Touched under the interpreter lock only.
std::set<CDBCore*>& LiveCores()
{
    static std::set<CDBCore*> cores;
    return cores;
}

/// The interpreter is ending: no connection is made any more. Touched under the interpreter lock only.
bool g_bAllEnded = false;

} // namespace

CDBCore::CDBCore()
{
    LiveCores().insert(this);
}

CDBCore::~CDBCore()
{
    LiveCores().erase(this);
}

void CDBCore::Release()
{
    if (--m_nRefs == 0)
        delete this;
}

EConnect CDBCore::_Connect(const CString& strHost, LPCSTR szUserName, LPCSTR szPassword)
{
    if (IsExchanging() || m_bConnecting)
        return EConnect::Failed;
    if (!_Disconnect())
        return EConnect::Failed; // the old receive thread would take the new connection for its own
    struct SConnecting
    {
        CDBCore& core;
        EConnect eResult = EConnect::Failed;
        ~SConnecting()
        {
            if (eResult != EConnect::Connected) {
                core.StopSock();
                core.ClearDrivers();
            }
            core.m_bConnecting = false;
        }
    };
    m_bConnecting = true;
    SConnecting connecting{*this};
    if (!g_bAllEnded)
        connecting.eResult = OpenConnection(strHost, szUserName, szPassword);
    return connecting.eResult;
}

void CDBCore::EndConnection()
{
    if (!LoseConnection())
        CloseSockets();
}

EConnect CDBCore::OpenConnection(const CString& strHost, LPCSTR szUserName, LPCSTR szPassword)
{
    CString strPrjName;
    CString strTitle;
    SNAckRegReq ack{};
    if (ConnectDB(strHost.c_str(), strPrjName, strTitle, ack, true) != 0)
        return EConnect::Failed;
    PauseBetweenSteps();
    if (strPrjName.empty() || !IsMirrorName(strPrjName))
        return EConnect::Protocol;
    CString strErr;
    if (!AfterConnect(strHost.c_str(), strPrjName, strErr))
        return EConnect::Failed;
    PauseBetweenSteps();
    DWORD nRights = 0;
    if (const EConnect eLogin = Login(szUserName, szPassword, nRights); eLogin != EConnect::Connected)
        return eLogin;
    if (const EConnect eLoad = LoadDrivers(ack); eLoad != EConnect::Connected)
        return eLoad;
    return StartReceiving(nRights);
}

EConnect CDBCore::Login(LPCSTR szUserName, LPCSTR szPassword, DWORD& nRights)
{
    std::array<BYTE, LOGIN_SIZE> request{};
    CWireWriter writer(request);
    writer.Put(CMD_LOGIN);
    writer.PutText(szUserName);
    writer.PutText(szPassword);
    if (writer.IsBad())
        return EConnect::Failed;
    CExchange exchange(*this);
    if (!exchange.IsOpen() || ReqSend(request.data(), static_cast<int>(writer.Length())) <= 0)
        return EConnect::Failed;
    std::array<BYTE, LOGIN_SIZE> reply{};
    const int nGot = m_reqSock.RecvUntil(reply, [](std::span<const BYTE> bytes) {
        return bytes[0] != CMD_LOGIN || bytes.size() >= LOGIN_REPLY_SIZE;
    });
    if (nGot <= 0)
        return EConnect::Failed;
    PauseBetweenSteps();
    CWireReader reader(reply);
    const BYTE nStatus = reader.Get<BYTE>();
    reader.Skip(4);
    nRights = reader.Get<DWORD>();
    if (nStatus != CMD_LOGIN)
        return nStatus == CMD_REFUSED ? EConnect::LoginRefused : EConnect::Protocol;
    exchange.Succeed(reply.size() - static_cast<size_t>(nGot));
    return EConnect::Connected;
}

EConnect CDBCore::LoadDrivers(const SNAckRegReq& ack)
{
    const SNFileInfo info{FromBigEndian(ack.dif_time), FromBigEndian(ack.dif_size)};
    XFile copy;
    if (FetchPrjFile(DRVINFO_FILE, {{CString(DRVINFO_KEY), info}}, &copy) != EDownload::Complete)
        return EConnect::Failed; // also when it came compressed: what is here is another, or none
    std::map<CString, SNDrvInfoEx> mapDrvInfos;
    if (!(copy.IsOpen() ? ReadDrvInfos(copy, mapDrvInfos) : LoadPrjDrvInfo(m_strPrjPath, mapDrvInfos)))
        return EConnect::Failed;
    const CThreadGuard guard(m_lock);
    m_mapDrvInfos = std::move(mapDrvInfos);
    m_pDrivers.assign(m_mapDrvInfos.size(), nullptr);
    return EConnect::Connected;
}

EConnect CDBCore::StartReceiving(DWORD nRights)
{
    m_nRights = nRights;
    m_fork.Renew();
    m_endSeen.reset();
    m_pRecvLink = std::make_shared<CRecvLink>();
    m_bConnect = true;
    if (rkthread_create(RecvThread, this) == 0)
        return EConnect::Connected;
    // Without its thread the connection would never learn of a change nor of its own end.
    m_bConnect = false;
    m_pRecvLink.reset();
    return EConnect::Failed;
}

/// Ends both connections from this side, the receive socket first; whoever waits in a call wakes up.
void CDBCore::CloseSockets()
{
    for (CScnSocket* pSock : {&m_rcvSock, static_cast<CScnSocket*>(&m_reqSock)}) {
        pSock->ShutDown();
        pSock->m_nCenterIp = 0;
        pSock->Close();
    }
}

bool CDBCore::LetReceiveThreadGo()
{
    if (m_pRecvLink && !m_pRecvLink->LetGo(EXIT_WAIT_MS))
        return false;
    m_pRecvLink.reset();
    return true;
}

bool CDBCore::_Disconnect()
{
    if (m_bConnect.exchange(false))
        CloseSockets();
    const bool bParted = LetReceiveThreadGo();
    ClearDrivers();
    if (!bParted)
        return false;
    decltype(m_retired) retired;
    {
        const CThreadGuard guard(m_lock);
        retired.swap(m_retired);
    }
    for (const auto& [strName, info] : retired)
        info.pDriver->ForgetNotify();
    return true;
}

void CDBCore::ClearDrivers()
{
    const CThreadGuard guard(m_lock);
    for (auto it = m_mapDrvInfos.begin(); it != m_mapDrvInfos.end();) {
        const auto entry = it++;
        if (!entry->second.pDriver)
            continue;
        entry->second.pDriver->Detach();
        m_retired.insert(m_mapDrvInfos.extract(entry)); // needs no memory: there may be none
    }
    m_mapDrvInfos.clear();
    m_pDrivers.assign(m_pDrivers.size(), nullptr);
}

int CDBCore::GetPrjFile(const char* szFile, const std::map<CString, SNFileInfo>& mapFiles)
{
    return FetchPrjFile(szFile, mapFiles, nullptr) == EDownload::Failed ? 0 : 1;
}

EDownload CDBCore::FetchPrjFile(const char* szFile, const std::map<CString, SNFileInfo>& mapFiles,
                                XFile* pCopy)
{
    if (m_bLocalDB)
        return EDownload::Complete;
    CString strKey(szFile);
    for (char& ch : strKey)
        ch = static_cast<char>(static_cast<BYTE>(ch) < 0x80 ? std::tolower(ch) : ch);
    SNFileInfo info{ASK_ALWAYS, ASK_ALWAYS};
    const auto it = mapFiles.find(strKey);
    const auto begins = [&](const char* szFolder) { return strKey.rfind(szFolder, 0) == 0; };
    if (it != mapFiles.end()) {
        info = it->second;
    } else if (std::ranges::none_of(ALWAYS_SYNCED, begins)) {
        CString strUtf8;
        CString(m_strPrjPath + szFile).ToUtf8(strUtf8);
        RemoveMirrorFile(strUtf8);
        return EDownload::Complete;
    }
    CExchange exchange(*this);
    if (!exchange.IsOpen())
        return EDownload::Failed;
    exchange.LiftLimit();
    const auto eResult = DownloadFile(szFile, m_reqSock, static_cast<char>(CMD_DOWNLOAD),
                                      m_strPrjPath.c_str(), info.time, info.size, nullptr, nullptr, pCopy);
    if (eResult != EDownload::Failed)
        exchange.Succeed();
    return eResult;
}

CDBDriver* CDBCore::_GetDriver(const char* szName)
{
    const CThreadGuard guard(m_lock);
    const auto it = m_mapDrvInfos.find(CString(szName));
    if (it == m_mapDrvInfos.end())
        return nullptr;
    SNDrvInfoEx& info = it->second;
    if (info.pDriver)
        return info.pDriver.Get();
    // Ids come from a file; one beyond the table would name no slot.
    if (info.id >= m_pDrivers.size())
        return nullptr;
    CDriverRef driver(new CDBDriver(*this, info.id, it->first));
    driver->SetTagCount(info.tagNum);
    info.pDriver = std::move(driver);
    m_pDrivers[info.id] = info.pDriver.Get();
    return info.pDriver.Get();
}

int CDBCore::RequestAll(const void* szReq, int nReqLen, int needLen, void* buf)
{
    CExchange exchange(*this);
    if (!exchange.IsOpen() || !m_reqSock.SendAll(szReq, nReqLen, 0) || !m_reqSock.RecvAll(buf, needLen, 0))
        return 0;
    // A refusal has the same length: behind it the connection is in order.
    exchange.Succeed();
    return needLen < 1 || *static_cast<const BYTE*>(buf) == *static_cast<const BYTE*>(szReq);
}

int CDBCore::GetTagId(WORD drvId, const char* tagName, WORD* pTagId)
{
    if (!m_bConnect)
        return 0;
    std::array<BYTE, NAME_REQUEST_SIZE> request{};
    CWireWriter writer(request);
    writer.Put(CMD_GET_POS);
    writer.Put(drvId);
    writer.PutText(tagName);
    std::array<BYTE, SHORT_REPLY_SIZE> reply{};
    if (writer.IsBad() || !AskShort(std::span(request).first(writer.Length()), POSITION_SIZE, reply))
        return 0;
    CWireReader reader(std::span<const BYTE>(reply).subspan(1));
    *pTagId = reader.Get<WORD>();
    return 1;
}

int CDBCore::UnadviseTag(int64_t id)
{
    std::array<BYTE, 9> request{};
    CWireWriter writer(request);
    writer.Put(CMD_UNADVISE);
    writer.Put(static_cast<uint64_t>(id));
    std::array<BYTE, SHORT_REPLY_SIZE> reply{};
    return AskShort(request, 1, reply);
}

/// Sends a request whose reply begins with its command byte, has nLeast bytes and may have more.
bool CDBCore::AskShort(std::span<const BYTE> request, size_t nLeast, std::span<BYTE, SHORT_REPLY_SIZE> reply)
{
    CExchange exchange(*this);
    if (!exchange.IsOpen() || m_reqSock._Send(request.data(), static_cast<int>(request.size()), 0) < 1)
        return false;
    const int nGot = m_reqSock.RecvUntil(
        reply, [&](std::span<const BYTE> bytes) { return bytes[0] != request[0] || bytes.size() >= nLeast; });
    if (nGot < 1 || reply[0] != request[0])
        return false;
    exchange.Succeed(reply.size() - static_cast<size_t>(nGot));
    return true;
}

void CDBCore::KeepCallback(std::shared_ptr<CPyCallback> pFn)
{
    // Drivers of connections that ended take their registrations with them. A callable that goes may run code
    // of the script, which may come back here.
    std::vector<std::shared_ptr<CPyCallback>> gone;
    for (auto& pCallback : m_callbacks) {
        if (pCallback.use_count() == 1)
            gone.push_back(std::move(pCallback));
    }
    std::erase(m_callbacks, nullptr);
    m_callbacks.push_back(std::move(pFn));
}

void CDBCore::AbandonForked()
{
    LiveCores().erase(this);
    m_rcvSock.CloseForked();
    m_reqSock.CloseForked();
    m_callbacks.clear();
}

void CDBCore::EndAll()
{
    g_bAllEnded = true;
    std::erase_if(LiveCores(), [](const CDBCore* pCore) { return pCore->IsForked(); });
    // All are told before any is waited for: their threads end side by side.
    for (CDBCore* pCore : LiveCores()) {
        if (pCore->m_bConnect.exchange(false))
            pCore->CloseSockets();
    }
    for (CDBCore* pCore : LiveCores())
        pCore->_Disconnect();
}
