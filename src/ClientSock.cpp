// The handshake, step by step, and the request framing; the records' layouts stand in ClientSock.h.
#include "ClientSock.h"

#include "WaitHook.h"
#include "WireReader.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <strings.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr WORD DEFAULT_PORT = 80;
constexpr long DIRECT_TIMEOUT = 8000;
constexpr long RELAY_TIMEOUT = 13000;
constexpr long ENDLESS_TIMEOUT = 0x7FFFFFFF;
constexpr size_t REDIRECT_SIZE = 10;
constexpr UINT MIN_ACK_SIZE = 1 + sizeof(SNAckRegReq);

/// All that an exchange of the handshake may take on one socket, whatever a time-out allows for each receive.
class CLimitScope
{
public:
    CLimitScope(CSyncSocket& sock, long nTimeOut) : m_sock(sock) { m_sock.SetLimit(nTimeOut, 2); }
    ~CLimitScope() { m_sock.SetLimit(std::nullopt); }
    CLimitScope(const CLimitScope&) = delete;
    CLimitScope& operator=(const CLimitScope&) = delete;

private:
    CSyncSocket& m_sock;
};

int ParseDirect(const CString& strHost, SServerAddr& addr)
{
    const auto nColon = strHost.rfind(':');
    addr.nTimeOut = DIRECT_TIMEOUT;
    addr.nPort = DEFAULT_PORT;
    addr.strHost = strHost;
    if (nColon == std::string::npos || nColon == 0)
        return 0;
    const auto nPort = static_cast<WORD>(std::strtol(strHost.c_str() + nColon + 1, nullptr, 10));
    if (nPort != 0)
        addr.nPort = nPort;
    addr.strHost = CString(strHost.substr(0, nColon));
    return 0;
}

int ParseRelay(const CString& strHost, SServerAddr& addr)
{
    addr.bRelay = true;
    const auto nColon = strHost.find(':');
    if (nColon == std::string::npos)
        return CONNECT_BAD_ADDRESS;
    const std::string strPrefix = strHost.substr(0, nColon);
    addr.strServer = CString(strHost.substr(nColon + 1));
    if (addr.strServer.size() > SNRegReq::MAX_SERVER_NAME)
        return CONNECT_REFUSED;
    const auto nOpen = strPrefix.find('(');
    addr.strCenter = RKDB_DEFAULT_CENTER;
    if (nOpen != std::string::npos) {
        addr.strCenter = CString(strPrefix.substr(nOpen + 1));
        addr.strCenter.TrimRight(')');
    }
    addr.strHost = strHost;
    addr.nPort = CClientSock::RELAY_PORT;
    addr.nTimeOut = RELAY_TIMEOUT;
    return 0;
}

/// Scrambles a record behind its command byte and sends both at once.
bool SendScrambled(CSyncSocket& sock, BYTE nCmd, std::span<const BYTE> record)
{
    std::array<BYTE, SNRegReq::BUFFER_SIZE> buf{};
    buf[0] = nCmd;
    const UINT nLen =
        EncryptPacket(static_cast<UINT>(record.size()), record.data(), buf.size() - 1, buf.data() + 1);
    return nLen > 0 && sock._Send(buf.data(), static_cast<int>(1 + nLen), 0) >= 1;
}

void PutGuid(CWireWriter& writer, const _GUID& guid)
{
    writer.Put(guid.Data1);
    writer.Put(guid.Data2);
    writer.Put(guid.Data3);
    writer.PutBytes(guid.Data4, sizeof guid.Data4);
}

CString LocalHostName()
{
    std::array<char, SNRegReq::MAX_HOST_NAME + 1> name{};
    ::gethostname(name.data(), name.size() - 1);
    return CString(name.data());
}

/// True as well for the beginning of a redirect, as long as it is more than the command byte.
bool BeginsRedirect(const SServerAddr& addr, std::span<const BYTE> reply)
{
    constexpr std::string_view word = "lan";
    const size_t nWord = std::min(word.size(), reply.size() - 1);
    return addr.nPort == CClientSock::RELAY_PORT && reply[0] == CMD_OPEN && nWord > 0 &&
           ::strncasecmp(reinterpret_cast<const char*>(reply.data()) + 1, word.data(), nWord) == 0;
}

bool IsRedirect(const SServerAddr& addr, std::span<const BYTE> reply)
{
    return reply.size() >= REDIRECT_SIZE && BeginsRedirect(addr, reply);
}

/// Whether a registration reply is whole, unscrambled: its fixed part and two texts. What begins with another
/// byte is whole at once: it is none.
bool IsWholeAck(std::span<const BYTE> plain)
{
    if (plain[0] != CMD_REGISTER)
        return true;
    CWireReader reader(plain);
    reader.Skip(1 + offsetof(SNAckRegReq, prjName));
    static_cast<void>(reader.Text());
    static_cast<void>(reader.Text());
    return !reader.IsBad();
}

/// Address (network order) and port (network order) behind the four letters of a redirect, as a host text.
CString RedirectHost(std::span<const BYTE> reply)
{
    std::array<char, 32> text{};
    const int nPort = reply[8] << 8 | reply[9];
    std::snprintf(text.data(), text.size(), "%d.%d.%d.%d:%d", reply[4], reply[5], reply[6], reply[7], nPort);
    return CString(text.data());
}

