// One connection to the database server: connecting and ending, the receive thread, the driver directory, the
// alarms, and the small requests that drivers share.
//
// Threads: scripts call under the interpreter lock. One receive thread a connection runs DoRecv; it and the
// core share a CRecvLink, and the core is never freed while the thread may touch it. m_lock guards the slot
// table, the directory and the alarm receiver; it is never held while the interpreter lock is awaited.
#pragma once

#include "ClientSock.h"
#include "DBDriver.h"
#include "DownFile.h"
#include "DrvInfo.h"
#include "HeldAlarms.h"
#include "NotifyWalk.h"
#include "RecvBuffer.h"
#include "RtAlarm.h"

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <vector>

struct SNDrvInfoEx : SNDrvInfo
{
    CDriverRef pDriver; // made on first use; null until then
};

/// Results of Connect.
enum class EConnect : int
{
    Connected = 0,
    LoginRefused = -1,
    Failed = -2,   // handshake, transfer or project file
    Protocol = -3, // no usable project name, or a login reply that is none
};

using CStringList = std::vector<CString>; // UTF-8 entries
using StringListPtr = std::shared_ptr<const CStringList>;

/// Who is told of alarms, and the lists that their indices refer to. Never changed once made, so the receive
/// thread can use it while the core goes away.
struct SAlarmReceiver
{
    std::shared_ptr<CPyCallback> pFn;
    StringListPtr textList;
    StringListPtr tagList;
};

class CDBCore : public CClientSock
{
public:
    static constexpr DWORD WRITE_RIGHT = 0x08;

    CDBCore();
    ~CDBCore() override;
    CDBCore(const CDBCore&) = delete;
    CDBCore& operator=(const CDBCore&) = delete;

    /// The script's object holds one reference, every call that may run code of a script another: such code
    /// may drop the object in the middle of the call. Interpreter lock held.
    void AddRef() noexcept { ++m_nRefs; }
    void Release();

    /// Ends an existing connection, then makes a new one. Fails at once in the middle of another call.
    EConnect _Connect(const CString& strHost, LPCSTR szUserName, LPCSTR szPassword);
    /// Ends the connection. False when the receive thread could not be parted from this core, which must then
    /// stay in memory.
    bool _Disconnect();
    bool IsConnected() const noexcept { return m_bConnect; }
    /// True while _Connect runs: code of the script that runs meanwhile cannot use this object.
    bool IsConnecting() const noexcept { return m_bConnecting; }
    /// Ends the connection as a loss does.
    void EndConnection() override;

    /// The receive thread's whole body.
    void DoRecv();
    static void* RecvThread(void* pParam);
    /// One notification at the start of bytes: its length, or one of the NOTIFY_ values.
    int OnDBNotify(std::span<const BYTE> bytes, CPyThread* pPython);
    /// Detaches and lets go of all drivers and nulls the slot table. Their memory stays until the script
    /// connects or disconnects: it may be using one right now.
    void ClearDrivers();

    /// Brings the local copy of a project file up to date: 1 when it is as the server wants it, else 0. The
    /// map holds what the server lists, by lower-case name.
    int GetPrjFile(const char* szFile, const std::map<CString, SNFileInfo>& mapFiles);
    /// The same with the download's own result and, when that is complete, the copy that it found right.
    EDownload FetchPrjFile(const char* szFile, const std::map<CString, SNFileInfo>& mapFiles, XFile* pCopy);
    /// The driver of that GB2312 name, made on first use and owned here; null when there is none.
    CDBDriver* _GetDriver(const char* szName);

    /// Sends a request and reads a reply of exactly needLen bytes, a refusal too. 1 if it echoes the command
    /// byte, else 0.
    int RequestAll(const void* szReq, int nReqLen, int needLen, void* buf);
    /// One name's position: 1 found, 0 not (pTagId untouched).
    int GetTagId(WORD drvId, const char* tagName, WORD* pTagId);
    int UnadviseTag(int64_t id);

    /// 0 registered, -1 there is a receiver already, -2 the request failed.
    int _SetRtAlarmNotify(PyObject* rtAlarmNotifyFn, bool notifyExisting);
    /// Keeps a callable for this core's life. Interpreter lock held.
    void KeepCallback(std::shared_ptr<CPyCallback> pFn);

    /// True in a process that a fork has copied a live connection into.
    bool IsForked() const noexcept { return m_pRecvLink && m_fork.IsForked(); }
    /// For such a copy: closes its descriptors and lets go of its callables, in silence and without a lock.
    /// The object must then be left as it is.
    void AbandonForked();

    /// Ends every connection of the process and lets its threads go: the interpreter is about to end.
    static void EndAll();
    /// Receive threads that have not ended yet, of all cores.
    static int CountThreads() noexcept;

