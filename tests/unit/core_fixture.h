// What the tests of the module floor share: bytes as literals, the far end of a connection, an interpreter,
// and a core whose two sockets lead to far ends that the test holds.
//
// The interpreter is started once and never ended: what a test loses of the interpreter's objects is then
// unreachable and the leak checker reports it, and nothing else is. A test begins with the interpreter lock
// held; COthersRun lets it go for a scope. Far ends need no lock: they play in threads of their own while the
// test waits inside a request.
#pragma once

#include "DBCore.h"
#include "rkdb.h"
#include "temp_dir.h"

#include <bit>
#include <chrono>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// Thread sanitizer builds play the same storms with fewer changes: each access costs ten times as much there.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif
#else
constexpr bool SANITIZED = false;
#endif

using Bytes = std::vector<BYTE>;

// Fields as they lie on the wire, written down without the code under test: little-endian, texts with their
// NUL.

Bytes Little(uint64_t n, size_t nSize);
inline Bytes U8(unsigned n)
{
    return Little(n, 1);
}
inline Bytes U16(unsigned n)
{
    return Little(n, 2);
}
inline Bytes U32(uint64_t n)
{
    return Little(n, 4);
}
inline Bytes U64(uint64_t n)
{
    return Little(n, 8);
}
inline Bytes F32(float value)
{
    return U32(std::bit_cast<uint32_t>(value));
}
inline Bytes F64(double value)
{
    return U64(std::bit_cast<uint64_t>(value));
}
Bytes BigU32(uint64_t n);
Bytes Text(std::string_view text);
Bytes Raw(std::string_view text);
Bytes operator+(Bytes left, const Bytes& right);
Bytes operator*(const Bytes& part, size_t nTimes);
/// A value with its type word.
inline Bytes Typed(VARTYPE vt, const Bytes& payload)
{
    return U16(vt) + payload;
}
/// A change of one tag.
inline Bytes Change(WORD nDriver, WORD nTag, const Bytes& payload)
{
    return U16(nDriver) + U16(nTag) + payload;
}
std::string Hex(std::span<const BYTE> bytes);

/// What this process has open.
size_t CountDescriptors();
/// Bytes that one receive could have now.
size_t Pending(const CSyncSocket& sock);
/// Waits until there are exactly so many.
bool WaitPending(const CSyncSocket& sock, size_t nLen);

/// The end of a connection that a server would hold. Everything it awaits is bounded; what goes wrong fails
/// the test. One thread at a time.
class CFarEnd
{
public:
    CFarEnd() = default;
    ~CFarEnd() { Close(); }
    CFarEnd(CFarEnd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    CFarEnd& operator=(CFarEnd&& other) noexcept;

    /// Connects a socket of ours over loopback.
    static CFarEnd Meet(CSyncSocket& sock);
    explicit CFarEnd(int fd) noexcept : m_fd(fd) {}

    /// False when the client has gone; whether it may is for the test to say.
    bool Send(const Bytes& bytes);
    /// The next bytes must be these.
    void Want(const Bytes& bytes);
    Bytes Take(size_t nLen);
    /// Text up to and with its end.
    std::string TakeUntil(std::string_view end);
    /// The other side must end the connection, with no byte before.
    void WantEnd();
    /// True when nothing has come in that no Want() has taken.
    bool IsSilent() const;
    /// The other side sees the end of the stream, and this one still what comes.
    void EndSending();
    void Close();

private:
    int m_fd = -1;
};

/// A far end's part of a dialogue, played beside the test for one scope.
class CPlay
{
public:
    explicit CPlay(std::function<void()> fn) : m_thread(std::move(fn)) {}
    ~CPlay() { Join(); }
    CPlay(const CPlay&) = delete;
    CPlay& operator=(const CPlay&) = delete;
    void Join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    std::thread m_thread;
};

/// Other threads may have the interpreter for this scope.
class COthersRun
{
public:
    COthersRun() : m_pState(PyEval_SaveThread()) {}
    ~COthersRun() { PyEval_RestoreThread(m_pState); }
    COthersRun(const COthersRun&) = delete;
    COthersRun& operator=(const COthersRun&) = delete;

private:
    PyThreadState* m_pState;
};

/// Awaits a state that another thread brings about; false when it does not within half a minute. The
/// interpreter lock stays where it is.
bool WaitUntil(const std::function<bool()>& fn);
/// The same while other threads may run; the condition is asked under the interpreter lock.
bool WaitWhileOthersRun(const std::function<bool()>& fn);

/// A callable of the interpreter made of a function of ours, which gets the arguments' tuple and gives a new
/// reference, or null with an exception set.
CPyRef MakeCallable(std::function<PyObject*(PyObject*)> fn);
inline PyObject* None()
{
    return NewPyRef(Py_None).release();
}
/// repr() of an object, or "<null>".
std::string Repr(PyObject* p);
std::string Repr(const CPyRef& p);

/// A name space with Python code of the test's own.
class CPyScope
{
public:
    CPyScope();
    explicit CPyScope(const char* szCode) : CPyScope() { Run(szCode); }
    void Run(const char* szCode);
    /// The value of an expression; null fails the test.
    CPyRef Eval(const char* szExpression);
    std::string Show(const char* szExpression) { return Repr(Eval(szExpression)); }

private:
    CPyRef m_globals;
};

/// Collects what would go to sys.unraisablehook: (exception type's name, message, object) each.
class CUnraisable
{
public:
    CUnraisable();
    ~CUnraisable();
    CUnraisable(const CUnraisable&) = delete;
    CUnraisable& operator=(const CUnraisable&) = delete;
    size_t Count();
    std::string Show(const char* szExpression) { return m_scope.Show(szExpression); }
    bool IsObject(size_t nIndex, PyObject* p);

private:
    CPyScope m_scope;
};

struct STagSpec
{
    const char* szName;
    WORD nPos;
    Bytes typed; // type word and payload of its first value
};

/// A core of its own for each test. Also the only friend that CDBCore has: what a test needs of its inside
/// goes through here.
class CDBCoreTest : public ::testing::Test
{
protected:
    void SetUp() override;
    /// A test must leave no thread, no descriptor and no exception behind.
    void TearDown() override;

