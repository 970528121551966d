// The download exchange of DownFile.h.
#include "DownFile.h"

#include "MirrorDir.h"
#include "WaitHook.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <limits>
#include <optional>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>
#include <thread>

namespace {

constexpr int CHUNK_SIZE = 2048;
constexpr int VAR_MAX = 63;
constexpr int PROP_MAX = 255;
constexpr UINT TIME_TOLERANCE = 3;    // seconds either way
constexpr long DEFAULT_PERIOD = 8000; // ms, for a socket without a receive time-out
constexpr auto EMPTY_STEP = std::chrono::milliseconds(10);

/// The acknowledged window: large at first so that most files need no acknowledgement, then ever smaller.
class CWindow
{
public:
    CWindow(bool bRelay, bool bHello, int nFirst)
        : m_nMax(bRelay ? 38912 : 131072), m_nTotal(nFirst), m_bHello(bHello)
    {
    }

    bool IsFull() const { return m_bHello && m_nTotal >= m_nMax; }
    int Total() const { return m_nTotal; }
    int Want() const { return m_bHello ? std::min(m_nMax - m_nTotal, CHUNK_SIZE) : CHUNK_SIZE; }
    void Add(int nBytes)
    {
        if (m_bHello)
            m_nTotal += nBytes;
    }
    void Next()
    {
        m_nTotal = 0;
        if (m_nMax > 10240)
            m_nMax -= 10240;
        m_nMax = std::max(m_nMax, 8192);
    }

private:
    int m_nMax;
    int m_nTotal;
    bool m_bHello;
};

/// Holds a transfer to its pace: MIN_PROGRESS bytes in every period, of which the first begins here.
class CPace
{
public:
    explicit CPace(CSyncSocket& sock) : m_sock(sock)
    {
        long nMs = 0;
        if (!sock.GetRecvTimeOut(nMs) || nMs <= 0)
            nMs = DEFAULT_PERIOD;
        nMs = std::min(nMs, CSyncSocket::LONGEST_MS);
        m_period = std::chrono::milliseconds(nMs);
        Begin();
    }
    ~CPace() { m_sock.SetLimit(std::nullopt); }
    CPace(const CPace&) = delete;
    CPace& operator=(const CPace&) = delete;

    bool IsKept() const { return CSyncSocket::Clock::now() < m_until; }
    void Add(int nBytes)
    {
        m_nBytes += static_cast<size_t>(nBytes);
        if (m_nBytes >= MIN_PROGRESS)
            Begin();
    }

private:
    void Begin()
    {
        m_nBytes = 0;
        m_until = CSyncSocket::Clock::now() + m_period;
        m_sock.SetLimit(m_until);
    }

    CSyncSocket& m_sock;
    std::chrono::milliseconds m_period{};
    CSyncSocket::Clock::time_point m_until;
    size_t m_nBytes = 0;
};

/// A local copy, open from the moment on at which the request speaks of it.
struct SCopy
{
    SCopy(const CMirrorDir& dir, const std::string& strName) : eFound(dir.OpenFile(strName, file, st)) {}
    bool IsThere() const { return eFound == EMirror::Found; }

    XFile file;
    struct stat st = {};
    EMirror eFound;
};

void AppendCopyLines(std::string& strReq, const char* szFormat, const struct stat& st)
{
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), szFormat, static_cast<UINT>(st.st_mtime),
                  static_cast<UINT>(st.st_size));
    strReq += text.data();
}

bool IsCurrent(const struct stat& st, unsigned long mtime, unsigned long size)
{
    const UINT nApart = static_cast<UINT>(st.st_mtime) - static_cast<UINT>(mtime) + TIME_TOLERANCE;
    return nApart <= 2 * TIME_TOLERANCE && static_cast<unsigned long>(st.st_size) == size && !IsPartOnly(st);
}

bool SaysYes(const char* szValue)
{
    return ::strncasecmp(szValue, "Yes", 3) == 0;
}

/// What is no number, or does not fit, becomes the largest there is.
uint64_t HexNumber(std::string_view value)
{
    if (value.starts_with("0x") || value.starts_with("0X"))
        value.remove_prefix(2);
    uint64_t n = 0;
    const auto eError = std::from_chars(value.data(), value.data() + value.size(), n, 16).ec;
    return eError == std::errc() ? n : std::numeric_limits<uint64_t>::max();
}