    DWORD m_nRights = 0;     // the user's rights, as the login reply gave them
    bool m_bLocalDB = false; // project files are fetched unless this is set; nothing sets it

private:
    friend class CDBCoreTest; // unit tests put in drivers and replies without a server

    /// How the walk of a receive ended.
    enum class EWalk
    {
        Walked,
        Lost, // the rest of a notification does not come
        Gone, // the core has gone meanwhile and must not be touched
    };

    static constexpr size_t SHORT_REPLY_SIZE = 16;

    bool AskShort(std::span<const BYTE> request, size_t nLeast, std::span<BYTE, SHORT_REPLY_SIZE> reply);
    EConnect OpenConnection(const CString& strHost, LPCSTR szUserName, LPCSTR szPassword);
    EConnect Login(LPCSTR szUserName, LPCSTR szPassword, DWORD& nRights);
    EConnect LoadDrivers(const SNAckRegReq& ack);
    EConnect StartReceiving(DWORD nRights);
    void CloseSockets();
    bool LetReceiveThreadGo();
    bool IsInDirectory(WORD nDriver);
    bool HasTag(WORD nDriver, WORD nTag);
    CDriverRef DriverAt(WORD nDriver);
    int OnDriverNotify(WORD nDriver, std::span<const BYTE> bytes, CPyThread* pPython);
    int OnAlarm(std::span<const BYTE> record, CPyThread* pPython);
    bool Deliver(const std::shared_ptr<const SAlarmReceiver>& pReceiver,
                 const std::vector<S2RtAlarm2>& alarms);
    std::shared_ptr<CPyCallback> Register(PyObject* rtAlarmNotifyFn, bool notifyExisting, size_t& nSkipped);
    bool AttachReceiver(const std::shared_ptr<const SAlarmReceiver>& pReceiver, size_t& nSkipped);
    EWalk WalkReceive(CRecvBuffer& buffer, CPyThread& python);
    bool Receive(CRecvBuffer& buffer);
    bool HasRequestEnded();
    bool AwaitReceive(long nMs);
    void AwaitFirstValue(CDBDriver& driver, WORD nTag, CPyThread* pPython);
    bool LoseConnection();
    bool ReadActiveAlarms(std::vector<S2RtAlarm2>& alarms);
    StringListPtr LoadStringList(const char* szFile);

    CForkMark m_fork;
    CSyncSocket::Clock::time_point m_nextLook{};             // receive thread, both
    std::optional<CSyncSocket::Clock::time_point> m_endSeen; // of the request connection
    int m_nRefs = 1;                                         // interpreter lock
    bool m_bConnecting = false;                              // interpreter lock
    std::atomic<bool> m_bConnect{false};                     // also the receive thread's run flag
    std::shared_ptr<CRecvLink> m_pRecvLink;
    StringListPtr m_textList; // null: not loaded
    StringListPtr m_tagList;
    std::vector<std::shared_ptr<CPyCallback>> m_callbacks; // interpreter lock

    CThreadLock m_lock;
    std::vector<CDBDriver*> m_pDrivers RK_GUARDED_BY(m_lock);            // by driver id; null: not made
    std::map<CString, SNDrvInfoEx> m_mapDrvInfos RK_GUARDED_BY(m_lock);  // by name
    std::multimap<CString, SNDrvInfoEx> m_retired RK_GUARDED_BY(m_lock); // drivers of connections that ended
    std::shared_ptr<const SAlarmReceiver> m_rtAlarmNotifyFn RK_GUARDED_BY(m_lock);
    CHeldAlarms m_held RK_GUARDED_BY(m_lock);
};

/// One counted reference to a core; made and destroyed under the interpreter lock.
class CCoreRef
{
public:
    explicit CCoreRef(CDBCore* p) noexcept : m_p(p)
    {
        if (m_p)
            m_p->AddRef();
    }
    ~CCoreRef()
    {
        if (m_p)
            m_p->Release();
    }
    CCoreRef(const CCoreRef&) = delete;
    CCoreRef& operator=(const CCoreRef&) = delete;

    CDBCore& operator*() const noexcept { return *m_p; }
    CDBCore* operator->() const noexcept { return m_p; }
    explicit operator bool() const noexcept { return m_p != nullptr; }

private:
    CDBCore* const m_p;
};

/// Appends the entries of a list file to strList, as UTF-8; entries beyond 65,536 are left out. Empty lines
/// are no entries.
void ReadStringList(XFile& file, CStringList& strList);
/// The same for the file of that path, unless strList has entries.
void InitStringList(const CString& strStrListPath, CStringList& strList);
/// Calls a script for one alarm. Interpreter lock held.
void FireRtAlarm(CPyCallback& rtAlarmNotifyFn, const S2RtAlarm2& alarm, const CStringList& textList,
                 const CStringList& tagList);
