// The download exchange of DownFile.h.
#include "DownFile.h"

#include "Silence.h"
#include "XFile.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <span>
#include <strings.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utime.h>

namespace {

constexpr int CHUNK_SIZE = 2048;
constexpr int VAR_MAX = 63;
constexpr int PROP_MAX = 255;
constexpr UINT TIME_TOLERANCE = 3; // seconds either way
constexpr int OPEN_REPLACE = O_WRONLY | O_CREAT | O_TRUNC;
constexpr int OPEN_APPEND = O_WRONLY | O_CREAT;
constexpr auto SILENCE_STEP = std::chrono::milliseconds(10);

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

/// Local names of one file, in UTF-8 for the system.
struct SLocalNames
{
    SLocalNames(LPCSTR szPath, LPCSTR szFileName)
    {
        CString strUtf8;
        CString(std::string(szPath) + szFileName).ToUtf8(strUtf8);
        strFile = strUtf8;
        strGz = strFile + ".gz";
    }
    std::string strFile;
    std::string strGz;
};

std::optional<struct stat> StatFile(const std::string& strPath)
{
    struct stat st;
    if (::stat(strPath.c_str(), &st) != 0)
        return std::nullopt;
    return st;
}

void AppendCopyLines(std::string& strReq, const char* szFormat, const struct stat& st)
{
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), szFormat, static_cast<UINT>(st.st_mtime),
                  static_cast<UINT>(st.st_size));
    strReq += text.data();
}

std::string BuildRequest(LPCSTR szFileName, char nCode, LPCSTR szAddP2p,
                         const std::optional<struct stat>& local, const std::string& strGz)
{
    std::string strReq(1, nCode);
    if (szAddP2p)
        strReq += szAddP2p;
    strReq.append(szFileName).append("\r\n");
    if (local)
        AppendCopyLines(strReq, "LastTime:%X\r\nSize:%X\r\n", *local);
    if (const auto gz = StatFile(strGz))
        AppendCopyLines(strReq, "gzTime:%X\r\ngzSize:%X\r\n", *gz);
    return strReq + "Hello:Yes\r\n\r\n";
}

bool IsCurrent(const struct stat& st, unsigned long mtime, unsigned long size)
{
    const UINT nApart = static_cast<UINT>(st.st_mtime) - static_cast<UINT>(mtime) + TIME_TOLERANCE;
    return nApart <= 2 * TIME_TOLERANCE && static_cast<unsigned long>(st.st_size) == size;
}

void SendHello(CSyncSocket& sock, char nCode, int nTotal)
{
    std::array<char, 32> text;
    const int nLen = std::snprintf(text.data(), text.size(), "%cHello%X", nCode, static_cast<UINT>(nTotal));
    static_cast<void>(sock._Send(text.data(), nLen + 1, 0));
}

struct SBody
{
    CSyncSocket& sock;
    XFile& file;
    char nCode;
    IGetFileCB* pGetFileCB;
};

/// Receives the rest of the body. Gives the size of the last chunk, or nothing when the transfer failed.
std::optional<int> ReceiveBody(const SBody& body, CWindow window, uint64_t nRemaining, bool& bSurplus)
{
    std::array<char, CHUNK_SIZE> chunk;
    CSilence silence(body.sock);
    for (;;) {
        if (window.IsFull()) {
            SendHello(body.sock, body.nCode, window.Total());
            window.Next();
        }
        const int nGot = body.sock._Recv(chunk.data(), window.Want(), 0);
        if (nGot < 0 || (nGot == 0 && silence.TooLong()))
            return std::nullopt;
        if (nGot == 0) {
            std::this_thread::sleep_for(SILENCE_STEP);
            continue;
        }
        silence.Heard();
        body.file.Write(chunk.data(), static_cast<UINT>(nGot));
        if (nRemaining <= static_cast<uint64_t>(nGot)) {
            bSurplus = nRemaining < static_cast<uint64_t>(nGot);
            return nGot;
        }
        if (body.pGetFileCB)
            body.pGetFileCB->OnProgress(nGot, false);
        nRemaining -= static_cast<uint64_t>(nGot);
        window.Add(nGot);
    }
}

bool SaysYes(const char* szValue)
{
    return ::strncasecmp(szValue, "Yes", 3) == 0;
}

