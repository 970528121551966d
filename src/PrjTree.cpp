// The project directory of a connection: the server's own when it runs here, else a private mirror.
#include "ClientSock.h"

#include "WireReader.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <sys/stat.h>

namespace {

constexpr mode_t MIRROR_MODE = 0700;
constexpr size_t PATH_REPLY_SIZE = 2048;

/// "无法获取工程路径": the project path could not be obtained. In GB2312, as all text is in here.
constexpr const char* NO_PRJ_PATH = "\xCE\xDE\xB7\xA8\xBB\xF1\xC8\xA1\xB9\xA4\xB3\xCC\xC2\xB7\xBE\xB6";

struct SMirrorDir
{
    const char* szName;
    bool bChmod; // its mode must hold whatever the umask is
};

constexpr std::array MIRROR_DIRS{
    SMirrorDir{"Window/", false},  SMirrorDir{"3DWnd/", false},        SMirrorDir{"Report/", false},
    SMirrorDir{"CtmGph/", false},  SMirrorDir{"ScnDrv/", false},       SMirrorDir{"DBDrv/", false},
    SMirrorDir{"Media/", false},   SMirrorDir{"SysCfg/", false},       SMirrorDir{"RecData/", false},
    SMirrorDir{"ExtData/", false}, SMirrorDir{"RecData/Event/", true}, SMirrorDir{"RecData/Alarm2/", true},
};

/// An existing folder is reused, and one that cannot be made shows as a file that cannot be written.
void MakeDir(const std::string& strPath, bool bChmod)
{
    static_cast<void>(::mkdir(strPath.c_str(), MIRROR_MODE));
    if (bChmod)
        static_cast<void>(::chmod(strPath.c_str(), MIRROR_MODE));
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
    // The UTF-8 form counts too: it is what the folder is called, and a broken character cuts it short.
    CString strUtf8;
    strPrjName.ToUtf8(strUtf8);
    return IsPlainName(strPrjName) && IsPlainName(strUtf8) && !strUtf8.empty();
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
    std::string strDir = RKDB_MIRROR_ROOT;
    MakeDir(strDir, false);
    strDir += host.strDisk;
    MakeDir(strDir, true);
    strDir += '/' + strUtf8;
    MakeDir(strDir, true);
    strDir.push_back('/');
    // Folders on disk bear UTF-8 names, texts in here are GB2312 and become UTF-8 where a file is opened.
    m_strPrjPath = RKDB_MIRROR_ROOT + host.strText + '/' + strPrjName + '/';
    for (const auto& dir : MIRROR_DIRS)
        MakeDir(strDir + dir.szName, dir.bChmod);
    return true;
}
