// What a client sends to the simulator: every split of the same bytes gives the same requests, and they are
// those of a second reading. The first request may be one of the handshake.
#include "Requests.h"
#include "second_reading.h"

#include <algorithm>

namespace {

constexpr WORD DRIVERS = 3;
constexpr size_t MAX_TEXT = 4096; // of a login and of a download
constexpr size_t MAX_NAME = 1025; // of a looked-up name with its driver and its end
constexpr size_t MAX_WRITE = 16384;
constexpr size_t MAX_COUNT = 8192;
constexpr size_t MAX_RECORD = 383; // plain bytes of a handshake record

using Span = std::span<const BYTE>;

WORD Word(Span bytes)
{
    return static_cast<WORD>(LittleWord(bytes));
}

bool HasDriver(WORD nDriver)
{
    return nDriver < DRIVERS;
}

enum class EGreeting
{
    None,
    Open,
    OpenRelay,
    Register,
};

/// What was understood. A look-up is one entry for each name: where it is cut is not the client's doing.
struct SSaid
{
    std::vector<std::string> requests;
    bool bBad = false;

    bool operator==(const SSaid&) const = default;
};

// The forms of requests as texts. Both readings end in these.

std::string Bytewise(Span bytes)
{
    return {bytes.begin(), bytes.end()};
}

std::string Name(WORD nDriver, const std::string& strName)
{
    return "name " + std::to_string(nDriver) + ' ' + strName;
}

std::string Address(WORD nDriver, WORD nTag)
{
    return ' ' + std::to_string(nDriver) + ':' + std::to_string(nTag);
}

std::string Copy(const char* szKind, bool bThere, DWORD tTime, DWORD nSize)
{
    return bThere ? szKind + std::to_string(tTime) + ',' + std::to_string(nSize) : std::string();
}

struct SShow
{
    std::vector<std::string>& out;

    void operator()(const SPathsRequest&) const { out.emplace_back("paths"); }
    void operator()(const SAlarmsRequest&) const { out.emplace_back("alarms"); }
    void operator()(const SLoginRequest& one) const
    {
        out.push_back("login " + one.strUser + '\0' + one.strPassword);
    }
    void operator()(const SReleaseRequest& one) const
    {
        out.push_back("release " + std::to_string(one.nHandle));
    }
    void operator()(const SReadRequest& one) const { out.push_back("read" + Addresses(one.tags)); }
    void operator()(const SAdviseRequest& one) const { out.push_back("advise" + Addresses(one.tags)); }
    void operator()(const SLookupRequest& one) const
    {
        FUZZ_CHECK(!one.names.empty());
        for (const auto& [nDriver, strName] : one.names)
            out.push_back(Name(nDriver, strName));
    }
    void operator()(const SDownloadRequest& one) const
    {
        const SFileCopy last = one.last.value_or(SFileCopy());
        const SFileCopy gz = one.gz.value_or(SFileCopy());
        out.push_back("download " + one.strName +
                      Copy(" last ", one.last.has_value(), last.tTime, last.nSize) +
                      Copy(" gz ", one.gz.has_value(), gz.tTime, gz.nSize) + (one.bHello ? " hello" : ""));
    }
    void operator()(const SWriteRequest& one) const
    {
        std::string strText = "write";
        for (const auto& [tag, value] : one.values)
            strText += Address(tag.nDriver, tag.nTag) + '=' + Bytewise(Encode(value));
        out.push_back(strText);
    }
    static std::string Addresses(const std::vector<STagRef>& tags)
    {
        std::string strText;
        for (const STagRef tag : tags)
            strText += Address(tag.nDriver, tag.nTag);
        return strText;
    }
};

/// The code under test, fed piece by piece as a conversation feeds it.
class CFed
{
public:
    explicit CFed(EGreeting eGreeting) : m_eGreeting(eGreeting) {}

