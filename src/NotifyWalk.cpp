// One row a sub-type; the table's meaning stands in NotifyWalk.h.
#include "NotifyWalk.h"

#include "RtAlarm.h"

#include <array>
#include <cstring>

namespace {

enum class ELen : BYTE
{
    Unknown, // 0, so that a sub-type without a row ends the walk
    Fixed,
    FixedOfTag, // driver index and tag position are checked first
    TextOfTag,  // likewise, and a text from byte nLen on
};

struct SSysNotify
{
    ELen eLen = ELen::Unknown;
    BYTE nLen = 0;
};

constexpr BYTE HEAD_SIZE = 3;
constexpr BYTE TAG_HEAD_SIZE = 7;

constexpr auto SYS_NOTIFY = [] {
    std::array<SSysNotify, 256> table{};
    table[SYS_ALARM] = table[SYS_ALARM_EVENT] = {ELen::Fixed, HEAD_SIZE + S2RtAlarm2::WIRE_SIZE};
    table[2] = table[5] = table[7] = {ELen::Fixed, 7};
    table[4] = {ELen::Fixed, 43};
    table[6] = {ELen::Fixed, 20};
    table[8] = {ELen::Fixed, 5};
    table[9] = table[14] = table[15] = table[22] = {ELen::FixedOfTag, 8};
    for (size_t i = 10; i <= 13; ++i)
        table[i] = {ELen::FixedOfTag, 15};
    for (size_t i = 16; i <= 21; ++i)
        table[i] = {ELen::TextOfTag, TAG_HEAD_SIZE};
    table[255] = {ELen::Fixed, 3};
    return table;
}();
static_assert(SYS_NOTIFY[SYS_ALARM].nLen == 35);

int WholeOrCut(size_t nLen, size_t nHave)
{
    return nLen <= nHave ? static_cast<int>(nLen) : NOTIFY_CUT;
}

} // namespace

int SysNotifyLength(std::span<const BYTE> bytes, const FnHasTag& hasTag)
{
    CWireReader reader(bytes);
    reader.Skip(2);
    const BYTE nSubType = reader.Get<BYTE>();
    if (reader.IsBad())
        return NOTIFY_CUT;
    const SSysNotify& row = SYS_NOTIFY[nSubType];
    if (row.eLen == ELen::Unknown)
        return NOTIFY_STOP;
    if (row.eLen == ELen::Fixed)
        return WholeOrCut(row.nLen, bytes.size());
    const WORD nDriver = reader.Get<WORD>();
    const WORD nTag = reader.Get<WORD>();
    if (reader.IsBad())
        return NOTIFY_CUT;
    if (!hasTag(nDriver, nTag))
        return NOTIFY_STOP;
    if (row.eLen == ELen::FixedOfTag)
        return WholeOrCut(row.nLen, bytes.size());
    const size_t nText = reader.Text().size();
    return reader.IsBad() ? NOTIFY_CUT : static_cast<int>(TAG_HEAD_SIZE + nText + 1);
}