time_t FileTime(const char* szValue)
{
    const uint64_t n = HexNumber(szValue);
    return n <= static_cast<uint64_t>(std::numeric_limits<time_t>::max()) ? static_cast<time_t>(n) : 0;
}

/// False for a name that no header has.
bool SetField(SCFileInfo& fi, const char* szName, const char* szValue)
{
    const auto is = [&](const char* sz) { return ::strcasecmp(szName, sz) == 0; };
    if (is("Size"))
        fi.dwSize = HexNumber(szValue);
    else if (is("UseLast"))
        fi.bUseLast = SaysYes(szValue);
    else if (is("Exist"))
        fi.bExist = SaysYes(szValue);
    else if (is("GZ"))
        fi.bGZ = SaysYes(szValue);
    else if (is("FileTime"))
        fi.tt = FileTime(szValue);
    else if (is("FileName"))
        fi.strName = szValue;
    else if (is("Append"))
        fi.bAppend = SaysYes(szValue);
    else if (is("Hello"))
        fi.bHello = SaysYes(szValue);
    else
        return false;
    return true;
}

enum class EHeader
{
    Cut,   // more of it must come
    Whole, // its empty line has been seen; one of its lines says something, and the size of a body if there
           // is one
    Bad,   // cannot become a header
};

struct SHeader
{
    EHeader eState = EHeader::Bad;
    int nEnd = 0; // where the body begins
};

SHeader ReadHeader(const char* buf, int nLen, SCFileInfo& fi)
{
    std::array<char, VAR_MAX + 1> var;
    std::array<char, PROP_MAX + 1> prop;
    int nLine = 0;
    int nPos = 0;
    bool bSays = false;
    bool bSized = false;
    while (ReadHttpCont(buf, nPos, nLen, var.data(), VAR_MAX, prop.data(), PROP_MAX)) {
        bSays = SetField(fi, var.data(), prop.data()) || bSays;
        bSized = bSized || ::strcasecmp(var.data(), "Size") == 0;
        nLine = nPos;
    }
    if (nPos > nLine && buf[nPos - 1] == '\n') {
        const bool bBody = fi.bExist && !fi.bUseLast;
        return {bSays && (bSized || !bBody) ? EHeader::Whole : EHeader::Bad, nPos};
    }
    return {nPos < nLen ? EHeader::Bad : EHeader::Cut, nPos};
}

/// Between two receives that gave nothing. False when the calling thread wants the transfer to end.
bool Pause()
{
    std::this_thread::sleep_for(EMPTY_STEP);
    const auto fnGoOn = WaitHook().fnGoOn;
    return !fnGoOn || fnGoOn();
}

enum class EBody
{
    Whole,
    Broken,  // stopped before its end
    Surplus, // more has come than was announced
};

/// One exchange.
class CDownload
{
public:
    CDownload(CSyncSocket& sock, char nCode, IGetFileCB* pGetFileCB, const std::string& strPath)
        : m_sock(sock), m_nCode(nCode), m_pGetFileCB(pGetFileCB), m_strName(FileNameOf(strPath)),
          m_dir(CMirrorDir::Of(strPath, RKDB_MIRROR_ROOT)), m_copy(m_dir, m_strName),
          m_gz(m_dir, m_strName + ".gz")
    {
    }

    bool IsTrusted() const { return m_copy.eFound != EMirror::Refused && m_gz.eFound != EMirror::Refused; }
    bool HasCurrent(unsigned long mtime, unsigned long size) const
    {
        return m_copy.IsThere() && IsCurrent(m_copy.st, mtime, size);
    }
    EDownload Ask(LPCSTR szFileName, LPCSTR szAddP2p);
    /// The copy that an exchange which is complete has found right.
    XFile& Copy() noexcept { return m_copy.file; }

private:
    std::string Request(LPCSTR szFileName, LPCSTR szAddP2p) const;
    bool ReceiveHeader(CPace& pace);
    EDownload KeepCopy();
    EDownload Fetch(CPace& pace, bool bRelay);
    EBody ReceiveBody(CPace& pace, CWindow window, CNewFile& file, uint64_t nLeft);
    EDownload Store(CNewFile& file, EBody eBody);
    void SendHello(int nTotal);
    void Tell(const CNewFile& file, int nBytes, bool bFinished);

