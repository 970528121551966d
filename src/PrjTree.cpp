// The project directory of a connection: the server's own when it runs here, else a private mirror.
#include "ClientSock.h"

#include "MirrorDir.h"
#include "WireReader.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

namespace {

constexpr size_t PATH_REPLY_SIZE = 2048;

/// "无法获取工程路径": the project path could not be obtained. In GB2312, as all text is in here.
constexpr const char* NO_PRJ_PATH = "\xCE\xDE\xB7\xA8\xBB\xF1\xC8\xA1\xB9\xA4\xB3\xCC\xC2\xB7\xBE\xB6";
/// "无法建立本地工程目录": the local project folder could not be made.
constexpr const char* NO_MIRROR =
    "\xCE\xDE\xB7\xA8\xBD\xA8\xC1\xA2\xB1\xBE\xB5\xD8\xB9\xA4\xB3\xCC\xC4\xBF\xC2\xBC";

struct SMirrorDir
{
    const char* szFolder; // null: in the project's folder itself
    const char* szName;
    EMake eMake;
};

constexpr std::array MIRROR_DIRS{
    SMirrorDir{nullptr, "Window", EMake::Yes},       SMirrorDir{nullptr, "3DWnd", EMake::Yes},
    SMirrorDir{nullptr, "Report", EMake::Yes},       SMirrorDir{nullptr, "CtmGph", EMake::Yes},
    SMirrorDir{nullptr, "ScnDrv", EMake::Yes},       SMirrorDir{nullptr, "DBDrv", EMake::Yes},
    SMirrorDir{nullptr, "Media", EMake::Yes},        SMirrorDir{nullptr, "SysCfg", EMake::Yes},
    SMirrorDir{nullptr, "RecData", EMake::Yes},      SMirrorDir{nullptr, "ExtData", EMake::Yes},
    SMirrorDir{"RecData", "Event", EMake::AndClose}, SMirrorDir{"RecData", "Alarm2", EMake::AndClose},
};

/// False when one of the folders cannot be made, or is not to be trusted: then nothing below it is touched.
bool MakeTree(const std::string& strHost, const std::string& strProject)
{
    const CMirrorDir host = CMirrorDir::Root(RKDB_MIRROR_ROOT, true).Sub(strHost, EMake::AndClose);
    const CMirrorDir project = host.Sub(strProject, EMake::AndClose);
    return std::ranges::all_of(MIRROR_DIRS, [&project](const SMirrorDir& dir) {
        return dir.szFolder ? project.Sub(dir.szFolder, EMake::No).Sub(dir.szName, dir.eMake).IsOpen()
                            : project.Sub(dir.szName, dir.eMake).IsOpen();
    });
}

bool IsPlainName(std::string_view name)
{
    return name.find('/') == std::string_view::npos && name != "." && name != "..";
}

/// One folder's name: as the disk has it (UTF-8), and as texts in here hold it (GB2312).
struct SFolder
{
    std::string strDisk;
    CString strText;
};

/// A byte that is no ASCII becomes three that are.
CString Escaped(std::string_view text)
{
    CString strAscii;
    for (const char ch : text) {
        std::array<char, 4> code{};
        std::snprintf(code.data(), code.size(), "%%%02X", static_cast<unsigned>(static_cast<BYTE>(ch)));
        strAscii.append(ch & 0x80 ? std::string_view(code.data()) : std::string_view(&ch, 1));
    }
    return strAscii;
}

/// A host text comes from the script as UTF-8. One that GB2312 cannot hold would lose its end on the way back
/// to the disk, and with it what tells one server's folder from another's: its folder bears an ASCII name.
SFolder HostFolder(LPCSTR szHost)
{
    CString strHost(szHost);
    strHost.Replace(':', '_');
    if (std::ranges::none_of(strHost, [](char ch) { return ch & 0x80; }))
        return {strHost, strHost};
    const CString strText(CUTF82T(strHost.c_str()).c_str());
    CString strBack;
    strText.ToUtf8(strBack);
    if (strBack == strHost)
        return {strHost, strText};
    const CString strEscaped = Escaped(strHost);
    return {strEscaped, strEscaped};
}

} // namespace

bool CClientSock::IsMirrorName(const CString& strPrjName)
{
    // The UTF-8 form is what the folder is called. A broken character cuts it short: that is another name,
    // and another project may bear it.
    CString strUtf8;
    CString strBack;
    strPrjName.ToUtf8(strUtf8);
    strBack.FromUtf8(strUtf8.data(), strUtf8.size());
    return IsPlainName(strPrjName) && IsPlainName(strUtf8) && !strUtf8.empty() && strBack == strPrjName;
}

bool CClientSock::GetPrjPath(CString& strPrj, CString& strEvent, CString& strAlarm, CString& strHist)
{
    CExchange exchange(*this);
    const BYTE nCmd = CMD_PRJ_PATH;
    if (!exchange.IsOpen() || m_reqSock._Send(&nCmd, 1, 0) < 1)
        return false;
    std::array<BYTE, PATH_REPLY_SIZE> reply{};
    const int nGot = m_reqSock._Recv(reply.data(), static_cast<int>(reply.size()), 0);
    if (nGot < 1 || reply[0] != CMD_PRJ_PATH)
        return false;
    CWireReader reader(std::span<const BYTE>(reply).subspan(1));
    strPrj = CString(std::string(reader.Text()));
    strEvent = CString(std::string(reader.Text()));
    strAlarm = CString(std::string(reader.Text()));
    strHist = CString(std::string(reader.Text()));
    exchange.Succeed(reply.size() - static_cast<size_t>(nGot));
    return true;
}

bool CClientSock::AfterConnect(LPCSTR szHost, const CString& strPrjName, CString& strErr)
{
    if (m_bLocalDB) {
        if (GetPrjPath(m_strPrjPath, m_strEventPath, m_strAlarmPath, m_strHistPath))
            return true;
        strErr = NO_PRJ_PATH;
        return false;
    }
    CString strUtf8;
    strPrjName.ToUtf8(strUtf8);
    const SFolder host = HostFolder(szHost);
    if (!MakeTree(host.strDisk, strUtf8)) {
        strErr = NO_MIRROR;
        return false;
    }
    // Folders on disk bear UTF-8 names, texts in here are GB2312 and become UTF-8 where a file is opened.
    m_strPrjPath = RKDB_MIRROR_ROOT + host.strText + '/' + strPrjName + '/';
    return true;
}