    void Feed(Span piece)
    {
        m_in.insert(m_in.end(), piece.begin(), piece.end());
        while (!m_said.bBad && !m_in.empty()) {
            const SFrame frame = Frame();
            m_said.bBad = frame.eState == EFrame::Bad;
            if (frame.eState != EFrame::Whole)
                return;
            FUZZ_CHECK(frame.nLen > 0 && frame.nLen <= m_in.size());
            Take(Span(m_in).first(frame.nLen));
            m_in.erase(m_in.begin(), m_in.begin() + static_cast<std::ptrdiff_t>(frame.nLen));
        }
    }

    /// What was understood, with the whole names of a look-up whose last name is not whole yet.
    SSaid Said() const
    {
        SSaid said = m_said;
        if (said.bBad || m_in.empty() || m_eGreeting != EGreeting::None || m_bIgnored)
            return said;
        size_t nAt = m_bLookedUp && !IsCommand(m_in[0]) ? 0 : 1;
        if (nAt == 1 && m_in[0] != 'L')
            return said;
        for (size_t i = nAt + 2; i < m_in.size(); ++i) {
            if (m_in[i] != 0)
                continue;
            said.requests.push_back(
                Name(Word(Span(m_in).subspan(nAt)), Bytewise(Span(m_in).subspan(nAt + 2, i - nAt - 2))));
            nAt = i + 1;
            i = nAt + 1;
        }
        return said;
    }

private:
    SFrame Frame() const
    {
        if (m_bIgnored)
            return {EFrame::Whole, m_in.size()};
        switch (m_eGreeting) {
        case EGreeting::None:
            return FrameRequest(m_in, m_bLookedUp, HasDriver);
        case EGreeting::Register:
            return FrameRegister(m_in);
        default:
            return FrameOpen(m_in, m_eGreeting == EGreeting::OpenRelay);
        }
    }

    void Take(Span whole)
    {
        if (m_bIgnored)
            return;
        if (m_eGreeting == EGreeting::None) {
            const Request request = ParseRequest(whole, m_bLookedUp);
            m_bLookedUp = std::holds_alternative<SLookupRequest>(request);
            std::visit(SShow{m_said.requests}, request);
        } else if (m_eGreeting == EGreeting::Register) {
            const SRegisterRequest reg = ParseRegister(whole);
            m_said.requests.push_back("register " + Bytewise(reg.id) + reg.strHost + '\0' +
                                      std::to_string(reg.bLogin));
            m_bIgnored = true; // a receive connection has nothing more to say
        } else {
            const SOpenRequest open = ParseOpen(whole, m_eGreeting == EGreeting::OpenRelay);
            m_said.requests.push_back("open " + Bytewise(open.id) + open.strServer);
        }
        m_eGreeting = EGreeting::None;
    }

    EGreeting m_eGreeting;
    bool m_bIgnored = false;
    bool m_bLookedUp = false;
    Bytes m_in;
    SSaid m_said;
};

/// The second reading: all bytes at once, from front to back.
class CAgain
{
public:
    CAgain(EGreeting eGreeting, Span bytes) : m_left(bytes)
    {
        if (eGreeting != EGreeting::None && !m_left.empty() && !Greet(eGreeting))
            return;
        while (!m_left.empty() && One()) {
        }
    }

    SSaid said;

private:
    /// Each of these takes one request off the front. False: it is not whole, or bad, and nothing follows.
    bool One();
    bool Greet(EGreeting eGreeting);
    bool Lookup();
    bool Login();
    bool Download();
    bool Items(const char* szWhat, size_t nItem);
    bool Write();

    bool Bad()
    {
        said.bBad = true;
        return false;
    }
    bool Done(std::string strRequest, size_t nLen)
    {
        said.requests.push_back(std::move(strRequest));
        m_left = m_left.subspan(nLen);
        return true;
    }
    /// The offset behind the NUL at or behind nFrom, or 0.
    size_t BehindNul(size_t nFrom) const
    {
        const size_t nNul = std::min(Bytewise(m_left).find('\0', nFrom), m_left.size());
        return nNul == m_left.size() ? 0 : nNul + 1;
    }

