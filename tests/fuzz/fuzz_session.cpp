// A whole Connect with its files, then a registration for alarms, against a server that does every step well
// or spoils it: cut, replaced, left out, in pieces. Connected means that the directory that was sent is
// loaded, driver for driver; a registration that fails has ended the connection, and so does the end of one
// of its two streams; whatever else happened leaves no descriptor behind.
#include "core_under_test.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<BYTE>;
using Drivers = std::map<std::string, std::pair<WORD, WORD>>; // by name: id and number of tags

constexpr DWORD SERVER_TIME = 1700000000; // of the directory file
constexpr DWORD OLD_TIME = SERVER_TIME - 1000;
constexpr DWORD RIGHTS = 0x12345608;
constexpr size_t LOGIN_SIZE = 9;
constexpr size_t ACK_SIZE = 60; // plain bytes up to the project name

/// The receive thread, which is run when its time has come: on this thread, with all that it will receive
/// there.
struct SHeldThread
{
    bool bHold = false;
    void* (*fn)(void*) = nullptr;
    void* pParam = nullptr;
} g_held;

} // namespace

extern "C" {
int __real_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttr, void* (*fn)(void*), void* pParam);

int __wrap_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttr, void* (*fn)(void*), void* pParam)
{
    if (!g_held.bHold)
        return __real_pthread_create(pThread, pAttr, fn, pParam);
    FUZZ_CHECK(!g_held.fn);
    g_held.fn = fn;
    g_held.pParam = pParam;
    *pThread = ::pthread_self();
    return 0;
}
}

namespace {

Bytes BytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

void AppendNumber(Bytes& bytes, uint64_t n, size_t nSize)
{
    for (size_t i = 0; i < nSize; ++i)
        bytes.push_back(static_cast<BYTE>(n >> 8 * i));
}

/// Scrambled with zeros.
Bytes Scrambled(const Bytes& plain)
{
    Bytes out;
    for (size_t i = 0; i < plain.size(); ++i) {
        if (i % 3 == 0)
            out.push_back(0);
        out.push_back(plain[i]);
    }
    return out;
}

Bytes Registered(DWORD tTime, size_t nSize)
{
    Bytes plain(51);
    plain[0] = '8';
    for (const uint64_t n : {uint64_t{tTime}, uint64_t{nSize}})
        for (int nShift = 24; nShift >= 0; nShift -= 8)
            plain.push_back(static_cast<BYTE>(n >> nShift));
    plain.insert(plain.end(), {'P', 0, 't', 'i', 't', 'l', 'e', 0});
    return Scrambled(plain);
}

/// A registration that is one has its fixed part and the ends of two texts.
bool IsRegistered(const Bytes& reply)
{
    const Bytes plain = Unscrambled(reply);
    return plain.size() > ACK_SIZE && plain[0] == '8' &&
           std::count(plain.begin() + ACK_SIZE - 1, plain.end(), BYTE{0}) >= 2;
}

Bytes FileReply(const Bytes& body, const char* szMore)
{
    char szHeader[160];
    std::snprintf(szHeader, sizeof szHeader, "FileName:f\r\nFileTime:%X\r\nSize:%zX\r\n%s\r\n", SERVER_TIME,
                  body.size(), szMore);
    Bytes reply = BytesOf(szHeader);
    reply.insert(reply.end(), body.begin(), body.end());
    return reply;
}

Drivers DriversOf(std::span<const BYTE> bytes)
{
    Drivers drivers;
    if (bytes.size() <= 4)
        return drivers;
    for (;;) {
        const auto nul = std::ranges::find(bytes, BYTE{0});
        const auto nName = static_cast<size_t>(nul - bytes.begin());
        if (nName + 5 > bytes.size())
            return drivers;
        drivers[std::string(bytes.begin(), nul)] = {static_cast<WORD>(LittleWord(bytes.subspan(nName + 1))),
                                                    static_cast<WORD>(LittleWord(bytes.subspan(nName + 3)))};
        bytes = bytes.subspan(nName + 5);
    }
}

/// A directory as the input describes it: some drivers, or any bytes.
Bytes TakeDirectory(CInput& input)
{
    const BYTE nKind = input.Byte();
    if (nKind & 0x80) {
        const auto raw = input.Segment();
        return {raw.begin(), raw.end()};
    }
    Bytes bytes;
    for (BYTE i = 0; i < nKind % 8; ++i) {
        bytes.insert(bytes.end(), 1 + (nKind >> 3), static_cast<BYTE>('A' + i));
        bytes.push_back(0);
        AppendNumber(bytes, i, 2);
        AppendNumber(bytes, input.Byte(), 2);
    }
    return bytes;
}

/// How a step of the server goes, and the reply that then comes.
enum class EStep
{
    Good,
    Cut, // a part of the good reply
    Any, // the input says what comes
    None,
};

struct SStep
{
    EStep eStep = EStep::Good;
    Bytes reply;
};

SStep TakeStep(CInput& input, const Bytes& good)
{
    SStep step{static_cast<EStep>(input.Byte() % 4), good};
    if (step.eStep == EStep::Cut) {
        const size_t nLow = input.Byte();
        step.reply.resize((nLow | size_t{input.Byte()} << 8) % good.size());
    } else if (step.eStep == EStep::Any) {
        const auto any = input.Segment();
        step.reply.assign(any.begin(), any.end());
    } else if (step.eStep == EStep::None) {
        step.reply.clear();
    }
    return step;
}

/// The calls of the alarm receiver, as the texts of their tag names.
std::vector<std::string> g_calls;

PyObject* OnAlarm(PyObject*, PyObject* args)
{
    FUZZ_CHECK(PyTuple_Size(args) == 10);
    const char* szTag = PyUnicode_AsUTF8(PyTuple_GET_ITEM(args, 2));
    FUZZ_CHECK(szTag);
    g_calls.emplace_back(szTag);
    return NewPyRef(Py_None).release();
}

/// The lowest number that a new descriptor would get: the same again when none was left open.
int FreeDescriptor()
{
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    FUZZ_CHECK(fd != -1);
    ::close(fd);
    return fd;
}

class CSession
{
public:
    explicit CSession(CInput& input)
        : m_input(input), m_nControl(input.Byte()), m_wire(MakeWire(m_nControl & 0x7F)),
          m_nFlags(input.Byte())
    {
        fs::remove_all(m_folder);
        g_held = {true};
        g_calls.clear();
    }
    ~CSession()
    {
        g_held = {};
        fs::remove_all(m_folder);
    }
    CSession(const CSession&) = delete;
    CSession& operator=(const CSession&) = delete;

