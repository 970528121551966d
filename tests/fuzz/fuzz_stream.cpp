// The notification stream of a connected core, cut into receives anywhere, with pauses between them: every
// receive is walked to the same values as by a second, slower reading of its bytes, and to no others. It goes
// on as long as it ends inside a notification and no longer, and a notification whose rest does not come in
// time is a loss.
#include "core_under_test.h"

#include <algorithm>
#include <array>
#include <optional>

namespace {

/// A tag of every type that has a payload, one of a type without, and one without a value.
constexpr std::array<WORD, 16> TYPES{2, 3, 4, 5, 7, 8, 11, 16, 17, 18, 19, 20, 22, 23, 6, 0};
constexpr size_t RECEIVE_SIZE = 2048; // of the first receive of several

class CStream
{
public:
    explicit CStream(CInput& input)
        : m_nControl(input.Byte()), m_pause(std::chrono::milliseconds(100) * input.Byte()),
          m_wire(MakeWire(m_nControl & 0x7F)), m_core(m_wire, static_cast<WORD>(TYPES.size()))
    {
        std::string strNames;
        std::vector<WORD> positions;
        std::vector<BYTE> values;
        for (WORD i = 0; i < TYPES.size(); ++i) {
            strNames += (i > 0 ? ",t" : "t") + std::to_string(i);
            positions.push_back(i);
            const auto decoded = DecodePayload(TYPES[i], std::array<BYTE, 8>{});
            m_expected.push_back(decoded->value);
            values.insert(values.end(), decoded->value.begin(), decoded->value.end());
        }
        m_slots = m_core.Learn(strNames, positions);
        std::vector<BYTE> reply{'b', static_cast<BYTE>(values.size()), 0};
        reply.insert(reply.end(), values.begin(), values.end());
        m_wire.Reply(reply);
        FUZZ_CHECK(m_core.Driver()._ConnectTag(strNames.c_str()));
    }

    void Walk(std::span<const BYTE> stream)
    {
        auto& channel = *m_wire.Find(m_core.Core().m_rcvSock.GetHandle());
        channel.incoming.assign(stream.begin(), stream.end());
        channel.bClosed = m_nControl & 0x80;
        channel.pause = m_pause;
        CRecvBuffer buffer(CDBCoreTest::TIME_OUT_MS);
        for (;;) {
            if (stream.empty() && !channel.bClosed)
                break; // more may come at any time: that is awaited without an end
            channel.received.clear();
            const auto eReceived = m_core.Receive(buffer);
            if (eReceived == EReceived::None)
                break;
            const bool bWhole = WalkAgain(stream, channel.received);
            FUZZ_CHECK((eReceived == EReceived::Walked) == bWhole);
            for (size_t i = 0; i < TYPES.size(); ++i)
                FUZZ_CHECK(Encode(m_slots[i]->value) == m_expected[i]);
            if (!bWhole)
                return;
        }
        FUZZ_CHECK(stream.empty() && channel.incoming.empty());
    }

private:
    using EReceived = CDBCoreTest::EReceived;

    enum class EWalk
    {
        Whole,
        Cut,     // the bytes end inside a notification
        Dropped, // what cannot begin one has ended the walk, with all the bytes there are
    };

    /// The second reading of one receive, made of these pieces. False when the stream ends with it: inside a
    /// notification whose rest does not come, or at bytes that are dropped while more of them are to come.
    bool WalkAgain(std::span<const BYTE>& stream, const std::vector<size_t>& pieces)
    {
        FUZZ_CHECK(!pieces.empty() && pieces[0] == m_wire.Piece(RECEIVE_SIZE, stream.size()));
        size_t nHave = 0; // received
        size_t nDone = 0; // walked
        size_t nRoom = 0; // of the last piece
        size_t nSize = RECEIVE_SIZE;
        EWalk eWalk = EWalk::Cut;
        for (const size_t nPiece : pieces) {
            FUZZ_CHECK(eWalk == EWalk::Cut); // nothing is received when nothing is missing
            nSize *= nHave - nDone == nSize ? 2 : 1;
            nRoom = nSize - (nHave - nDone);
            FUZZ_CHECK(nPiece <= nRoom);
            nHave += nPiece;
            eWalk = GoOn(stream.first(nHave), nDone);
        }
        const bool bFilled = pieces.back() == nRoom;
        stream = stream.subspan(nHave);
        // The rest is awaited as long as there is one to come and the pause before it is not too long.
        const bool bRestComes = !stream.empty() && m_pause.count() <= CDBCoreTest::TIME_OUT_MS;
        FUZZ_CHECK(eWalk != EWalk::Cut || !bRestComes);
        return eWalk == EWalk::Whole || (eWalk == EWalk::Dropped && !bFilled);
    }

    /// Walks on behind nDone.
    EWalk GoOn(std::span<const BYTE> bytes, size_t& nDone)
    {
        while (nDone < bytes.size()) {
            const auto rest = bytes.subspan(nDone);
            const std::optional<size_t> nLen = LengthAt(rest);
            if (nLen == size_t{0})
                return EWalk::Cut;
            nDone += nLen.value_or(rest.size());
            if (!nLen)
                return EWalk::Dropped;
        }
        return EWalk::Whole;
    }

    /// The length of the notification at the front, and its value stored; 0 for a part of one, nothing for
    /// what cannot be told apart.
    std::optional<size_t> LengthAt(std::span<const BYTE> bytes)
    {
        if (bytes.size() < 2)
            return 0;
        if (LittleWord(bytes) == SYSTEM_NOTIFY) {
            const FnHasTag hasTag = [](WORD nDriver, WORD nTag) {
                return nDriver == 0 && nTag < TYPES.size();
            };
            const int nLen = SysNotifyLength(bytes, hasTag);
            return nLen == NOTIFY_STOP ? std::nullopt : std::optional(static_cast<size_t>(nLen));
        }
        if (LittleWord(bytes) != 0)
            return std::nullopt;
        return bytes.size() < 4 ? 0 : Change(LittleWord(bytes.subspan(2)), bytes);
    }

    std::optional<size_t> Change(unsigned nTag, std::span<const BYTE> bytes)
    {
        if (nTag >= TYPES.size() || TYPES[nTag] == 0)
            return std::nullopt;
        const auto decoded = DecodePayload(TYPES[nTag], bytes.subspan(4));
        if (!decoded)
            return 0;
        if (decoded->nUsed == 0)
            return std::nullopt;
        m_expected[nTag] = decoded->value;
        return decoded->nUsed + 4;
    }

    const BYTE m_nControl;
    const std::chrono::milliseconds m_pause;
    CScriptedWire m_wire;
    CDBCoreTest m_core;
    CDBDriver::TagSlots m_slots;
    std::vector<Encoded> m_expected;
};

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    CInput input({pData, nSize});
    CStream stream(input);
    stream.Walk(input.Rest());
    return 0;
}