    Span m_left;
    bool m_bNames = false; // further names may follow
};

bool CAgain::Greet(EGreeting eGreeting)
{
    const bool bRegister = eGreeting == EGreeting::Register;
    const size_t nFrom = bRegister ? 16 : 22;
    std::string strPlain = Bytewise(Unscrambled(m_left.subspan(1)));
    size_t nPlain = 16;
    if (eGreeting != EGreeting::Open) {
        strPlain.resize(std::min(strPlain.size(), MAX_RECORD));
        const size_t nNul = strPlain.find('\0', nFrom);
        nPlain = nNul == strPlain.npos ? MAX_RECORD + 1 : nNul + 1 + (bRegister ? 2 : 0);
    }
    if (nPlain > strPlain.size())
        return eGreeting != EGreeting::Open && strPlain.size() == MAX_RECORD ? Bad() : false;
    const std::string strText = eGreeting == EGreeting::Open ? "" : std::string(strPlain.c_str() + nFrom);
    if (bRegister) {
        const auto bLogin = static_cast<BYTE>(strPlain[nPlain - 2]);
        Done("register " + strPlain.substr(0, 16) + strText + '\0' + std::to_string(bLogin), 0);
        return false;
    }
    constexpr size_t TAIL[] = {0, 2, 3};
    return Done("open " + strPlain.substr(0, 16) + strText, 1 + nPlain / 3 * 4 + TAIL[nPlain % 3]);
}

bool CAgain::One()
{
    const BYTE nCmd = m_left[0];
    const bool bCommand = std::string("349LdHbgn").find(static_cast<char>(nCmd)) != std::string::npos;
    if (!bCommand)
        return m_bNames ? Lookup() : Bad();
    m_bNames = false;
    switch (nCmd) {
    case '3':
        return Done("paths", 1);
    case 'n':
        return Done("alarms", 1);
    case '4':
        return Download();
    case '9':
        return Login();
    case 'L':
        m_left = m_left.subspan(1);
        return Lookup();
    case 'd':
        return m_left.size() >= 9 &&
               Done("release " + std::to_string(static_cast<int64_t>(Number(m_left.subspan(1, 8)))), 9);
    case 'H':
        return Items("read", 4);
    case 'b':
        return Items("advise", 5);
    default:
        return Write();
    }
}

/// One name. The first one of a look-up may ask a driver that there is not.
bool CAgain::Lookup()
{
    if (m_left.size() < 2)
        return false;
    const WORD nDriver = Word(m_left);
    if (m_bNames && !HasDriver(nDriver))
        return Bad();
    const size_t nLen = BehindNul(2);
    if (nLen == 0 ? m_left.size() >= MAX_NAME : nLen > MAX_NAME)
        return Bad();
    if (nLen == 0)
        return false;
    m_bNames = true;
    return Done(Name(nDriver, Bytewise(m_left.subspan(2, nLen - 3))), nLen);
}

bool CAgain::Login()
{
    const size_t nUser = BehindNul(1);
    const size_t nLen = nUser ? BehindNul(nUser) : 0;
    if (nLen == 0 ? m_left.size() >= MAX_TEXT : nLen > MAX_TEXT)
        return Bad();
    return nLen > 0 && Done("login " + Bytewise(m_left.subspan(1, nLen - 2)), nLen);
}

bool CAgain::Download()
{
    const std::string strAll = Bytewise(m_left);
    const size_t nEnd = strAll.find("\r\n\r\n");
    if (nEnd == strAll.npos ? strAll.size() >= MAX_TEXT : nEnd + 4 > MAX_TEXT)
        return Bad();
    if (nEnd == strAll.npos)
        return false;
    std::optional<DWORD> numbers[4];
    bool bHello = false;
    const auto lines = Split(strAll.substr(1, nEnd - 1), "\r\n");
    for (size_t i = 1; i < lines.size(); ++i) {
        const size_t nColon = lines[i].find(':');
        const std::string strName = Lower(lines[i].substr(0, nColon));
        const std::string strValue = nColon == std::string::npos ? "" : lines[i].substr(nColon + 1);
        constexpr const char* NAMES[] = {"lasttime", "size", "gztime", "gzsize"};
        for (size_t n = 0; n < 4; ++n)
            if (strName == NAMES[n])
                numbers[n] = HexAtFront(strValue);
        if (strName == "hello")
            bHello = Lower(strValue.substr(0, 3)) == "yes";
    }
    const auto copy = [&](const char* szKind, size_t n) {
        return Copy(szKind, numbers[n] || numbers[n + 1], numbers[n].value_or(0), numbers[n + 1].value_or(0));
    };
    return Done("download " + lines[0] + copy(" last ", 0) + copy(" gz ", 2) + (bHello ? " hello" : ""),
                nEnd + 4);
}

bool CAgain::Items(const char* szWhat, size_t nItem)
{
    if (m_left.size() < 3)
        return false;
    const size_t nCount = Word(m_left.subspan(1));
    if (nCount > MAX_COUNT)
        return Bad();
    if (m_left.size() < 3 + nCount * nItem)
        return false;
    std::string strText = szWhat;
    for (size_t i = 0; i < nCount; ++i) {
        const Span item = m_left.subspan(3 + i * nItem);
        strText += Address(Word(item), Word(item.subspan(2)));
    }
    return Done(strText, 3 + nCount * nItem);
}

bool CAgain::Write()
{
    if (m_left.size() < 3)
        return false;
    const Span all = m_left.first(std::min(m_left.size(), MAX_WRITE));
    const auto cut = [&] { return all.size() == MAX_WRITE ? Bad() : false; };
    std::string strText = "write";
    Span rest = all.subspan(3);
    for (size_t nLeft = Word(m_left.subspan(1)); nLeft > 0; --nLeft) {
        if (rest.size() < 6)
            return cut();
        if (Word(rest.subspan(4)) & 0x2000)
            return Bad();
        const auto value = DecodeTyped(rest.subspan(4));
        if (!value)
            return cut();
        strText += Address(Word(rest), Word(rest.subspan(2))) + '=' + Bytewise(value->value);
        rest = rest.subspan(4 + value->nUsed);
    }
    return Done(strText, all.size() - rest.size());
}

/// nPiece bytes at a time; 0: all at once.
SSaid InPieces(EGreeting eGreeting, Span bytes, size_t nPiece)
{
    CFed fed(eGreeting);
    while (!bytes.empty()) {
        const size_t nLen = nPiece > 0 ? std::min(nPiece, bytes.size()) : bytes.size();
        fed.Feed(bytes.first(nLen));
        bytes = bytes.subspan(nLen);
    }
    return fed.Said();
}

SSaid CutAt(EGreeting eGreeting, Span bytes, size_t nCut)
{
    CFed fed(eGreeting);
    fed.Feed(bytes.first(nCut));
    fed.Feed(bytes.subspan(nCut));
    return fed.Said();
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    if (nSize < 2)
        return 0;
    const auto eGreeting = static_cast<EGreeting>(pData[0] & 3);
    const size_t nPiece = pData[1];
    const Span bytes(pData + 2, nSize - 2);
    const SSaid wanted = CAgain(eGreeting, bytes).said;
    FUZZ_CHECK(InPieces(eGreeting, bytes, 0) == wanted);
    // A request that is not whole is looked at again with each piece, so of what is long only some cuts are
    // tried.
    const bool bShort = bytes.size() <= 512;
    FUZZ_CHECK(!bShort || InPieces(eGreeting, bytes, 1) == wanted);
    FUZZ_CHECK(InPieces(eGreeting, bytes, nPiece + (bShort ? 0 : bytes.size() / 64)) == wanted);
    const size_t nStep = 1 + bytes.size() / (bShort ? 64 : 4);
    for (size_t nCut = 1 + nPiece % nStep; nCut < bytes.size(); nCut += nStep)
        FUZZ_CHECK(CutAt(eGreeting, bytes, nCut) == wanted);
    return 0;
}
