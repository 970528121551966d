// Every reader of a reply, one request after the other on one connection: each takes what a second reading of
// the reply gives, whatever earlier replies have left behind, and nothing else changes. Where the second
// reading no longer knows which request a byte answers, the connection has ended wholly; the values that it
// has brought stay.
#include "core_under_test.h"

#include <algorithm>
#include <functional>
#include <optional>

namespace {

constexpr WORD TAGS = 16;
constexpr WORD READ_TAGS = 8; // the first half is read, the other subscribed
constexpr int MAX_REQUESTS = 24;
constexpr size_t MAX_BLOCK = 4096;
constexpr BYTE CLOSE = 0x80; // of a request's byte: its reply is the connection's last

using Bytes = std::span<const BYTE>;

/// The part of a reply that has not been received, by a second reading.
class CReply
{
public:
    CReply(const CScriptedWire& wire, Bytes left) : m_wire(wire), m_left(left) {}
    bool Take(size_t nLen, Bytes& part)
    {
        if (nLen > m_left.size())
            return false;
        part = m_left.first(nLen);
        m_left = m_left.subspan(nLen);
        return true;
    }
    /// What single receives give of the first nMax bytes until it is enough; nothing when the reply ends
    /// before.
    Bytes Until(size_t nMax, const std::function<bool(Bytes)>& isEnough)
    {
        const Bytes all = m_left;
        for (size_t n = 0; n < nMax && n < all.size();) {
            n += m_wire.Piece(nMax - n, all.size() - n);
            if (n == nMax || isEnough(all.first(n))) {
                m_left = all.subspan(n);
                return all.first(n);
            }
        }
        return {};
    }
    Bytes Left() const { return m_left; }

private:
    const CScriptedWire& m_wire;
    Bytes m_left;
};

class CDialogue
{
public:
    explicit CDialogue(CInput& input)
        : m_input(input), m_nControl(input.Byte()), m_wire(MakeWire(m_nControl & 0x7F))
    {
    }

    void Play()
    {
        for (int i = 0; i < MAX_REQUESTS && !m_input.IsEmpty(); ++i) {
            if (!m_core)
                Connect();
            const BYTE nRequest = m_input.Byte();
            const Bytes reply = m_input.Segment();
            if ((nRequest & 0x7F) % 9 == 8) {
                Notify(reply);
            } else {
                m_bClose = (nRequest | m_nControl) & CLOSE;
                Ask((nRequest & 0x7F) % 9, reply);
            }
            CheckValues();
            if (m_bLost)
                m_core.reset();
        }
    }

private:
    /// A new connection: nothing of the last one counts for it.
    void Connect()
    {
        m_core.emplace(m_wire, TAGS);
        m_slots.clear();
        m_expected.assign(TAGS, Encoded{0, 0});
        m_nAdvised = m_nTail = 0;
        m_left = {};
        m_bClosed = m_bLost = false;
        m_strRead = Learn("r", 0, READ_TAGS);
        m_strAdvised = Learn("s", READ_TAGS, TAGS - READ_TAGS);
    }

    std::string Learn(const char* szPrefix, WORD nFirst, WORD nCount)
    {
        std::string strNames;
        std::vector<WORD> positions;
        for (WORD i = 0; i < nCount; ++i) {
            strNames += (i > 0 ? "," : "") + (szPrefix + std::to_string(i));
            positions.push_back(static_cast<WORD>(nFirst + i));
        }
        const auto slots = m_core->Learn(strNames, positions);
        m_slots.insert(m_slots.end(), slots.begin(), slots.end());
        return strNames;
    }

    /// What is there before a request is sent ends the connection, but for the rest of a reply without a
    /// known end.
    bool IsQuiet()
    {
        if (m_nTail > 0)
            m_left = m_left.subspan(m_wire.Piece(m_nTail, m_left.size()));
        m_nTail = 0;
        return m_left.empty() && !m_bClosed;
    }

    void Ask(int nRequest, Bytes bytes)
    {
        const bool bAsks = nRequest != 2 || m_nAdvised < TAGS - READ_TAGS;
        const bool bSends = bAsks && IsQuiet();
        m_bLost = bAsks && !bSends;
        if (bSends)
            m_wire.Reply(bytes, m_bClose);
        auto& channel = Channel();
        channel.sent.clear();
        CReply reply(m_wire, bSends ? bytes : Bytes());
        Request(nRequest, reply, bSends);
        // The channel outlives its descriptor.
        FUZZ_CHECK(channel.sent.empty() == !bSends);
        m_core->CheckWhole(!m_bLost);
        if (!bSends)
            return;
        m_left = reply.Left();
        m_bClosed = m_bClose;
        FUZZ_CHECK(m_bLost || std::ranges::equal(channel.incoming, m_left));
    }

    CScriptedWire::SChannel& Channel()
    {
        auto* pChannel = m_wire.Find(m_core->Core().m_reqSock.GetHandle());
        FUZZ_CHECK(pChannel);
        return *pChannel;
    }

