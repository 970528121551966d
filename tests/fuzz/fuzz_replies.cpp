// Every reader of a reply, one request after the other on one connection: each takes what a second reading of
// the reply gives, whatever earlier replies have left behind, and nothing else changes.
#include "core_under_test.h"

#include <algorithm>
#include <map>

namespace {

constexpr WORD TAGS = 16;
constexpr WORD READ_TAGS = 8; // the first half is read, the other subscribed
constexpr int MAX_REQUESTS = 24;
constexpr size_t MAX_BLOCK = 4096;

using Bytes = std::span<const BYTE>;

/// The part of a reply that has not been looked at.
class CReply
{
public:
    explicit CReply(Bytes left) : m_left(left) {}
    bool Take(size_t nLen, Bytes& part)
    {
        if (nLen > m_left.size())
            return false;
        part = m_left.first(nLen);
        m_left = m_left.subspan(nLen);
        return true;
    }
    size_t Left() const { return m_left.size(); }

private:
    Bytes m_left;
};

class CDialogue
{
public:
    explicit CDialogue(CInput& input)
        : m_input(input), m_wire(MakeWire(input.Byte())), m_core(m_wire, TAGS),
          m_expected(TAGS, Encoded{0, 0})
    {
        Learn("r", 0, READ_TAGS, m_strRead);
        Learn("s", READ_TAGS, TAGS - READ_TAGS, m_strAdvised);
    }

    void Play()
    {
        for (int i = 0; i < MAX_REQUESTS && !m_input.IsEmpty(); ++i) {
            m_core.Reopen();
            const BYTE nRequest = m_input.Byte();
            const Bytes reply = m_input.Segment();
            if (nRequest % 9 == 8) {
                Notify(reply);
                continue;
            }
            m_wire.Reply(reply);
            const size_t nSent = Channel().sent.size();
            const bool bAsked = Request(nRequest % 9, reply);
            FUZZ_CHECK(bAsked == (SentSince(nSent) > 0));
            if (!bAsked)
                break; // the reply would wait for the next request
            CheckValues();
        }
    }

private:
    void Learn(const char* szPrefix, WORD nFirst, WORD nCount, std::string& strNames)
    {
        std::vector<WORD> positions;
        for (WORD i = 0; i < nCount; ++i) {
            strNames += (i > 0 ? "," : "") + (szPrefix + std::to_string(i));
            positions.push_back(static_cast<WORD>(nFirst + i));
        }
        const auto slots = m_core.Learn(strNames, positions);
        m_slots.insert(m_slots.end(), slots.begin(), slots.end());
    }

    CScriptedWire::SChannel& Channel()
    {
        auto* pChannel = m_wire.Find(m_core.Core().m_reqSock.GetHandle());
        static CScriptedWire::SChannel none;
        return pChannel ? *pChannel : none;
    }

    size_t SentSince(size_t nSent)
    {
        // A connection that an exchange has ended has sent its request, or there was nothing to end it for.
        return m_core.Core().m_reqSock.IsSocket() ? Channel().sent.size() - nSent : 1;
    }

