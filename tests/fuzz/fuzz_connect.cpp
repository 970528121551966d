// The handshake against a server or a relay centre that answers anything: result, texts and addresses are
// those that a second reading of the replies gives, and every record sent is whole.
#include "ClientSock.h"
#include "HostName.h"
#include "scripted_wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <optional>
#include <string>
#include <unistd.h>

namespace {

constexpr const char* RELAY = "p2p(192.0.2.7):plant";
constexpr const char* DIRECT = "192.0.2.1:81";
constexpr size_t RECORD_SIZE = 512; // no reply is longer
constexpr int MAX_REPLIES = 2 * CClientSock::MAX_REDIRECTS;

using Bytes = std::vector<BYTE>;

/// Three plain bytes of every four; what is left over is one or two of them.
std::optional<Bytes> Unscramble(std::span<const BYTE> scrambled)
{
    Bytes plain;
    for (size_t i = 0; i < scrambled.size(); i += 4) {
        const auto group = scrambled.subspan(i, std::min<size_t>(4, scrambled.size() - i));
        if (group.size() == 1)
            return std::nullopt;
        plain.push_back(static_cast<BYTE>(group[1] - group[0]));
        if (group.size() > 2)
            plain.push_back(static_cast<BYTE>(group[2] + group[0]));
        if (group.size() > 3)
            plain.push_back(group[3] ^ group[0]);
    }
    return plain;
}

std::string TextAt(const Bytes& plain, size_t nOffset)
{
    if (nOffset >= plain.size())
        return {};
    const auto from = plain.begin() + static_cast<std::ptrdiff_t>(nOffset);
    return {from, std::find(from, plain.end(), BYTE{0})};
}

std::string Show(const sockaddr_in& addr)
{
    char szIp[INET_ADDRSTRLEN] = {};
    FUZZ_CHECK(::inet_ntop(AF_INET, &addr.sin_addr, szIp, sizeof szIp));
    return szIp + (":" + std::to_string(ntohs(addr.sin_port)));
}

struct SWanted
{
    int nResult = CONNECT_FAILED;
    std::vector<std::string> connects;
    bool bLan = false;
    bool bRegistered = false; // the second connection was opened
    Bytes plain;              // of the registration reply, when the result is 0
};

/// The address that a relay centre's answer names.
std::string RedirectTo(std::span<const BYTE> reply)
{
    std::string strHost;
    for (size_t i = 4; i < 8; ++i)
        strHost += (i > 4 ? "." : "") + std::to_string(reply[i]);
    if (strHost == "0.0.0.0" || strHost == "255.255.255.255")
        strHost = "192.0.2.99"; // taken for names, which the look-up of this target gives that address
    const int nPort = reply[8] << 8 | reply[9];
    return strHost + ":" + std::to_string(nPort > 0 ? nPort : 80);
}

/// True when a reply is a redirect or, as far as it goes behind its first byte, begins like one.
bool IsLan(std::span<const BYTE> reply)
{
    std::string strWord(reply.begin() + 1, reply.begin() + std::min<std::ptrdiff_t>(4, std::ssize(reply)));
    for (char& ch : strWord)
        ch = ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
    return !strWord.empty() && strWord == std::string("lan").substr(0, strWord.size());
}

/// What single receives bring of a reply until it is enough; nothing when the reply ends before, or has no
/// end where it may have one.
template <class Fn> Bytes Until(const CScriptedWire& wire, const Bytes& reply, Fn isEnough)
{
    const size_t nMax = std::min(RECORD_SIZE, reply.size());
    for (size_t n = 0; n < nMax;) {
        n += wire.Piece(RECORD_SIZE - n, nMax - n);
        const Bytes soFar(reply.begin(), reply.begin() + static_cast<std::ptrdiff_t>(n));
        if (isEnough(soFar))
            return soFar;
    }
    return {};
}

/// A registration that is one needs its fixed part and the ends of two texts.
bool IsWholeAck(const Bytes& scrambled)
{
    const auto plain = Unscramble(scrambled);
    if (!plain || plain->empty())
        return false;
    if ((*plain)[0] != '8')
        return true;
    return plain->size() > 59 && std::count(plain->begin() + 59, plain->end(), BYTE{0}) >= 2;
}

/// The second reading of a handshake.
SWanted Follow(const CScriptedWire& wire, bool bRelay, const std::vector<Bytes>& replies)
{
    const auto replyAt = [&](size_t i) { return i < replies.size() ? replies[i] : Bytes(); };
    SWanted wanted;
    wanted.connects.emplace_back(bRelay ? "192.0.2.7:3968" : DIRECT);
    size_t nReply = 0;
    for (int nRedirects = 0;; ++nRedirects) {
        const bool bAtCentre = wanted.connects.back().ends_with(":3968");
        const auto isRedirect = [&](const Bytes& reply) {
            return bAtCentre && reply[0] == '7' && IsLan(reply);
        };
        const Bytes open = Until(wire, replyAt(nReply++), [&](const Bytes& reply) {
            return !isRedirect(reply) || reply.size() >= 10;
        });
        if (open.empty() || open[0] != '7') {
            wanted.nResult = !open.empty() && open[0] == '0' ? CONNECT_REFUSED : CONNECT_FAILED;
            return wanted;
        }
        if (!isRedirect(open))
            break;
        wanted.bLan = true;
        if (nRedirects == CClientSock::MAX_REDIRECTS)
            return wanted;
        wanted.connects.push_back(RedirectTo(open));
    }
    wanted.connects.push_back(std::string(wanted.connects.back()));
    wanted.bRegistered = true;
    const auto plain = Unscramble(Until(wire, replyAt(nReply), IsWholeAck));
    if (!plain || plain->empty())
        return wanted;
    if (plain->size() == 1 && (*plain)[0] == '0')
        wanted.nResult = CONNECT_NOT_AUTHENTICATED;
    if ((*plain)[0] == '8') {
        wanted.nResult = 0;
        wanted.plain = *plain;
    }
    return wanted;
}

void CheckAck(const Bytes& plain, const SNAckRegReq& ack, const CString& strPrjName, const CString& strTitle)
{
    FUZZ_CHECK(strPrjName == TextAt(plain, 59));
    FUZZ_CHECK(strTitle == TextAt(plain, 60 + strPrjName.size()));
    SNAckRegReq sent = ack;
    if (plain[22] == 16) {
        FUZZ_CHECK(ack.bFlag == 6);
        sent.bFlag = 16;
    }
    const auto* pSent = reinterpret_cast<const BYTE*>(&sent);
    FUZZ_CHECK(std::equal(pSent, pSent + sizeof sent, plain.begin() + 1));
    // Such a name is put into a path: no part of it may lead elsewhere.
    CString strUtf8;
    strPrjName.ToUtf8(strUtf8);
    CString strBack;
    strBack.FromUtf8(strUtf8.data(), strUtf8.size());
    if (CClientSock::IsMirrorName(strPrjName)) {
        FUZZ_CHECK(strBack == strPrjName);
        FUZZ_CHECK(!strUtf8.empty() && strUtf8 != "." && strUtf8 != "..");
        FUZZ_CHECK(strUtf8.find('/') == std::string::npos && strUtf8.find('\0') == std::string::npos);
    }
}

/// What went out on a socket that is open still: one scrambled record behind its command.
Bytes CheckSent(CScriptedWire& wire, const CSyncSocket& sock, BYTE nCmd)
{
    const auto* pChannel = wire.Find(sock.GetHandle());
    FUZZ_CHECK(pChannel && !pChannel->sent.empty() && pChannel->sent[0] == nCmd);
    const auto plain = Unscramble(std::span(pChannel->sent).subspan(1));
    FUZZ_CHECK(plain);
    return *plain;
}

std::string HostName()
{
    char szName[237] = {};
    ::gethostname(szName, sizeof szName - 1);
    return szName;
}

void CheckRequests(CScriptedWire& wire, const CClientSock& client, bool bRegistered)
{
    const Bytes open = CheckSent(wire, client.m_reqSock, '7');
    const bool bRelay = wire.Connected().back().sin_port == htons(CClientSock::RELAY_PORT);
    FUZZ_CHECK(bRelay ? open.size() >= 16 + 6 + 1 && open.back() == 0 : open.size() == 16);
    if (!bRegistered)
        return;
    const Bytes reg = CheckSent(wire, client.m_rcvSock, '8');
    FUZZ_CHECK(std::equal(reg.begin(), reg.begin() + 16, open.begin()));
    FUZZ_CHECK(TextAt(reg, 16) == HostName());
    FUZZ_CHECK(reg.size() == 16 + HostName().size() + 3 && reg[reg.size() - 2] == 1 && reg.back() == 1);
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    // A name that a redirect leads to is answered here; nobody outside is asked.
    static const FnLookUp fnLookUp = [](LPCSTR) { return std::optional(in_addr{::inet_addr("192.0.2.99")}); };
    if (g_fnLookUp != fnLookUp)
        g_fnLookUp = fnLookUp;

    CInput input({pData, nSize});
    CScriptedWire wire = MakeWire(input.Byte());
    const bool bRelay = input.Byte() & 1;
    std::vector<Bytes> replies;
    while (!input.IsEmpty() && replies.size() < MAX_REPLIES) {
        const auto reply = input.Segment();
        wire.Reply(reply);
        replies.emplace_back(reply.begin(), reply.end());
    }
    const SWanted wanted = Follow(wire, bRelay, replies);

    CClientSock client;
    CString strPrjName;
    CString strTitle;
    SNAckRegReq ack{};
    const int nResult = client.ConnectDB(bRelay ? RELAY : DIRECT, strPrjName, strTitle, ack, true);
    FUZZ_CHECK(nResult == wanted.nResult);
    std::vector<std::string> connects;
    std::ranges::transform(wire.Connected(), std::back_inserter(connects), Show);
    FUZZ_CHECK(connects == wanted.connects);
    FUZZ_CHECK(client.m_bLan == wanted.bLan);
    CheckRequests(wire, client, wanted.bRegistered);
    if (nResult == 0)
        CheckAck(wanted.plain, ack, strPrjName, strTitle);
    return 0;
}
