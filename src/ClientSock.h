// A client's two connections to one server: the handshake that opens them, the framing of requests, and the
// local project tree.
//
// Ownership and threads: the object owns both sockets. Requests are made by one thread at a time; another
// thread may read the receive socket, and may end both sockets, meanwhile.
#pragma once

#include "ForkMark.h"
#include "NetCmd.h"
#include "SyncSocket.h"
#include "cstring.h"
#include "mtool3.h"

#include <atomic>
#include <cstddef>
#include <span>
#include <thread>

/// The record of the two registration requests in its plain form; without a relay the open request is the
/// identifier alone:
///
///   offset  size   open request            offset  size   register request
///   0       16     client identifier       0       16     client identifier
///   16      6      gateway address, zeros  16      L + 1  host name, NUL
///   22      n + 1  server name, NUL        17 + L  1      login flag
///                                          18 + L  1      1
struct SNRegReq
{
    static constexpr size_t OFFSET_BODY = sizeof(_GUID);
    static constexpr size_t MAC_SIZE = 6;
    static constexpr size_t MAX_SERVER_NAME = 249; // longer ones do not fit the server's record
    static constexpr size_t MAX_HOST_NAME = 236;
    static constexpr size_t BUFFER_SIZE = 512;
};

#pragma pack(push, 1)
/// The server's registration reply as it lies on the wire behind its '8' (offsets without it). Two
/// NUL-terminated texts follow the fixed part; the first begins at the record's last byte.
struct SNAckRegReq
{
    WORD wServer[5];  //  0  not interpreted
    BYTE bServer0;    // 10  not interpreted
    BYTE bReserve0;   // 11
    DWORD nServer[2]; // 12  not interpreted
    BYTE bServer1;    // 20  not interpreted
    BYTE bFlag;       // 21  16 is stored as 6
    BYTE server[16];  // 22  not interpreted
    DWORD nServer2;   // 38  not interpreted
    DWORD fif_time;   // 42  handed to the caller as it is
    DWORD fif_size;   // 46  handed to the caller as it is
    DWORD dif_time;   // 50  big-endian: time of the driver directory file
    DWORD dif_size;   // 54  big-endian: its size
    char prjName[1];  // 58  project name, then a second text
};
#pragma pack(pop)
static_assert(sizeof(SNAckRegReq) == 59 && offsetof(SNAckRegReq, dif_time) == 50 &&
              offsetof(SNAckRegReq, prjName) == 58);

/// Results of ConnectDB beside 0.
constexpr int CONNECT_FAILED = 1;                                 // network failure or unexpected reply
constexpr int CONNECT_BAD_ADDRESS = static_cast<int>(0x80070057); // relay address without ':'
constexpr int CONNECT_REFUSED = static_cast<int>(0x80004005);     // open refused, or server name too long
constexpr int CONNECT_NOT_AUTHENTICATED = 1244;                   // register refused

/// Where a host text leads.
struct SServerAddr
{
    CString strHost;   // direct: the host; relay: the whole text, which the centre address overrides
    CString strServer; // relay: the server's name
    CString strCenter; // relay: dotted address of the centre
    bool bRelay = false;
    WORD nPort = 0;
    long nTimeOut = 0; // ms, for connecting and for every later request
};

class CClientSock
{
public:
    static constexpr WORD RELAY_PORT = 3968;
    static constexpr int MAX_REDIRECTS = 8;

    CClientSock() = default;
    virtual ~CClientSock() = default;
    CClientSock(const CClientSock&) = delete;
    CClientSock& operator=(const CClientSock&) = delete;