    CSyncSocket& m_sock;
    char m_nCode;
    IGetFileCB* m_pGetFileCB;
    std::string m_strName;
    CMirrorDir m_dir;
    SCopy m_copy;
    SCopy m_gz;
    SCFileInfo m_fi;
    std::array<char, CHUNK_SIZE> m_chunk{};
    int m_nLen = 0;    // bytes in it
    int m_nHeader = 0; // those of them that are the header
};

std::string CDownload::Request(LPCSTR szFileName, LPCSTR szAddP2p) const
{
    std::string strReq(1, m_nCode);
    if (szAddP2p)
        strReq += szAddP2p;
    strReq.append(szFileName).append("\r\n");
    if (m_copy.IsThere())
        AppendCopyLines(strReq, "LastTime:%X\r\nSize:%X\r\n", m_copy.st);
    if (m_gz.IsThere())
        AppendCopyLines(strReq, "gzTime:%X\r\ngzSize:%X\r\n", m_gz.st);
    return strReq + "Hello:Yes\r\n\r\n";
}

EDownload CDownload::Ask(LPCSTR szFileName, LPCSTR szAddP2p)
{
    const std::string strReq = Request(szFileName, szAddP2p);
    CPace pace(m_sock);
    if (m_sock._Send(strReq.data(), static_cast<int>(strReq.size()), 0) < 1 || !ReceiveHeader(pace))
        return EDownload::Failed;
    if (m_fi.bExist && !m_fi.bUseLast)
        return Fetch(pace, szAddP2p != nullptr);
    return m_nHeader < m_nLen ? EDownload::Failed : KeepCopy();
}

/// Its end may be followed by the beginning of the body. False when it does not become a header.
bool CDownload::ReceiveHeader(CPace& pace)
{
    while (m_nLen < CHUNK_SIZE && pace.IsKept()) {
        const int nGot = m_sock._Recv(m_chunk.data() + m_nLen, CHUNK_SIZE - m_nLen, 0);
        if (nGot < 1)
            return false;
        m_nLen += nGot;
        m_fi = {};
        const SHeader header = ReadHeader(m_chunk.data(), m_nLen, m_fi);
        m_nHeader = header.nEnd;
        if (header.eState != EHeader::Cut)
            return header.eState == EHeader::Whole;
    }
    return false;
}

/// There is no body: the file does not exist, or the copy is said to be current.
EDownload CDownload::KeepCopy()
{
    const bool bPart = m_copy.IsThere() && IsPartOnly(m_copy.st);
    if (!m_fi.bExist || bPart) {
        m_copy.file.Close();
        // A part that the server takes for the whole file must go, or it would be named again next time.
        return m_dir.Remove(m_strName) && !m_fi.bExist ? EDownload::Complete : EDownload::NotStored;
    }
    if (m_copy.IsThere())
        return EDownload::Complete;
    return m_gz.IsThere() ? EDownload::Compressed : EDownload::NotStored;
}

EDownload CDownload::Fetch(CPace& pace, bool bRelay)
{
    SCopy& old = m_fi.bGZ ? m_gz : m_copy;
    const bool bAppend = m_fi.bAppend && old.IsThere();
    const auto nOld = bAppend ? static_cast<uint64_t>(old.st.st_size) : 0;
    const auto nBody = static_cast<uint64_t>(m_nLen - m_nHeader);
    if (nOld > MAX_DOWNLOAD_SIZE || m_fi.dwSize > MAX_DOWNLOAD_SIZE - nOld || nBody > m_fi.dwSize)
        return EDownload::Failed;
    CNewFile file(m_dir, m_strName + (m_fi.bGZ ? ".gz" : ""));
    // What cannot be written is read all the same: the connection stays clean.
    if (file.Begin() && bAppend)
        file.Append(old.file);
    file.Write(m_chunk.data() + m_nHeader, static_cast<size_t>(nBody));
    pace.Add(m_nLen);
    EBody eBody = EBody::Whole;
    if (nBody < m_fi.dwSize)
        eBody = ReceiveBody(pace, CWindow(bRelay, m_fi.bHello, m_nLen), file, m_fi.dwSize - nBody);
    return Store(file, eBody);
}