    void Play();

private:
    bool HasCopy() const { return m_nFlags & 1; }
    bool RequestsEnd() const { return m_nFlags & 16; } // and the other connection is silent
    void PlantCopy();
    void TakeHandshake();
    void TakeDownload();
    void CheckDrivers(CDBCore& core) const;
    void SayAlarms();
    void CheckAlarms(CDBCore& core);
    void CheckEnded(CDBCore& core) const;
    void Receive(CDBCore& core);
    void Say(const SStep& step) { m_wire.Reply(step.reply); }

    CInput& m_input;
    const BYTE m_nControl;
    CScriptedWire m_wire;
    const BYTE m_nFlags;
    const std::string m_strHost = "192.0.2.1:" + std::to_string(1024 + ::getpid() % 60000);
    const fs::path m_folder = std::string(RKDB_MIRROR_ROOT) + "192.0.2.1_" + m_strHost.substr(10);
    Bytes m_copy;      // the file of an earlier connection
    Bytes m_directory; // the server's
    SStep m_login;
    size_t m_nAlarms = 0;
    size_t m_nTexts = 0;
    bool m_bLoginIsLast = false; // of the replies that a connection needs
    bool m_bAlarmsKnown = true;
    bool m_bAlarmsFail = false;
    bool m_bKnown = false;                  // every step says for sure what must come of it
    bool m_bMustFail = false;               // one step at least cannot lead to a connection
    std::optional<Bytes> m_directoryToLoad; // where the download says it
};

void CSession::PlantCopy()
{
    m_copy = TakeDirectory(m_input);
    for (fs::path path : {m_folder, m_folder / "P", m_folder / "P/RecData"}) {
        fs::create_directories(path);
        fs::permissions(path, fs::perms::owner_all);
    }
    const fs::path file = m_folder / "P/RecData/drvinfo.dat";
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(m_copy.data()), static_cast<std::streamsize>(m_copy.size()));
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    const utimbuf times{OLD_TIME, OLD_TIME};
    FUZZ_CHECK(::utime(file.c_str(), &times) == 0);
}