    /// Makes a request and checks its result. False when there was nothing to ask.
    bool Request(int nRequest, Bytes reply)
    {
        switch (nRequest) {
        case 0:
            return LookUp(reply);
        case 1:
            return Read(reply);
        case 2:
            return Advise(reply);
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

    /// The whole reply was taken, and only it.
    void CheckLeft(size_t nLeft) { FUZZ_CHECK(Channel().incoming.size() == nLeft); }

    bool LookUp(Bytes reply)
    {
        const std::string strNumber = std::to_string(m_nNames++);
        CDBDriver::TagSlots slots;
        const bool bDone =
            m_core.Driver().CheckTagId(("x" + strNumber + ", ,r1,y" + strNumber).c_str(), slots);
        FUZZ_CHECK(bDone == (reply.size() >= 9 && reply[0] == 'L'));
        if (!bDone)
            return true;
        CheckLeft(reply.size() - 9);
        const auto slotAt = [&](size_t nOffset) {
            const unsigned nPos = LittleWord(reply.subspan(nOffset));
            return nPos < TAGS ? m_slots[nPos] : nullptr;
        };
        FUZZ_CHECK((slots == CDBDriver::TagSlots{nullptr, m_slots[1], slotAt(1), slotAt(5)}));
        return true;
    }

    bool Read(Bytes reply)
    {
        CReply left(reply);
        const bool bWanted = ReadBlocks(left);
        CDBDriver::TagSlots slots;
        const bool bDone = m_core.Driver()._GetTagValue(m_strRead.c_str(), slots);
        FUZZ_CHECK(bDone == bWanted);
        FUZZ_CHECK(std::equal(slots.begin(), slots.end(), m_slots.begin(), m_slots.begin() + READ_TAGS));
        if (bDone)
            CheckLeft(left.Left());
        return true;
    }

    /// The second reading of a read's reply. What comes before a fault is kept.
    bool ReadBlocks(CReply& reply)
    {
        size_t nStored = 0;
        for (size_t nBlocks = 0; nBlocks <= READ_TAGS; ++nBlocks) {
            Bytes head;
            Bytes block;
            if (!reply.Take(4, head) || head[0] != 'H' || LittleWord(head.subspan(2)) > MAX_BLOCK ||
                !reply.Take(LittleWord(head.subspan(2)), block))
                return false;
            while (!block.empty() && nStored < READ_TAGS) {
                if (!StoreNext(block, nStored))
                    return false;
                ++nStored;
            }
            if (head[1] != 1 || nStored == READ_TAGS)
                return true;
        }
        return false;
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

    bool Advise(Bytes reply)
    {
        const size_t nFirst = READ_TAGS + m_nAdvised;
        CReply left(reply);
        Bytes block;
        size_t nTag = nFirst;
        for (; nTag < TAGS; ++nTag) {
            Bytes head;
            if (block.empty() &&
                (!left.Take(3, head) || head[0] != 'b' || LittleWord(head.subspan(1)) > MAX_BLOCK ||
                 !left.Take(LittleWord(head.subspan(1)), block)))
                break;
            if (!StoreNext(block, nTag))
                break;
        }
        const bool bDone = m_core.Driver()._ConnectTag(m_strAdvised.c_str());
        FUZZ_CHECK(bDone == (nTag == TAGS));
        m_nAdvised = nTag - READ_TAGS;
        for (size_t i = 0; i < TAGS; ++i)
            FUZZ_CHECK(m_slots[i]->bSubscribe == (i >= READ_TAGS && i < nTag));
        if (bDone && nFirst < TAGS)
            CheckLeft(left.Left());
        return nFirst < TAGS;
    }

    bool GetPosition(Bytes reply)
    {
        const Bytes first = reply.first(m_wire.Piece(16, reply.size()));
        WORD nPos = 0x5A5A;
        const int nDone = m_core.Core().GetTagId(0, "name", &nPos);
        FUZZ_CHECK(nDone == (first.size() >= 3 && first[0] == 'L'));
        FUZZ_CHECK(nPos == (nDone ? LittleWord(first.subspan(1)) : 0x5A5A));
        return true;
    }

    bool Unadvise(Bytes reply)
    {
        FUZZ_CHECK(m_core.Core().UnadviseTag(7) == (!reply.empty() && reply[0] == 'd'));
        return true;
    }

    bool Alarms(Bytes reply)
    {
        CReply left(reply);
        Bytes head;
        Bytes records;
        const bool bWanted = left.Take(3, head) && head[0] == 'n' &&
                             left.Take(S2RtAlarm2::WIRE_SIZE * LittleWord(head.subspan(1)), records);
        std::vector<S2RtAlarm2> alarms;
        FUZZ_CHECK(m_core.ReadActiveAlarms(alarms) == bWanted);
        if (!bWanted)
            return true;
        std::vector<BYTE> again(records.size());
        CWireWriter writer(again);
        for (const S2RtAlarm2& alarm : alarms)
            WriteRtAlarm(writer, alarm);
        FUZZ_CHECK(!writer.IsBad() && std::ranges::equal(again, records));
        CheckLeft(left.Left());
        return true;
    }

    bool LogIn(Bytes reply)
    {
        std::vector<BYTE> first(reply.begin(), reply.end());
        first.resize(m_wire.Piece(256, reply.size()));
        auto eWanted = EConnect::Protocol;
        if (first.empty())
            eWanted = EConnect::Failed;
        else if (first[0] == '9')
            eWanted = EConnect::Connected;
        else if (first[0] == '0')
            eWanted = EConnect::LoginRefused;
        first.resize(9);
        DWORD nRights = 0;
        FUZZ_CHECK(m_core.Login(nRights) == eWanted);
        if (eWanted == EConnect::Connected)
            FUZZ_CHECK(nRights ==
                       (LittleWord(Bytes(first).subspan(5)) | LittleWord(Bytes(first).subspan(7)) << 16));
        return true;
    }

    bool ProjectPath(Bytes reply)
    {
        std::string strWhole(reinterpret_cast<const char*>(reply.data()), m_wire.Piece(2048, reply.size()));
        const bool bWanted = !strWhole.empty() && strWhole[0] == '3';
        std::array<CString, 4> texts;
        FUZZ_CHECK(m_core.Core().GetPrjPath(texts[0], texts[1], texts[2], texts[3]) == bWanted);
        if (!bWanted)
            return true;
        strWhole.resize(2048);
        size_t nPos = 1;
        for (const CString& strText : texts) {
            const size_t nNul = nPos == std::string::npos ? nPos : strWhole.find('\0', nPos);
            FUZZ_CHECK(strText ==
                       (nNul == std::string::npos ? std::string() : strWhole.substr(nPos, nNul - nPos)));
            nPos = nNul == std::string::npos ? nNul : nNul + 1;
        }
        return true;
    }

    /// A change that the server pushes, at the front of what has come in.
    void Notify(Bytes bytes)
    {
        const int nLen = m_core.Core().OnDBNotify(bytes, nullptr);
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
        CheckValues();
    }

    void NotifyTag(unsigned nTag, Bytes payload, int nLen)
    {
        const unsigned nType = nTag < TAGS ? LittleWord(m_expected[nTag]) : 0;
        if (nType <= 1) { // no such tag, or none with a value whose type would tell the length
            FUZZ_CHECK(nLen == NOTIFY_NO_VALUE + 4);
            return;
        }
        const auto decoded = DecodePayload(nType, payload);
        FUZZ_CHECK(nLen == (!decoded             ? NOTIFY_CUT
                            : decoded->nUsed > 0 ? static_cast<int>(decoded->nUsed) + 4
                                                 : NOTIFY_NO_VALUE + 4));
        if (decoded)
            m_expected[nTag] = decoded->value;
    }

    void CheckValues()
    {
        for (size_t i = 0; i < TAGS; ++i)
            FUZZ_CHECK(Encode(m_slots[i]->value) == m_expected[i]);
    }

    CInput& m_input;
    CScriptedWire m_wire;
    CDBCoreTest m_core;
    std::string m_strRead;
    std::string m_strAdvised;
    CDBDriver::TagSlots m_slots; // by position
    std::vector<Encoded> m_expected;
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