    /// Makes a request, checks its result and notes whether it has ended the connection. Without a reply
    /// where nothing is sent.
    void Request(int nRequest, CReply& reply, bool bSends)
    {
        switch (nRequest) {
        case 0:
            return LookUp(reply);
        case 1:
            return Read(reply);
        case 2:
            return Advise(reply, bSends);
        case 3:
            return GetPosition(reply);
        case 4:
            return Unadvise(reply);
        case 5:
            return Alarms(reply);
        case 6:
            return LogIn(reply);
        default:
            return ProjectPath(reply);
        }
    }

    /// A refusal is as long as what it refuses.
    void LookUp(CReply& reply)
    {
        const std::string strNumber = std::to_string(m_nNames++);
        Bytes whole;
        m_bLost = !reply.Take(9, whole);
        CDBDriver::TagSlots slots;
        const bool bDone =
            m_core->Driver().CheckTagId(("x" + strNumber + ", ,r1,y" + strNumber).c_str(), slots);
        FUZZ_CHECK(bDone == (!m_bLost && whole[0] == 'L'));
        if (!bDone)
            return;
        const auto slotAt = [&](size_t nOffset) {
            const unsigned nPos = LittleWord(whole.subspan(nOffset));
            return nPos < TAGS ? m_slots[nPos] : nullptr;
        };
        FUZZ_CHECK((slots == CDBDriver::TagSlots{nullptr, m_slots[1], slotAt(1), slotAt(5)}));
    }

    void Read(CReply& reply)
    {
        bool bGood = true;
        m_bLost = !ReadBlocks(reply, bGood);
        CDBDriver::TagSlots slots;
        const bool bDone = m_core->Driver()._GetTagValue(m_strRead.c_str(), slots);
        FUZZ_CHECK(bDone == (!m_bLost && bGood));
        FUZZ_CHECK(std::equal(slots.begin(), slots.end(), m_slots.begin(), m_slots.begin() + READ_TAGS));
    }

    /// The second reading of a read's reply: false when it is not known where it ends. What comes before a
    /// fault is kept.
    bool ReadBlocks(CReply& reply, bool& bGood)
    {
        size_t nStored = 0;
        for (;;) {
            Bytes head;
            Bytes block;
            if (!reply.Take(4, head) || head[0] != 'H' || !reply.Take(LittleWord(head.subspan(2)), block))
                return false;
            bGood = bGood && block.size() <= MAX_BLOCK;
            while (bGood && !block.empty() && nStored < READ_TAGS)
                bGood = StoreNext(block, nStored++);
            if (head[1] != 1)
                return true;
        }
    }

    bool StoreNext(Bytes& block, size_t nTag)
    {
        const auto decoded = DecodeTyped(block);
        if (!decoded)
            return false;
        m_expected[nTag] = decoded->value;
        block = block.subspan(decoded->nUsed);
        return true;
    }

    /// A block that is too long or has not every value whole hides how much follows.
    void Advise(CReply& reply, bool bSends)
    {
        const size_t nFirst = READ_TAGS + m_nAdvised;
        Bytes block;
        size_t nTag = nFirst;
        for (; nTag < TAGS; ++nTag) {
            Bytes head;
            if (block.empty() &&
                (!reply.Take(3, head) || head[0] != 'b' || LittleWord(head.subspan(1)) > MAX_BLOCK ||
                 !reply.Take(LittleWord(head.subspan(1)), block)))
                break;
            if (!StoreNext(block, nTag))
                break;
        }
        m_bLost = m_bLost || (bSends && nTag < TAGS);
        FUZZ_CHECK(m_core->Driver()._ConnectTag(m_strAdvised.c_str()) == (nTag == TAGS));
        m_nAdvised = nTag - READ_TAGS;
        for (size_t i = 0; i < TAGS; ++i)
            FUZZ_CHECK(m_slots[i]->bSubscribe == (i >= READ_TAGS && i < nTag));
    }

    /// A short reply that may have more than is asked for: its bytes, or nothing, which ends the connection.
    Bytes Short(CReply& reply, BYTE nFirst, size_t nLeast, size_t nMax)
    {
        const Bytes got =
            reply.Until(nMax, [&](Bytes bytes) { return bytes[0] != nFirst || bytes.size() >= nLeast; });
        m_bLost = got.empty() || got[0] != nFirst;
        m_nTail = m_bLost ? 0 : nMax - got.size();
        return got;
    }

    void GetPosition(CReply& reply)
    {
        const Bytes got = Short(reply, 'L', 3, 16);
        WORD nPos = 0x5A5A;
        FUZZ_CHECK(m_core->Core().GetTagId(0, "name", &nPos) == !m_bLost);
        FUZZ_CHECK(nPos == (m_bLost ? 0x5A5A : LittleWord(got.subspan(1))));
    }

    void Unadvise(CReply& reply)
    {
        Short(reply, 'd', 1, 16);
        FUZZ_CHECK(m_core->Core().UnadviseTag(7) == !m_bLost);
    }