void CSession::TakeHandshake()
{
    const bool bCurrent = HasCopy() && m_nFlags & 2; // the server's directory is the copy
    if (bCurrent)
        m_directory = m_copy;
    const SStep open = TakeStep(m_input, {'7'});
    const SStep reg = TakeStep(m_input, Registered(bCurrent ? OLD_TIME : SERVER_TIME, m_directory.size()));
    Bytes login{'9', 1, 2, 3, 4};
    AppendNumber(login, RIGHTS, 4);
    m_login = TakeStep(m_input, login);
    Say(open);
    Say(reg);
    Say(m_login);
    m_bKnown = open.eStep == EStep::Good && reg.eStep == EStep::Good && m_login.eStep == EStep::Good;
    m_bMustFail = open.reply.empty() || open.reply[0] != '7' || !IsRegistered(reg.reply) ||
                  m_login.reply.size() < LOGIN_SIZE || m_login.reply[0] != '9';
    m_bLoginIsLast = bCurrent && m_bKnown; // the directory is not asked for
    if (m_bLoginIsLast)
        m_directoryToLoad = m_copy;
    else
        TakeDownload();
}

void CSession::TakeDownload()
{
    switch (m_input.Byte() % 3) {
    case 0: {
        const SStep step = TakeStep(m_input, FileReply(m_directory, m_nFlags & 4 ? "Hello:Yes\r\n" : ""));
        Say(step);
        m_bMustFail |= step.eStep == EStep::Cut || step.eStep == EStep::None;
        if (step.eStep == EStep::Good)
            m_directoryToLoad = m_directory;
        break;
    }
    case 1:
        m_wire.Reply(BytesOf("UseLast:Yes\r\n\r\n"));
        m_bMustFail |= !HasCopy();
        m_directoryToLoad = m_copy;
        break;
    default:
        m_wire.Reply(FileReply(m_directory, "Append:Yes\r\n"));
        m_directoryToLoad = m_copy;
        m_directoryToLoad->insert(m_directoryToLoad->end(), m_directory.begin(), m_directory.end());
    }
    m_bKnown &= m_directoryToLoad.has_value();
}

void CSession::CheckDrivers(CDBCore& core) const
{
    CString strPath;
    core.m_strPrjPath.ToUtf8(strPath);
    std::ifstream stream(strPath + "RecData/drvinfo.dat", std::ios::binary);
    const std::string strFile{std::istreambuf_iterator<char>(stream), {}};
    const Bytes file(strFile.begin(), strFile.end());
    if (m_bKnown)
        FUZZ_CHECK(file == *m_directoryToLoad);
    const Drivers drivers = DriversOf(file);
    for (const auto& [strName, info] : drivers) {
        const CDBDriver* pDriver = core._GetDriver(strName.c_str());
        FUZZ_CHECK(!pDriver == (info.first >= drivers.size())); // an id beyond the table names no slot
        FUZZ_CHECK(!pDriver || (pDriver->m_drvId == info.first && pDriver->GetTagCount() == info.second));
    }
    FUZZ_CHECK(drivers.contains("no such driver") || !core._GetDriver("no such driver"));
}

void CSession::SayAlarms()
{
    m_nAlarms = m_input.Byte() % 32;
    m_nTexts = m_input.Byte() % 8;
    Bytes alarms{'n'};
    AppendNumber(alarms, m_nAlarms, 2);
    for (size_t i = 0; i < m_nAlarms; ++i) {
        Bytes record(32);
        record[0] = 1; // a second of 1970
        record[8] = static_cast<BYTE>(i);
        alarms.insert(alarms.end(), record.begin(), record.end());
    }
    std::string strList;
    for (size_t i = 0; i < m_nTexts; ++i)
        strList += "text" + std::to_string(i) + "\r\n";
    const SStep active = TakeStep(m_input, alarms);
    const SStep textList = TakeStep(m_input, FileReply(BytesOf(strList), ""));
    const SStep tagList = TakeStep(m_input, FileReply(BytesOf(strList), ""));
    for (const SStep* pStep : {&active, &textList, &tagList}) {
        Say(*pStep);
        m_bAlarmsKnown &= pStep->eStep == EStep::Good;
        m_bAlarmsFail |= pStep->eStep == EStep::Cut || pStep->eStep == EStep::None;
    }
}