EBody CDownload::ReceiveBody(CPace& pace, CWindow window, CNewFile& file, uint64_t nLeft)
{
    while (pace.IsKept()) {
        if (window.IsFull()) {
            SendHello(window.Total());
            window.Next();
        }
        const int nGot = m_sock._Recv(m_chunk.data(), window.Want(), 0);
        if (nGot < 0)
            return EBody::Broken;
        if (nGot == 0) {
            if (!Pause())
                return EBody::Broken;
            continue;
        }
        if (static_cast<uint64_t>(nGot) > nLeft)
            return EBody::Surplus;
        file.Write(m_chunk.data(), static_cast<size_t>(nGot));
        nLeft -= static_cast<uint64_t>(nGot);
        m_nLen = nGot;
        if (nLeft == 0)
            return EBody::Whole;
        Tell(file, nGot, false);
        pace.Add(nGot);
        window.Add(nGot);
    }
    return EBody::Broken;
}

EDownload CDownload::Store(CNewFile& file, EBody eBody)
{
    if (eBody == EBody::Surplus)
        return EDownload::Failed;
    const bool bPlaced = file.Place(m_fi.tt, eBody == EBody::Whole);
    if (eBody == EBody::Broken)
        return EDownload::Failed;
    if (!bPlaced)
        return EDownload::NotStored;
    if (!m_fi.bGZ) {
        m_copy.file = std::move(file.File());
        if (!m_copy.file.Seek(0, SEEK_SET))
            m_copy.file.Close();
    }
    Tell(file, m_nLen, true);
    return m_fi.bGZ ? EDownload::Compressed : EDownload::Complete;
}

void CDownload::SendHello(int nTotal)
{
    std::array<char, 32> text;
    const int nLen = std::snprintf(text.data(), text.size(), "%cHello%X", m_nCode, static_cast<UINT>(nTotal));
    static_cast<void>(m_sock._Send(text.data(), nLen + 1, 0));
}

void CDownload::Tell(const CNewFile& file, int nBytes, bool bFinished)
{
    if (m_pGetFileCB && file.IsGood())
        m_pGetFileCB->OnProgress(nBytes, bFinished);
}

} // namespace

int ReadHttpCont(const char* szHttpCont, int& nPos, int nLen, char* var, int varMax, char* prop, int propMax)
{
    int nVar = 0;
    int nProp = 0;
    bool bValue = false;
    while (nPos < nLen) {
        const char ch = szHttpCont[nPos++];
        if (ch == '\t' || ch == '\r' || ch == ' ')
            continue;
        if (ch == ':') {
            bValue = true;
            continue;
        }
        if (ch == '\n') {
            if (nVar == 0)
                return 0;
            var[nVar] = 0;
            prop[nProp] = 0;
            return 1;
        }
        if (bValue ? nProp >= propMax : nVar >= varMax)
            return 0;
        (bValue ? prop[nProp++] : var[nVar++]) = ch;
    }
    return 0;
}

int GetFileInfoByBuf(const char* buf, int nLen, SCFileInfo& fi)
{
    return ReadHeader(buf, nLen, fi).nEnd;
}

int GetFile(LPCSTR szFileName, CSyncSocket& sock, char nCode, LPCSTR szPath, unsigned long mtime,
            unsigned long size, IGetFileCB* pGetFileCB, LPCSTR szAddP2p)
{
    const auto eResult = DownloadFile(szFileName, sock, nCode, szPath, mtime, size, pGetFileCB, szAddP2p);
    return eResult == EDownload::Failed ? 0 : 1;
}

EDownload DownloadFile(LPCSTR szFileName, CSyncSocket& sock, char nCode, LPCSTR szPath, unsigned long mtime,
                       unsigned long size, IGetFileCB* pGetFileCB, LPCSTR szAddP2p, XFile* pCopy)
{
    CString strUtf8;
    CString(std::string(szPath) + szFileName).ToUtf8(strUtf8);
    CDownload download(sock, nCode, pGetFileCB, strUtf8);
    if (!download.IsTrusted())
        return EDownload::NotStored;
    const bool bCurrent = download.HasCurrent(mtime, size);
    const EDownload eResult = bCurrent ? EDownload::Complete : download.Ask(szFileName, szAddP2p);
    if (pCopy && eResult == EDownload::Complete)
        *pCopy = std::move(download.Copy());
    return eResult;
}