    void Alarms(CReply& reply)
    {
        Bytes head;
        Bytes records;
        m_bLost = !reply.Take(3, head) || head[0] != 'n' ||
                  !reply.Take(S2RtAlarm2::WIRE_SIZE * LittleWord(head.subspan(1)), records);
        std::vector<S2RtAlarm2> alarms;
        FUZZ_CHECK(m_core->ReadActiveAlarms(alarms) == !m_bLost);
        if (m_bLost)
            return;
        std::vector<BYTE> again(records.size());
        CWireWriter writer(again);
        for (const S2RtAlarm2& alarm : alarms)
            WriteRtAlarm(writer, alarm);
        FUZZ_CHECK(!writer.IsBad() && std::ranges::equal(again, records));
    }

    void LogIn(CReply& reply)
    {
        const Bytes got = Short(reply, '9', 9, 256);
        auto eWanted = EConnect::Protocol;
        if (got.empty())
            eWanted = EConnect::Failed;
        else if (got[0] == '9')
            eWanted = EConnect::Connected;
        else if (got[0] == '0')
            eWanted = EConnect::LoginRefused;
        DWORD nRights = 0x5A5A;
        FUZZ_CHECK(m_core->Login(nRights) == eWanted);
        if (eWanted == EConnect::Connected)
            FUZZ_CHECK(nRights == Number(got.subspan(5, 4)));
    }

    /// Read as it lies in the buffer of one receive; no server is asked for it, see CClientSock::_IsLocalDB.
    void ProjectPath(CReply& reply)
    {
        const Bytes got = Short(reply, '3', 1, 2048);
        std::string strWhole(got.begin(), got.end());
        std::array<CString, 4> texts;
        FUZZ_CHECK(m_core->Core().GetPrjPath(texts[0], texts[1], texts[2], texts[3]) == !m_bLost);
        if (m_bLost)
            return;
        strWhole.resize(2048);
        size_t nPos = 1;
        for (const CString& strText : texts) {
            const size_t nNul = nPos == std::string::npos ? nPos : strWhole.find('\0', nPos);
            FUZZ_CHECK(strText ==
                       (nNul == std::string::npos ? std::string() : strWhole.substr(nPos, nNul - nPos)));
            nPos = nNul == std::string::npos ? nNul : nNul + 1;
        }
    }

    /// A change that the server pushes, at the front of what has come in.
    void Notify(Bytes bytes)
    {
        const int nLen = m_core->Core().OnDBNotify(bytes, nullptr);
        if (bytes.size() < 2) {
            FUZZ_CHECK(nLen == NOTIFY_CUT);
        } else if (LittleWord(bytes) == SYSTEM_NOTIFY) {
            const auto hasTag = [](WORD nDriver, WORD nTag) { return nDriver == 0 && nTag < TAGS; };
            FUZZ_CHECK(nLen == SysNotifyLength(bytes, hasTag));
        } else if (LittleWord(bytes) != 0) {
            FUZZ_CHECK(nLen == NOTIFY_STOP);
        } else if (bytes.size() < 4) {
            FUZZ_CHECK(nLen == NOTIFY_CUT);
        } else {
            NotifyTag(LittleWord(bytes.subspan(2)), bytes.subspan(4), nLen);
        }
        m_core->CheckWhole(true);
    }

    void NotifyTag(unsigned nTag, Bytes payload, int nLen)
    {
        const unsigned nType = nTag < TAGS ? LittleWord(m_expected[nTag]) : 0;
        if (nType <= 1) { // no such tag, or none with a value whose type would tell the length
            FUZZ_CHECK(nLen == NOTIFY_STOP);
            return;
        }
        const auto decoded = DecodePayload(nType, payload);
        FUZZ_CHECK(nLen == (!decoded             ? NOTIFY_CUT
                            : decoded->nUsed > 0 ? static_cast<int>(decoded->nUsed) + 4
                                                 : NOTIFY_STOP));
        if (decoded)
            m_expected[nTag] = decoded->value;
    }

    void CheckValues()
    {
        for (size_t i = 0; i < TAGS; ++i)
            FUZZ_CHECK(Encode(m_slots[i]->value) == m_expected[i]);
    }

    CInput& m_input;
    const BYTE m_nControl;
    CScriptedWire m_wire;
    std::optional<CDBCoreTest> m_core; // none: the connection has ended
    std::string m_strRead;
    std::string m_strAdvised;
    CDBDriver::TagSlots m_slots; // by position
    std::vector<Encoded> m_expected;
    Bytes m_left;           // what has come and was not received
    size_t m_nTail = 0;     // how much of that the last reply may still claim
    bool m_bClose = false;  // the peer ends the connection behind the next reply
    bool m_bClosed = false; // it has
    bool m_bLost = false;
    size_t m_nAdvised = 0;
    int m_nNames = 0;
};

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    CInput input({pData, nSize});
    CDialogue(input).Play();
    return 0;
}