void CSession::CheckAlarms(CDBCore& core)
{
    static PyMethodDef method{"on_alarm", OnAlarm, METH_VARARGS, nullptr};
    const CPyRef receiver(PyCFunction_New(&method, nullptr));
    const int nResult = core._SetRtAlarmNotify(receiver.get(), true);
    FUZZ_CHECK(!PyErr_Occurred() && (nResult == 0 || nResult == -2));
    FUZZ_CHECK((nResult == 0) == core.IsConnected());
    if (nResult != 0)
        FUZZ_CHECK(g_calls.empty());
    if (!m_bKnown) // the replies may be those of other requests
        return;
    FUZZ_CHECK(nResult == -2 || !m_bAlarmsFail);
    if (!m_bAlarmsKnown)
        return;
    FUZZ_CHECK(nResult == 0 && g_calls.size() == m_nAlarms);
    for (size_t i = 0; i < m_nAlarms; ++i) { // the one reported last comes first
        const size_t nText = m_nAlarms - 1 - i;
        FUZZ_CHECK(g_calls[i] == (nText < m_nTexts ? "text" + std::to_string(nText) : "???"));
    }
}

/// Both connections and the directory are gone.
void CSession::CheckEnded(CDBCore& core) const
{
    FUZZ_CHECK(!core.IsConnected() && !core.m_reqSock.IsSocket() && !core.m_rcvSock.IsSocket());
    for (const Bytes* pBytes : {&m_copy, &m_directory})
        for (const auto& [strName, info] : DriversOf(*pBytes))
            FUZZ_CHECK(!core._GetDriver(strName.c_str()));
}

/// The stream of notifications to the end of one of the connections, on this thread.
void CSession::Receive(CDBCore& core)
{
    const auto pushed = m_input.Segment();
    if (auto* pChannel = m_wire.Find(core.m_rcvSock.GetHandle())) {
        pChannel->incoming.insert(pChannel->incoming.end(), pushed.begin(), pushed.end());
        pChannel->bClosed |= !RequestsEnd();
    }
    if (auto* pChannel = m_wire.Find(core.m_reqSock.GetHandle()))
        pChannel->bClosed |= RequestsEnd();
    FUZZ_CHECK(g_held.fn && g_held.pParam);
    g_held.fn(g_held.pParam);
}

void CSession::Play()
{
    if (HasCopy())
        PlantCopy();
    m_directory = TakeDirectory(m_input);
    TakeHandshake();
    const bool bAlarms = m_nFlags & 8;
    if (bAlarms)
        SayAlarms();
    if (m_nControl & 0x80) {
        m_wire.EndBehindReplies();
        m_bMustFail |= m_bLoginIsLast && !bAlarms; // it has ended before the connection is complete
    }
    CDBCore core;
    const EConnect eResult = core._Connect(CString(m_strHost), "user", "password");
    FUZZ_CHECK(eResult != EConnect::Connected || !m_bMustFail);
    FUZZ_CHECK(eResult == EConnect::Connected || !m_bKnown || m_bMustFail);
    FUZZ_CHECK(core.IsConnected() == (eResult == EConnect::Connected) && core.IsConnected() == !!g_held.fn);
    if (eResult == EConnect::Connected) {
        FUZZ_CHECK(core.m_nRights == Number(std::span(m_login.reply).subspan(5, 4)));
        CheckDrivers(core);
        if (bAlarms)
            CheckAlarms(core);
        Receive(core);
        CheckEnded(core);
        FUZZ_CHECK(core._Disconnect());
    }
    CheckEnded(core);
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    StartPython();
    const int nFree = FreeDescriptor();
    {
        CInput input({pData, nSize});
        CSession session(input);
        session.Play();
    }
    FUZZ_CHECK(FreeDescriptor() == nFree);
    return 0;
}
