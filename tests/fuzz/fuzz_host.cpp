// Host texts: whom a connection is opened to and what it asks for is what a second reading of the text gives,
// and each text has a mirror folder of its own, which is the one that files are opened in.
#include "ClientSock.h"
#include "HostName.h"
#include "scripted_wire.h"
#include "second_reading.h"

#include <algorithm>
#include <arpa/inet.h>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<BYTE>;

constexpr size_t MAX_FOLDER_TEXT = 70; // three bytes for each fit a folder's name
constexpr const char* NAME_ADDRESS = "192.0.2.99";

std::string g_strAsked; // the name that was looked up

std::optional<in_addr> LookUp(LPCSTR szHost)
{
    g_strAsked = szHost;
    return in_addr{::inet_addr(NAME_ADDRESS)};
}

struct SWanted
{
    int nResult = 0;
    bool bRelay = false;
    std::string strHost;
    std::string strServer;
    std::string strCenter;
    unsigned nPort = 80;
};

/// The whole number that a text begins with, behind blanks and a sign; the nearest that fits.
int64_t NumberAtFront(const std::string& strText)
{
    size_t i = std::min(strText.find_first_not_of(" \t\n\v\f\r"), strText.size());
    const bool bMinus = i < strText.size() && strText[i] == '-';
    if (i < strText.size() && (strText[i] == '-' || strText[i] == '+'))
        ++i;
    int64_t n = 0;
    for (; i < strText.size() && strText[i] >= '0' && strText[i] <= '9'; ++i) {
        const int64_t nDigit = bMinus ? '0' - strText[i] : strText[i] - '0';
        if (__builtin_mul_overflow(n, 10, &n) || __builtin_add_overflow(n, nDigit, &n))
            return bMinus ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    }
    return n;
}

SWanted ReadAgain(const std::string& strText)
{
    SWanted wanted;
    wanted.strHost = strText;
    wanted.bRelay = Lower(strText.substr(0, 3)) == "p2p";
    if (!wanted.bRelay) {
        const size_t nColon = strText.rfind(':');
        if (nColon == strText.npos || nColon == 0)
            return wanted;
        wanted.strHost.resize(nColon);
        if (const auto nPort = NumberAtFront(strText.substr(nColon + 1)) & 0xFFFF; nPort != 0)
            wanted.nPort = static_cast<unsigned>(nPort);
        return wanted;
    }
    wanted.nPort = 3968;
    const size_t nColon = strText.find(':');
    if (nColon == strText.npos) {
        wanted.nResult = CONNECT_BAD_ADDRESS;
        return wanted;
    }
    wanted.strServer = strText.substr(nColon + 1);
    if (wanted.strServer.size() > 249)
        wanted.nResult = CONNECT_REFUSED;
    wanted.strCenter = RKDB_DEFAULT_CENTER;
    if (const size_t nOpen = strText.find('('); nOpen < nColon) {
        wanted.strCenter = strText.substr(nOpen + 1, nColon - nOpen - 1);
        while (wanted.strCenter.ends_with(')'))
            wanted.strCenter.pop_back();
    }
    return wanted;
}

void CheckParse(const std::string& strText, const SWanted& wanted)
{
    SServerAddr addr;
    FUZZ_CHECK(CClientSock::ParseHost(strText.c_str(), addr) == wanted.nResult);
    FUZZ_CHECK(addr.bRelay == wanted.bRelay);
    if (wanted.nResult != 0)
        return;
    FUZZ_CHECK(addr.strHost == wanted.strHost && addr.nPort == wanted.nPort);
    FUZZ_CHECK(addr.strServer == wanted.strServer && addr.strCenter == wanted.strCenter);
    FUZZ_CHECK(addr.nTimeOut == (wanted.bRelay ? 13000 : 8000));
}

/// A registration reply: project "P", scrambled with zeros.
Bytes Registered()
{
    Bytes plain(59);
    plain[0] = '8';
    plain.insert(plain.end(), {'P', 0, 0});
    Bytes scrambled;
    for (size_t i = 0; i < plain.size(); i += 3) {
        scrambled.push_back(0);
        for (size_t k = i; k < std::min(i + 3, plain.size()); ++k)
            scrambled.push_back(plain[k]);
    }
    return scrambled;
}

void CheckAddress(const sockaddr_in& addr, const SWanted& wanted)
{
    in_addr_t nAddress = wanted.bRelay ? ::inet_addr(wanted.strCenter.c_str()) : INADDR_ANY;
    if (nAddress == INADDR_ANY) { // no centre: the host text decides
        nAddress = ::inet_addr(wanted.strHost.c_str());
        if (nAddress == INADDR_ANY || nAddress == INADDR_NONE) {
            FUZZ_CHECK(g_strAsked == wanted.strHost);
            nAddress = ::inet_addr(NAME_ADDRESS);
        }
    }
    FUZZ_CHECK(addr.sin_addr.s_addr == nAddress && ntohs(addr.sin_port) == wanted.nPort);
}