void SetField(SCFileInfo& fi, const char* szName, const char* szValue)
{
    const auto is = [&](const char* sz) { return ::strcasecmp(szName, sz) == 0; };
    if (is("Size"))
        fi.dwSize = std::strtoul(szValue, nullptr, 16);
    else if (is("UseLast"))
        fi.bUseLast = SaysYes(szValue);
    else if (is("Exist"))
        fi.bExist = SaysYes(szValue);
    else if (is("GZ"))
        fi.bGZ = SaysYes(szValue);
    else if (is("FileTime"))
        fi.tt = static_cast<time_t>(std::strtoul(szValue, nullptr, 16));
    else if (is("FileName"))
        fi.strName = szValue;
    else if (is("Append"))
        fi.bAppend = SaysYes(szValue);
    else if (is("Hello"))
        fi.bHello = SaysYes(szValue);
}

struct SHeader
{
    int nEnd;    // where the body begins
    bool bWhole; // its empty line has been seen: nothing of it is still on its way
};

SHeader ReadHeader(const char* buf, int nLen, SCFileInfo& fi)
{
    std::array<char, VAR_MAX + 1> var;
    std::array<char, PROP_MAX + 1> prop;
    int nLine = 0;
    int nPos = 0;
    while (ReadHttpCont(buf, nPos, nLen, var.data(), VAR_MAX, prop.data(), PROP_MAX)) {
        SetField(fi, var.data(), prop.data());
        nLine = nPos;
    }
    return {nPos, nPos > nLine && buf[nPos - 1] == '\n'};
}

/// Stores the body behind the header in the target file and gives it the server's time, whole or not.
EDownload StoreBody(const SBody& body, std::span<const char> first, const SHeader& header,
                    const SCFileInfo& fi, bool bRelay, const std::string& strTarget)
{
    if (fi.bAppend)
        body.file.Seek(0, SEEK_END);
    const auto nBody = first.size() - static_cast<size_t>(header.nEnd);
    if (nBody > 0)
        body.file.Write(first.data() + header.nEnd, static_cast<UINT>(nBody));
    std::optional<int> nLast = static_cast<int>(first.size());
    // More than was announced is an over-long body: complete already, with who knows what behind it.
    bool bSurplus = nBody > fi.dwSize;
    if (fi.dwSize > nBody) {
        const CWindow window(bRelay, fi.bHello, static_cast<int>(first.size()));
        nLast = ReceiveBody(body, window, fi.dwSize - nBody, bSurplus);
    }
    body.file.Close();
    const utimbuf times{fi.tt, fi.tt};
    static_cast<void>(::utime(strTarget.c_str(), &times));
    if (nLast && body.pGetFileCB)
        body.pGetFileCB->OnProgress(*nLast, true);
    if (!nLast)
        return EDownload::Failed;
    return bSurplus || !header.bWhole ? EDownload::Leftover : EDownload::Complete;
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
                       unsigned long size, IGetFileCB* pGetFileCB, LPCSTR szAddP2p)
{
    const SLocalNames names(szPath, szFileName);
    const auto local = StatFile(names.strFile);
    if (local && IsCurrent(*local, mtime, size))
        return EDownload::Complete;
    const std::string strReq = BuildRequest(szFileName, nCode, szAddP2p, local, names.strGz);
    if (sock._Send(strReq.data(), static_cast<int>(strReq.size()), 0) < 1)
        return EDownload::Failed;
    std::array<char, CHUNK_SIZE> chunk;
    const int nLen = sock._Recv(chunk.data(), CHUNK_SIZE, 0);
    if (nLen < 1)
        return EDownload::Failed;
    SCFileInfo fi;
    const SHeader header = ReadHeader(chunk.data(), nLen, fi);
    const auto eHeaderOnly = header.bWhole && header.nEnd == nLen ? EDownload::Complete : EDownload::Leftover;
    if (!fi.bExist) {
        static_cast<void>(::remove(names.strFile.c_str()));
        return eHeaderOnly;
    }
    if (fi.bUseLast)
        return eHeaderOnly;
    const std::string& strTarget = fi.bGZ ? names.strGz : names.strFile;
    XFile file;
    if (!file.OpenA(strTarget.c_str(), fi.bAppend ? OPEN_APPEND : OPEN_REPLACE, false))
        return EDownload::Leftover;
    const std::span<const char> first(chunk.data(), static_cast<size_t>(nLen));
    return StoreBody({sock, file, nCode, pGetFileCB}, first, header, fi, szAddP2p != nullptr, strTarget);
}