/// The text that begins at an offset of a zero-filled buffer; empty when it would begin behind the end.
CString TextAt(std::span<const BYTE> bytes, size_t nOffset)
{
    if (nOffset >= bytes.size())
        return {};
    const auto* pText = reinterpret_cast<const char*>(bytes.data()) + nOffset;
    return CString(std::string(pText, ::strnlen(pText, bytes.size() - nOffset)));
}

} // namespace

int CClientSock::ParseHost(LPCSTR szHost, SServerAddr& addr)
{
    const CString strHost(szHost);
    return ::strncasecmp(szHost, "p2p", 3) == 0 ? ParseRelay(strHost, addr) : ParseDirect(strHost, addr);
}

bool CClientSock::_IsLocalDB(LPCSTR)
{
    return false; // every server counts as remote, so that the mirror is always built
}

void CClientSock::GetGatewayMac(ULONG, std::span<BYTE, SNRegReq::MAC_SIZE> mac)
{
    std::ranges::fill(mac, BYTE{0});
}

void CClientSock::StopSock()
{
    m_reqSock.m_nCenterIp = 0;
    m_reqSock.Close();
    m_rcvSock.m_nCenterIp = 0;
    m_rcvSock.Close();
}

int CClientSock::ConnectDB(LPCSTR szHost, CString& strPrjName, CString& strTitle, SNAckRegReq& ackRegReq,
                           bool bAccessDB)
{
    return ConnectAddr(szHost, strPrjName, strTitle, ackRegReq, bAccessDB, 0);
}

int CClientSock::ConnectAddr(LPCSTR szHost, CString& strPrjName, CString& strTitle, SNAckRegReq& ackRegReq,
                             bool bAccessDB, int nRedirects)
{
    StopSock();
    ++m_nConnection;
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    m_nTail = 0;
    SServerAddr addr;
    const int nParsed = ParseHost(szHost, addr);
    m_bLocalDB = !addr.bRelay && _IsLocalDB(addr.strHost.c_str());
    if (nParsed != 0)
        return nParsed;
    if (addr.bRelay)
        m_reqSock.m_nCenterIp = m_rcvSock.m_nCenterIp = ::inet_addr(addr.strCenter.c_str());

    _GUID guid{};
    CoCreateGuid(guid);
    Reply reply{};
    const int nReply = SendOpen(addr, guid, reply);
    if (nReply < 1 || reply[0] != CMD_OPEN)
        return nReply >= 1 && reply[0] == CMD_REFUSED ? CONNECT_REFUSED : CONNECT_FAILED;
    if (IsRedirect(addr, std::span(reply).first(static_cast<size_t>(nReply)))) {
        m_bLan = true;
        if (nRedirects >= MAX_REDIRECTS)
            return CONNECT_FAILED;
        std::puts("Is same lan ...");
        std::fflush(stdout);
        return ConnectAddr(RedirectHost(reply).c_str(), strPrjName, strTitle, ackRegReq, bAccessDB,
                           nRedirects + 1);
    }

    ::usleep(0);
    if (!OpenSocket(m_rcvSock, addr))
        return CONNECT_FAILED;
    UINT nPlain = 0;
    if (const int nResult = SendRegister(guid, bAccessDB, reply, nPlain); nResult != 0)
        return nResult;
    m_rcvSock.SetTimeOut(ENDLESS_TIMEOUT);
    ::usleep(0);
    const auto plain = std::span<const BYTE>(reply).first(nPlain);
    std::memcpy(&ackRegReq, plain.data() + 1, sizeof ackRegReq);
    strPrjName = TextAt(plain, 1 + offsetof(SNAckRegReq, prjName));
    strTitle = TextAt(plain, 1 + offsetof(SNAckRegReq, prjName) + strPrjName.size() + 1);
    if (ackRegReq.bFlag == 16)
        ackRegReq.bFlag = 6;
    return 0;
}

bool CClientSock::OpenSocket(CScnSocket& sock, const SServerAddr& addr)
{
    sock.SetConnectTimeOut(addr.nTimeOut);
    if (!sock.Create(0, SOCK_STREAM, nullptr, 0) || !sock._Connect(addr.strHost.c_str(), addr.nPort))
        return false;
    sock.SetTimeOut(addr.nTimeOut);
    return true;
}

/// Returns what the one receive of the reply gave, or 0 when the request could not be made.
int CClientSock::SendOpen(const SServerAddr& addr, const _GUID& guid, Reply& reply)
{
    if (!OpenSocket(m_reqSock, addr))
        return 0;
    const CLimitScope limit(m_reqSock, addr.nTimeOut);
    std::array<BYTE, SNRegReq::BUFFER_SIZE> record{};
    CWireWriter writer(record);
    PutGuid(writer, guid);
    // The port decides, not the way the address was written: a relay centre listens nowhere else.
    if (addr.nPort == RELAY_PORT) {
        std::array<BYTE, SNRegReq::MAC_SIZE> mac{};
        GetGatewayMac(m_reqSock.m_nCenterIp, mac);
        writer.PutBytes(mac.data(), mac.size());
        writer.PutText(addr.strServer);
    }
    if (!SendScrambled(m_reqSock, CMD_OPEN, std::span(record).first(writer.Length())))
        return 0;
    return RecvOpenReply(addr, reply);
}