/// A whole handshake with a server that agrees to everything.
void CheckConnect(CInput& input, const std::string& strText, const SWanted& wanted)
{
    CScriptedWire wire = MakeWire(input.Byte() & 0x80); // replies come whole
    wire.Reply(Bytes{'7'});
    wire.Reply(Registered());
    CClientSock client;
    CString strPrjName;
    CString strTitle;
    SNAckRegReq ack{};
    FUZZ_CHECK(client.ConnectDB(strText.c_str(), strPrjName, strTitle, ack, true) == wanted.nResult);
    if (wanted.nResult != 0) {
        FUZZ_CHECK(wire.Connected().empty());
        return;
    }
    FUZZ_CHECK(strPrjName == "P" && wire.Connected().size() == 2);
    for (const sockaddr_in& addr : wire.Connected())
        CheckAddress(addr, wanted);
    const auto* pChannel = wire.Find(client.m_reqSock.GetHandle());
    FUZZ_CHECK(pChannel && !pChannel->sent.empty() && pChannel->sent[0] == '7');
    const Bytes plain = Unscrambled(std::span(pChannel->sent).subspan(1));
    const bool bAtCentre = wanted.nPort == 3968;
    FUZZ_CHECK(plain.size() == (bAtCentre ? 16 + 6 + wanted.strServer.size() + 1 : 16));
    if (bAtCentre) {
        FUZZ_CHECK(std::all_of(plain.begin() + 16, plain.begin() + 22, [](BYTE b) { return b == 0; }));
        FUZZ_CHECK(std::string(plain.begin() + 22, plain.end()) == wanted.strServer + '\0');
    }
}

/// Own folders: other processes build mirrors too.
std::string Prefix()
{
    return "fuzz-" + std::to_string(::getpid()) + '-';
}

void RemoveFolders()
{
    std::vector<fs::path> own;
    for (const auto& entry : fs::directory_iterator(RKDB_MIRROR_ROOT))
        if (entry.path().filename().string().starts_with(Prefix()))
            own.push_back(entry.path());
    for (const fs::path& path : own)
        fs::remove_all(path);
}

/// The folder that files of the project are opened in, built; empty when the text or the name cannot have
/// one.
std::string Mirror(const std::string& strText, const CString& strPrjName)
{
    if (strText.find('/') != strText.npos || strText.size() > MAX_FOLDER_TEXT ||
        !CClientSock::IsMirrorName(strPrjName))
        return {};
    CString strName;
    strPrjName.ToUtf8(strName);
    FUZZ_CHECK(strName != "." && strName != ".." && strName.find('/') == strName.npos);
    if (strName.size() > 255)
        return {}; // no folder can be called so
    CClientSock client;
    client.m_bLocalDB = false;
    CString strErr;
    FUZZ_CHECK(client.AfterConnect((Prefix() + strText).c_str(), strPrjName, strErr) && strErr.empty());
    CString strOpened;
    client.m_strPrjPath.ToUtf8(strOpened);
    const fs::path project = fs::path(std::string(strOpened)).parent_path();
    FUZZ_CHECK(fs::is_directory(fs::symlink_status(project)));
    FUZZ_CHECK(fs::is_directory(project / "RecData/Alarm2"));
    FUZZ_CHECK(project.filename() == std::string(strName));
    FUZZ_CHECK(fs::equivalent(project.parent_path().parent_path(), RKDB_MIRROR_ROOT));
    FUZZ_CHECK(project.parent_path().filename().string().starts_with(Prefix()));
    FUZZ_CHECK((fs::status(project).permissions() & (fs::perms::group_all | fs::perms::others_all)) ==
               fs::perms::none);
    return strOpened;
}

std::string WithoutColons(std::string strText)
{
    std::ranges::replace(strText, ':', '_');
    return strText;
}

std::string TextOf(std::span<const BYTE> bytes)
{
    return std::string(bytes.begin(), bytes.end()).c_str();
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    g_fnLookUp = LookUp;
    CInput input({pData, nSize});
    const bool bMirror = input.Byte() & 1;
    if (!bMirror) {
        const std::string strText = TextOf(input.Rest().subspan(input.IsEmpty() ? 0 : 1));
        const SWanted wanted = ReadAgain(strText);
        CheckParse(strText, wanted);
        CheckConnect(input, strText, wanted);
        return 0;
    }
    const CString strPrjName(TextOf(input.Segment()));
    const std::string strText = TextOf(input.Segment());
    const std::string strOther = TextOf(input.Rest());
    const std::string strFolder = Mirror(strText, strPrjName);
    const std::string strOtherFolder = Mirror(strOther, strPrjName);
    // A colon and its stand-in are one; a per cent sign may be one that stands for a byte.
    if (!strFolder.empty() && WithoutColons(strText) != WithoutColons(strOther) &&
        (strText + strOther).find('%') == std::string::npos)
        FUZZ_CHECK(strFolder != strOtherFolder);
    RemoveFolders();
    return 0;
}
