// The notification stream of a connected core, cut into receives anywhere: every receive is walked to the
// same values as by a second, slower reading of its bytes, and to no others.
#include "core_under_test.h"

#include <algorithm>
#include <array>

namespace {

/// A tag of every type that has a payload, one of a type without, and one without a value.
constexpr std::array<WORD, 16> TYPES{2, 3, 4, 5, 7, 8, 11, 16, 17, 18, 19, 20, 22, 23, 6, 0};

class CStream
{
public:
    explicit CStream(CInput& input)
        : m_wire(MakeWire(input.Byte())), m_core(m_wire, static_cast<WORD>(TYPES.size()))
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
        auto& incoming = m_wire.Find(m_core.Core().m_rcvSock.GetHandle())->incoming;
        incoming.assign(stream.begin(), stream.end());
        CRecvBuffer buffer;
        while (m_core.WalkReceive(buffer)) {
            // A receive's bytes are those that are gone now, the rests that it had to read on for included.
            const size_t nGone = stream.size() - incoming.size();
            FUZZ_CHECK(nGone > 0);
            WalkAgain(stream.first(nGone));
            stream = stream.subspan(nGone);
            for (size_t i = 0; i < TYPES.size(); ++i)
                FUZZ_CHECK(Encode(m_slots[i]->value) == m_expected[i]);
        }
        FUZZ_CHECK(stream.empty() && incoming.empty());
    }

private:
    void WalkAgain(std::span<const BYTE> left)
    {
        const FnHasTag hasTag = [](WORD nDriver, WORD nTag) { return nDriver == 0 && nTag < TYPES.size(); };
        while (left.size() >= 2) {
            size_t nLen = 0;
            if (LittleWord(left) == SYSTEM_NOTIFY) {
                const int nSystem = SysNotifyLength(left, hasTag);
                nLen = nSystem > 0 ? static_cast<size_t>(nSystem) : 0;
            } else if (LittleWord(left) == 0 && left.size() >= 4) {
                nLen = Change(LittleWord(left.subspan(2)), left.subspan(4));
            }
            if (nLen == 0 || nLen >= left.size())
                return;
            left = left.subspan(nLen);
        }
    }

    /// The length of a change, or 0 where the walk ends.
    size_t Change(unsigned nTag, std::span<const BYTE> payload)
    {
        if (nTag >= TYPES.size() || TYPES[nTag] == 0)
            return 0;
        const auto decoded = DecodePayload(TYPES[nTag], payload);
        if (!decoded || decoded->nUsed == 0)
            return 0;
        m_expected[nTag] = decoded->value;
        return decoded->nUsed + 4;
    }

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