    CDBCore& Core() { return *m_pCore; }
    void DeleteCore();
    /// A fresh core and fresh far ends for the next row of a test.
    void Renew()
    {
        TearDown();
        SetUp();
    }
    /// Both connections have ended and no driver is left, as after any loss.
    void ExpectEnded();

    /// Connects both sockets to m_req and m_rcv.
    void Attach(long nTimeOut = 5000);
    /// For replies that are cut: half a second for a rest that never comes.
    void AwaitRestsBriefly() { Core().m_reqSock.SetTimeOut(500); }
    /// Gives the core a directory of its own for the project's files, with these folders.
    void UseProjectDir(std::initializer_list<const char*> folders);
    std::filesystem::path ProjectDir() const { return m_projectDir.value().Path(); }
    /// Puts a driver into the directory, and slots for all ids into the table.
    void AddDriver(const char* szName, WORD nId, WORD nTags);
    /// Names of drivers whose entries are in the directory; the table has nSlots null slots.
    void SetSlots(size_t nSlots);
    size_t CountSlots();
    bool HasDriverAt(size_t nSlot);
    size_t CountDirectory();
    size_t CountRetired();
    bool HasAlarmReceiver();
    /// Alarms kept for a registration that is under way.
    size_t CountHeld();
    /// As after a login: rights are known and requests are allowed, but no thread runs.
    void SetConnected(DWORD nRights = CDBCore::WRITE_RIGHT);
    /// Starts the receive thread.
    void StartReceiving(DWORD nRights = CDBCore::WRITE_RIGHT);
    EConnect Login(LPCSTR szUser, LPCSTR szPassword, DWORD& nRights);
    /// Keeps a receiver of alarms as a registration would, with these lists.
    void SetAlarmReceiver(PyObject* pFn, const CStringList& texts, const CStringList& tags);
    /// How long the rest of a notification may take in walks of tests.
    static constexpr long REST_MS = 500;
    /// Walks what a receive has given, as the receive thread would, but on this one. False: not to its end.
    bool Walk(CRecvBuffer& buffer);
    /// One receive of m_rcvSock and its walk.
    bool WalkOnce();
    int Notify(const Bytes& bytes) { return Core().OnDBNotify(bytes, nullptr); }
    /// Receive threads of all cores have ended.
    bool WaitForThreads();

    /// Makes names known, by one lookup request.
    void Learn(CDBDriver& driver, const std::vector<STagSpec>& tags);
    /// Learns the names of tags and subscribes them.
    void Subscribe(CDBDriver& driver, const std::vector<STagSpec>& tags);
    /// repr() of what a script would get. For a subscribed tag that is what the driver has stored.
    static std::string Read(CDBDriver& driver, const char* szTags)
    {
        return Repr(CPyRef(driver.GetTagValue(szTags)));
    }

    CDBCore* m_pCore = nullptr;
    CFarEnd m_req;
    CFarEnd m_rcv;

private:
    size_t m_nDescriptors = 0;
    std::optional<CTempDir> m_projectDir;
};

/// A core with two drivers behind attached sockets: "A" (id 0, 8 tags) and "B" (id 1, 2000 tags).
class CDriverTest : public CDBCoreTest
{
protected:
    void SetUp() override;

    CDBDriver* m_pA = nullptr;
    CDBDriver* m_pB = nullptr;
};

/// A server for whole connections: takes both connections of a client and says what the test wants.
class CServer
{
public:
    CServer();
    ~CServer();
    CServer(const CServer&) = delete;
    CServer& operator=(const CServer&) = delete;

    /// "127.0.0.1:port".
    std::string Host() const;
    /// Where a client keeps its copy of this server's project, ending in '/'.
    std::string Mirror(const char* szProject = "unitcore") const;
    /// Takes a connection and refuses its open request.
    void Refuse();
    /// Opens and registers; leaves the connections in req and rcv.
    void Handshake(const char* szProject = "unitcore", UINT nFileTime = 0, UINT nFileSize = 0);
    void Login(DWORD nRights = CDBCore::WRITE_RIGHT);
    /// Answers the request for a file, which must be for this one.
    void Download(const char* szFile, const Bytes& body, UINT nTime);
    /// Handshake, login and a directory of drivers: a whole connect.
    void Welcome(const Bytes& directory, DWORD nRights = CDBCore::WRITE_RIGHT);

    CFarEnd req;
    CFarEnd rcv;

private:
    CFarEnd Accept();
    void RemoveMirror() const;

    unsigned m_nPort = 0;
    int m_fd = -1;
};

/// One record of the driver directory.
inline Bytes DrvRecord(std::string_view name, WORD nId, WORD nTags)
{
    return Text(name) + U16(nId) + U16(nTags);
}