int CClientSock::RecvOpenReply(const SServerAddr& addr, Reply& reply)
{
    const int nGot = m_reqSock.RecvUntil(reply, [&](std::span<const BYTE> bytes) {
        return !BeginsRedirect(addr, bytes) || IsRedirect(addr, bytes);
    });
    m_nTail = static_cast<int>(reply.size()) - nGot;
    return nGot;
}

int CClientSock::SendRegister(const _GUID& guid, bool bAccessDB, Reply& reply, UINT& nPlain)
{
    std::array<BYTE, SNRegReq::BUFFER_SIZE> record{};
    CWireWriter writer(record);
    PutGuid(writer, guid);
    writer.PutText(LocalHostName());
    writer.Put(static_cast<BYTE>(bAccessDB));
    writer.Put(BYTE{1});
    const CLimitScope limit(m_rcvSock, m_rcvSock.KeptRecvTimeOut());
    if (!SendScrambled(m_rcvSock, CMD_REGISTER, std::span(record).first(writer.Length())))
        return CONNECT_FAILED;
    if (!RecvRegisterReply(reply, nPlain))
        return CONNECT_FAILED;
    if (nPlain < MIN_ACK_SIZE)
        return nPlain == 1 && reply[0] == CMD_REFUSED ? CONNECT_NOT_AUTHENTICATED : CONNECT_FAILED;
    return reply[0] == CMD_REGISTER ? 0 : CONNECT_FAILED;
}

/// The scrambling goes group by group, so that what has come so far can be read as far as it goes; a length
/// that no message has is one whose next byte is on its way.
bool CClientSock::RecvRegisterReply(Reply& reply, UINT& nPlain)
{
    Reply scrambled{};
    bool bWhole = false; // of a reply that fills the buffer and still has no end, nothing is known
    const int nGot = m_rcvSock.RecvUntil(scrambled, [&](std::span<const BYTE> bytes) {
        reply = {};
        nPlain = DecryptPacket(static_cast<UINT>(bytes.size()), bytes.data(), UINT{SNRegReq::BUFFER_SIZE},
                               reply.data());
        bWhole = nPlain > 0 && IsWholeAck(std::span<const BYTE>(reply).first(nPlain));
        return bWhole;
    });
    return nGot > 0 && bWhole;
}

int CClientSock::ReqSend(const void* pBuf, int nLen)
{
    for (int nDone = 0; nDone < nLen;) {
        const int nSent = m_reqSock._Send(pBuf, nLen, 0);
        if (nSent < 1)
            return nSent;
        nDone += nSent;
    }
    return nLen;
}

bool CClientSock::ReqRecvAll(void* pBuf, int nLen)
{
    return m_reqSock.RecvAll(pBuf, nLen, 0);
}

void CClientSock::EndConnection()
{
    m_reqSock.ShutDown();
    m_rcvSock.ShutDown();
    StopSock();
}

/// Threads of a script meet here only while a signal handler of the script runs in the middle of a request.
/// Another thread's request waits until that one is over; one of the handler's own would never be.
/// Nor would it be if the handler waits for that thread: so the wait has an end.
bool CClientSock::BeginExchange()
{
    const auto until = CSyncSocket::FromNow(m_reqSock.KeptRecvTimeOut(), 2);
    while (m_bExchanging.exchange(true)) {
        const auto fnYield = WaitHook().fnYield;
        if (m_exchangeThread.load() == std::this_thread::get_id() || !fnYield ||
            (until && CSyncSocket::Clock::now() > *until))
            return false;
        fnYield();
    }
    m_exchangeThread = std::this_thread::get_id();
    return true;
}

CExchange::CExchange(CClientSock& sock) : m_sock(sock)
{
    const unsigned nConnection = sock.m_nConnection;
    if (!sock.BeginExchange())
        return;
    // While this thread waited, the script may have connected anew, perhaps to another server.
    if (nConnection != sock.m_nConnection) {
        sock.m_bExchanging = false;
        return;
    }
    m_bMine = true;
    CReqTimeSock& req = m_sock.m_reqSock;
    if (const int nTail = std::exchange(m_sock.m_nTail, 0); nTail > 0) {
        CClientSock::Reply tail;
        static_cast<void>(
            req._Recv(tail.data(), std::min(nTail, static_cast<int>(tail.size())), MSG_DONTWAIT));
    }
    m_bOpen = req.IsQuiet();
    req.SetLimit(req.KeptRecvTimeOut(), 2);
}

CExchange::~CExchange()
{
    // In a process that a signal handler has forked off, everything here belongs to the parent.
    if (!m_bMine || m_fork.IsForked())
        return;
    LiftLimit();
    if (!m_bClean)
        m_sock.EndConnection();
    m_sock.m_bExchanging = false;
}