    /// Opens and registers both connections. On success the texts are the project name and the one behind
    /// it. On failure the sockets opened so far stay open until the next ConnectDB or StopSock.
    int ConnectDB(LPCSTR szHost, CString& strPrjName, CString& strTitle, SNAckRegReq& ackRegReq,
                  bool bAccessDB);
    /// Makes the project directory known: the server's own if it runs here, else a mirror that is built.
    bool AfterConnect(LPCSTR szHost, const CString& strPrjName, CString& strErr);
    bool GetPrjPath(CString& strPrj, CString& strEvent, CString& strAlarm, CString& strHist);
    /// Ends both connections. Any thread may.
    void StopSock();
    /// Ends both connections because one of them is of no use any more. Any thread may.
    virtual void EndConnection();
    /// True while a request is under way. Any thread may ask.
    bool IsExchanging() const noexcept { return m_bExchanging; }

    /// Sends one request. Returns nLen, or the failing send's 0 or -1. A send that took only a part is
    /// followed by one of the whole message again.
    int ReqSend(const void* pBuf, int nLen);
    bool ReqRecvAll(void* pBuf, int nLen);

    static int ParseHost(LPCSTR szHost, SServerAddr& addr);
    static bool _IsLocalDB(LPCSTR szHost);
    static void GetGatewayMac(ULONG nIp, std::span<BYTE, SNRegReq::MAC_SIZE> mac);
    /// False for a name that would lead out of its mirror folder.
    static bool IsMirrorName(const CString& strPrjName);

    bool m_bLocalDB = true;
    bool m_bLan = false; // a relayed connection was redirected to the local network; nothing resets it
    CReqTimeSock m_reqSock;
    CScnSocket m_rcvSock;
    CString m_strPrjPath; // ends in '/'
    CString m_strEventPath;
    CString m_strAlarmPath;
    CString m_strHistPath;

private:
    friend class CExchange;
    using Reply = std::array<BYTE, SNRegReq::BUFFER_SIZE>;

    int ConnectAddr(LPCSTR szHost, CString& strPrjName, CString& strTitle, SNAckRegReq& ackRegReq,
                    bool bAccessDB, int nRedirects);
    bool OpenSocket(CScnSocket& sock, const SServerAddr& addr);
    int SendOpen(const SServerAddr& addr, const _GUID& guid, Reply& reply);
    int RecvOpenReply(const SServerAddr& addr, Reply& reply);
    int SendRegister(const _GUID& guid, bool bAccessDB, Reply& reply, UINT& nPlain);
    bool RecvRegisterReply(Reply& reply, UINT& nPlain);
    bool BeginExchange();

    std::atomic<bool> m_bExchanging{false};
    std::atomic<std::thread::id> m_exchangeThread; // meaningful while m_bExchanging
    std::atomic<unsigned> m_nConnection{0};        // counts connections, so that a request knows its own
    int m_nTail = 0; // bytes that the reply before may still bring; see CExchange::Succeed
};

/// One request and its whole reply on the request connection. Replies carry no request id, so a byte that
/// belongs to no request makes the connection useless: what is there before the request is sent, and a reply
/// that was not read to its end, end both connections. A reply has to be whole within 2 T, T being the
/// request socket's time-out.
class CExchange
{
public:
    explicit CExchange(CClientSock& sock);
    ~CExchange();
    CExchange(const CExchange&) = delete;
    CExchange& operator=(const CExchange&) = delete;

    /// False: nothing may be sent. The connection has ended, or was ended and made anew while another
    /// thread's request was awaited; or a signal handler asks something in the middle of the request that it
    /// interrupted, or keeps another thread's request from its end for 2 T.
    bool IsOpen() const noexcept { return m_bOpen; }
    /// The whole reply has been read. Without this call the destructor ends the connection. A few replies
    /// have no known end: up to nTail more bytes that come before the next request are taken for theirs.
    void Succeed(size_t nTail = 0) noexcept
    {
        m_bClean = true;
        m_sock.m_nTail = static_cast<int>(nTail);
    }
    /// For a transfer that sets limits of its own.
    void LiftLimit() noexcept { m_sock.m_reqSock.SetLimit(std::nullopt); }

private:
    CClientSock& m_sock;
    const CForkMark m_fork;
    bool m_bMine = false; // this object has the connection to itself
    bool m_bOpen = false;
    bool m_bClean = false;
};
