// See core_fixture.h.
#include "core_fixture.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <filesystem>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int FAR_WAIT_MS = 20000; // how long a far end waits for a byte before the test has failed
constexpr auto STATE_WAIT = std::chrono::seconds(30);
constexpr auto STEP = std::chrono::milliseconds(1);
constexpr size_t OPEN_RECORD = 16; // bytes of the open request before they are scrambled

bool WaitReadable(int fd, int nMs)
{
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, nMs) == 1;
}

int ListenOnLoopback(unsigned& nPort)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nLen = sizeof addr;
    auto* pAddr = reinterpret_cast<sockaddr*>(&addr);
    EXPECT_EQ(::bind(fd, pAddr, sizeof addr), 0);
    EXPECT_EQ(::listen(fd, 4), 0);
    EXPECT_EQ(::getsockname(fd, pAddr, &nLen), 0);
    nPort = ntohs(addr.sin_port);
    return fd;
}

int AcceptOne(int fdListen)
{
    EXPECT_TRUE(WaitReadable(fdListen, FAR_WAIT_MS)) << "nobody connects";
    const int fd = ::accept4(fdListen, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_GE(fd, 0);
    const int nOn = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn);
    return fd;
}

/// The handshake's scrambling with always the same random byte, written down a second time.
Bytes Scramble(const Bytes& plain)
{
    constexpr BYTE u = 0x5A;
    Bytes out;
    for (size_t i = 0; i < plain.size(); ++i) {
        if (i % 3 == 0) {
            out.push_back(u);
            out.push_back(static_cast<BYTE>(plain[i] + u));
        } else {
            out.push_back(static_cast<BYTE>(i % 3 == 1 ? plain[i] - u : plain[i] ^ u));
        }
    }
    return out;
}

size_t ScrambledSize(size_t nPlain)
{
    return nPlain / 3 * 4 + (nPlain % 3 ? nPlain % 3 + 1 : 0);
}

void TakeScrambled(CFarEnd& far, BYTE nCmd, size_t nPlain)
{
    const Bytes request = far.Take(1 + ScrambledSize(nPlain));
    EXPECT_TRUE(!request.empty() && request[0] == nCmd) << Hex(request);
}

PyObject* CallHeld(PyObject* pSelf, PyObject* pArgs)
{
    auto* pFn = static_cast<std::function<PyObject*(PyObject*)>*>(PyCapsule_GetPointer(pSelf, nullptr));
    return (*pFn)(pArgs);
}

void FreeHeld(PyObject* pCapsule)
{
    delete static_cast<std::function<PyObject*(PyObject*)>*>(PyCapsule_GetPointer(pCapsule, nullptr));
}

PyMethodDef g_callHeld = {"callback", CallHeld, METH_VARARGS, nullptr};

} // namespace

Bytes Little(uint64_t n, size_t nSize)
{
    Bytes bytes;
    for (size_t i = 0; i < nSize; ++i)
        bytes.push_back(static_cast<BYTE>(n >> (8 * i)));
    return bytes;
}

Bytes BigU32(uint64_t n)
{
    const Bytes little = U32(n);
    return Bytes(little.rbegin(), little.rend());
}
Bytes Raw(std::string_view text)
{
    return Bytes(text.begin(), text.end());
}
Bytes Text(std::string_view text)
{
    return Raw(text) + U8(0);
}
Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
Bytes operator*(const Bytes& part, size_t nTimes)
{
    Bytes all;
    all.reserve(part.size() * nTimes);
    for (size_t i = 0; i < nTimes; ++i)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

std::string Hex(std::span<const BYTE> bytes)
{
    std::string strHex = std::to_string(bytes.size()) + " bytes:";
    for (const BYTE n : bytes.first(std::min<size_t>(bytes.size(), 64))) {
        strHex += ' ';
        strHex += "0123456789abcdef"[n >> 4];
        strHex += "0123456789abcdef"[n & 15];
    }
    return strHex;
}

size_t Pending(const CSyncSocket& sock)
{
    int nLen = 0;
    EXPECT_EQ(::ioctl(sock.GetHandle(), FIONREAD, &nLen), 0);
    return static_cast<size_t>(nLen);
}

size_t CountDescriptors()
{
    const auto all = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

bool WaitPending(const CSyncSocket& sock, size_t nLen)
{
    return WaitUntil([&] { return Pending(sock) == nLen; });
}

CFarEnd& CFarEnd::operator=(CFarEnd&& other) noexcept
{
    std::swap(m_fd, other.m_fd);
    return *this;
}

CFarEnd CFarEnd::Meet(CSyncSocket& sock)
{
    unsigned nPort = 0;
    const int fdListen = ListenOnLoopback(nPort);
    EXPECT_TRUE(sock.Create());
    EXPECT_TRUE(sock._Connect("127.0.0.1", nPort));
    CFarEnd far(AcceptOne(fdListen));
    ::close(fdListen);
    return far;
}

bool CFarEnd::Send(const Bytes& bytes)
{
    for (size_t nDone = 0; nDone < bytes.size();) {
        const auto nSent = ::send(m_fd, bytes.data() + nDone, bytes.size() - nDone, MSG_NOSIGNAL);
        if (nSent <= 0)
            return false;
        nDone += static_cast<size_t>(nSent);
    }
    return true;
}

Bytes CFarEnd::Take(size_t nLen)
{
    Bytes bytes(nLen);
    size_t nDone = 0;
    while (nDone < nLen) {
        const auto nGot =
            WaitReadable(m_fd, FAR_WAIT_MS) ? ::recv(m_fd, bytes.data() + nDone, nLen - nDone, 0) : -1;
        if (nGot <= 0)
            break;
        nDone += static_cast<size_t>(nGot);
    }
    bytes.resize(nDone);
    EXPECT_EQ(nDone, nLen) << "what came before the end: " << Hex(bytes);
    return bytes;
}

void CFarEnd::Want(const Bytes& bytes)
{
    const Bytes got = Take(bytes.size());
    EXPECT_TRUE(got == bytes) << "want " << Hex(bytes) << "\ngot  " << Hex(got);
}

std::string CFarEnd::TakeUntil(std::string_view end)
{
    std::string strText;
    while (!strText.ends_with(end)) {
        const Bytes one = Take(1);
        if (one.empty())
            break;
        strText += static_cast<char>(one[0]);
    }
    return strText;
}

void CFarEnd::WantEnd()
{
    BYTE n = 0;
    ASSERT_TRUE(WaitReadable(m_fd, FAR_WAIT_MS)) << "the connection goes on";
    EXPECT_LE(::recv(m_fd, &n, 1, 0), 0) << "there is a byte " << Hex({&n, 1});
}

bool CFarEnd::IsSilent() const
{
    BYTE n = 0;
    return ::recv(m_fd, &n, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
}

void CFarEnd::EndSending()
{
    ::shutdown(m_fd, SHUT_WR);
}

void CFarEnd::Close()
{
    if (m_fd >= 0)
        ::close(std::exchange(m_fd, -1));
}

bool WaitUntil(const std::function<bool()>& fn)
{
    const auto end = std::chrono::steady_clock::now() + STATE_WAIT;
    while (!fn()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(STEP);
    }
    return true;
}

bool WaitWhileOthersRun(const std::function<bool()>& fn)
{
    const auto end = std::chrono::steady_clock::now() + STATE_WAIT;
    while (!fn()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        const COthersRun others;
        std::this_thread::sleep_for(STEP);
    }
    return true;
}

CPyRef MakeCallable(std::function<PyObject*(PyObject*)> fn)
{
    const CPyRef capsule(
        PyCapsule_New(new std::function<PyObject*(PyObject*)>(std::move(fn)), nullptr, FreeHeld));
    return CPyRef(PyCFunction_New(&g_callHeld, capsule.get()));
}

std::string Repr(PyObject* p)
{
    if (!p)
        return "<null>";
    const CPyRef text(PyObject_Repr(p));
    const char* szText = text ? PyUnicode_AsUTF8(text.get()) : nullptr;
    return szText ? szText : "<no repr>";
}

std::string Repr(const CPyRef& p)
{
    return Repr(p.get());
}

void CDBCoreTest::SetUp()
{
    m_nDescriptors = CountDescriptors();
    m_pCore = _DBCoreNew();
}

void CDBCoreTest::TearDown()
{
    DeleteCore();
    m_req.Close();
    m_rcv.Close();
    EXPECT_TRUE(WaitForThreads()) << "a receive thread goes on";
    EXPECT_FALSE(PyErr_Occurred());
    EXPECT_EQ(CountDescriptors(), m_nDescriptors);
    m_projectDir.reset();
}

void CDBCoreTest::DeleteCore()
{
    _DBCoreDelete(std::exchange(m_pCore, nullptr));
}

void CDBCoreTest::ExpectEnded()
{
    EXPECT_FALSE(Core().IsConnected());
    EXPECT_EQ(Core().m_reqSock.GetHandle(), -1);
    EXPECT_EQ(Core().m_rcvSock.GetHandle(), -1);
    EXPECT_EQ(CountDirectory(), 0U);
    m_rcv.WantEnd();
}

void CDBCoreTest::Attach(long nTimeOut)
{
    m_req = CFarEnd::Meet(Core().m_reqSock);
    m_rcv = CFarEnd::Meet(Core().m_rcvSock);
    Core().m_reqSock.SetTimeOut(nTimeOut);
    Core().m_rcvSock.SetTimeOut(FAR_WAIT_MS); // a walk that awaits what never comes shall fail, not hang
}

void CDBCoreTest::UseProjectDir(std::initializer_list<const char*> folders)
{
    m_projectDir.emplace();
    for (const char* szFolder : folders)
        std::filesystem::create_directory(ProjectDir() / szFolder);
    Core().m_strPrjPath = CString(ProjectDir().string() + "/");
}

void CDBCoreTest::AddDriver(const char* szName, WORD nId, WORD nTags)
{
    const CThreadGuard guard(Core().m_lock);
    SNDrvInfoEx info;
    info.id = nId;
    info.tagNum = nTags;
    Core().m_mapDrvInfos[CString(szName)] = info;
    Core().m_pDrivers.resize(Core().m_mapDrvInfos.size());
}

void CDBCoreTest::SetSlots(size_t nSlots)
{
    const CThreadGuard guard(Core().m_lock);
    Core().m_pDrivers.resize(nSlots);
}

size_t CDBCoreTest::CountSlots()
{
    const CThreadGuard guard(Core().m_lock);
    return Core().m_pDrivers.size();
}

bool CDBCoreTest::HasDriverAt(size_t nSlot)
{
    const CThreadGuard guard(Core().m_lock);
    return Core().m_pDrivers.at(nSlot) != nullptr;
}

size_t CDBCoreTest::CountDirectory()
{
    const CThreadGuard guard(Core().m_lock);
    return Core().m_mapDrvInfos.size();
}

size_t CDBCoreTest::CountRetired()
{
    const CThreadGuard guard(Core().m_lock);
    return Core().m_retired.size();
}

size_t CDBCoreTest::CountHeld()
{
    const CThreadGuard guard(Core().m_lock);
    return Core().m_held.Count();
}

bool CDBCoreTest::HasAlarmReceiver()
{
    const CThreadGuard guard(Core().m_lock);
    return Core().m_rtAlarmNotifyFn != nullptr;
}

void CDBCoreTest::SetConnected(DWORD nRights)
{
    Core().m_nRights = nRights;
    Core().m_bConnect = true;
}

void CDBCoreTest::StartReceiving(DWORD nRights)
{
    const int nBefore = CDBCore::CountThreads();
    ASSERT_EQ(Core().StartReceiving(nRights), EConnect::Connected);
    ASSERT_TRUE(WaitUntil([nBefore] { return CDBCore::CountThreads() > nBefore; }));
}

EConnect CDBCoreTest::Login(LPCSTR szUser, LPCSTR szPassword, DWORD& nRights)
{
    return Core().Login(szUser, szPassword, nRights);
}

void CDBCoreTest::SetAlarmReceiver(PyObject* pFn, const CStringList& texts, const CStringList& tags)
{
    const auto pKept = std::make_shared<CPyCallback>(pFn);
    Core().KeepCallback(pKept);
    const auto pReceiver = std::make_shared<const SAlarmReceiver>(
        pKept, std::make_shared<const CStringList>(texts), std::make_shared<const CStringList>(tags));
    const CThreadGuard guard(Core().m_lock);
    Core().m_rtAlarmNotifyFn = pReceiver;
}

bool CDBCoreTest::Walk(CRecvBuffer& buffer)
{
    CRecvLink link;
    CPyThread python(link);
    return Core().WalkReceive(buffer, python) == CDBCore::EWalk::Walked;
}

bool CDBCoreTest::WalkOnce()
{
    CRecvBuffer buffer(REST_MS);
    EXPECT_GT(buffer.Fill(Core().m_rcvSock), 0);
    return Walk(buffer);
}

bool CDBCoreTest::WaitForThreads()
{
    const COthersRun others;
    return WaitUntil([] { return CDBCore::CountThreads() == 0; });
}

void CDBCoreTest::Learn(CDBDriver& driver, const std::vector<STagSpec>& tags)
{
    Bytes request = U8('L');
    Bytes reply = U8('L');
    CString strNames;
    for (const STagSpec& tag : tags) {
        request = request + U16(driver.m_drvId) + Text(tag.szName);
        reply = reply + U16(tag.nPos) + U16(0);
        strNames = strNames + (strNames.empty() ? "" : ",") + tag.szName;
    }
    const CPlay play([&] {
        m_req.Want(request);
        m_req.Send(reply);
    });
    CDBDriver::TagSlots out;
    EXPECT_TRUE(driver.CheckTagId(strNames.c_str(), out));
}

void CDBCoreTest::Subscribe(CDBDriver& driver, const std::vector<STagSpec>& tags)
{
    Learn(driver, tags);
    Bytes request = U8('b') + U16(static_cast<unsigned>(tags.size()));
    Bytes values;
    CString strNames;
    for (const STagSpec& tag : tags) {
        request = request + U16(driver.m_drvId) + U16(tag.nPos) + U8(0);
        values = values + tag.typed;
        strNames = strNames + (strNames.empty() ? "" : ",") + tag.szName;
    }
    const CPlay play([&] {
        m_req.Want(request);
        m_req.Send(U8('b') + U16(static_cast<unsigned>(values.size())) + values);
    });
    EXPECT_TRUE(driver._ConnectTag(strNames.c_str()));
}

void CDriverTest::SetUp()
{
    CDBCoreTest::SetUp();
    Attach();
    AddDriver("A", 0, 8);
    AddDriver("B", 1, 2000);
    SetConnected();
    m_pA = Core()._GetDriver("A");
    m_pB = Core()._GetDriver("B");
    ASSERT_TRUE(m_pA && m_pB);
}

CServer::CServer() : m_fd(ListenOnLoopback(m_nPort))
{
    RemoveMirror(); // a test that was killed may have left one under this port
}

CServer::~CServer()
{
    RemoveMirror(); // while nobody else can have the port
    ::close(m_fd);
}

void CServer::RemoveMirror() const
{
    std::error_code error;
    std::filesystem::remove_all(Mirror(""), error);
}

std::string CServer::Host() const
{
    return "127.0.0.1:" + std::to_string(m_nPort);
}

std::string CServer::Mirror(const char* szProject) const
{
    const std::string strHost = RKDB_MIRROR_ROOT + ("127.0.0.1_" + std::to_string(m_nPort)) + "/";
    return *szProject ? strHost + szProject + "/" : strHost;
}

CFarEnd CServer::Accept()
{
    return CFarEnd(AcceptOne(m_fd));
}

void CServer::Refuse()
{
    req = Accept();
    TakeScrambled(req, '7', OPEN_RECORD);
    req.Send(U8('0'));
}

void CServer::Handshake(const char* szProject, UINT nFileTime, UINT nFileSize)
{
    req = Accept();
    TakeScrambled(req, '7', OPEN_RECORD);
    req.Send(U8('7'));
    rcv = Accept();
    char szHost[237] = {};
    ::gethostname(szHost, sizeof szHost - 1);
    TakeScrambled(rcv, '8', std::strlen(szHost) + 19);
    rcv.Send(Scramble(U8('8') + U8(0) * 50 + BigU32(nFileTime) + BigU32(nFileSize) + Text(szProject) +
                      Text("title")));
}

void CServer::Login(DWORD nRights)
{
    req.Want(U8('9') + Text("user") + Text("secret"));
    req.Send(U8('9') + U32(0xDDCCBBAA) + U32(nRights) + U8(7) * 3);
}

void CServer::Download(const char* szFile, const Bytes& body, UINT nTime)
{
    const std::string strRequest = req.TakeUntil("\r\n\r\n");
    EXPECT_EQ(strRequest.substr(0, strRequest.find("\r\n")), std::string("4") + szFile);
    char szHead[128];
    std::snprintf(szHead, sizeof szHead, "Exist:Yes\r\nSize:%zX\r\nFileTime:%X\r\n\r\n", body.size(), nTime);
    req.Send(Raw(szHead) + body);
}

void CServer::Welcome(const Bytes& directory, DWORD nRights)
{
    constexpr UINT FILE_TIME = 1700000000;
    Handshake("unitcore", FILE_TIME, static_cast<UINT>(directory.size()));
    Login(nRights);
    Download("RecData/drvinfo.dat", directory, FILE_TIME);
}

#if defined(__SANITIZE_THREAD__)
// The interpreter is not compiled for the sanitizer; its locks are seen all the same.
extern "C" const char* __tsan_default_options()
{
    return "ignore_noninstrumented_modules=1";
}
#endif

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The interpreter's own allocator would hide a wrong access to its objects and what is lost of them.
    ::setenv("PYTHONMALLOC", "malloc", 1);
    Py_InitializeEx(0);
    return RUN_ALL_TESTS();
}
