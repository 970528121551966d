// The walk of the notification stream past system notifications: each is as long as a second reading says,
// and every part of one counts as cut.
#include "NotifyWalk.h"
#include "RtAlarm.h"
#include "second_reading.h"

#include <algorithm>
#include <array>

namespace {

constexpr unsigned DRIVERS = 4;
constexpr unsigned TAGS = 100;

/// The whole length of a sub-type without a tag; 0 for every other.
size_t FixedLength(BYTE nSubType)
{
    switch (nSubType) {
    case 1:
    case 3:
        return 35;
    case 2:
    case 5:
    case 7:
        return 7;
    case 4:
        return 43;
    case 6:
        return 20;
    case 8:
        return 5;
    case 255:
        return 3;
    default:
        return 0;
    }
}

/// The second reading: a length, NOTIFY_CUT or NOTIFY_STOP.
int LengthAgain(std::span<const BYTE> bytes)
{
    if (bytes.size() < 3)
        return NOTIFY_CUT;
    const BYTE nSubType = bytes[2];
    size_t nLen = FixedLength(nSubType);
    if (nLen == 0) {
        const bool bText = nSubType >= 16 && nSubType <= 21;
        if (nSubType < 9 || nSubType > 22)
            return NOTIFY_STOP;
        if (bytes.size() < 7)
            return NOTIFY_CUT;
        if (LittleWord(bytes.subspan(3)) >= DRIVERS || LittleWord(bytes.subspan(5)) >= TAGS)
            return NOTIFY_STOP;
        const auto nul = std::find(bytes.begin() + 7, bytes.end(), BYTE{0});
        const size_t nFixed = nSubType >= 10 && nSubType <= 13 ? 15 : 8;
        nLen = bText ? static_cast<size_t>(nul - bytes.begin()) + 1 : nFixed;
    }
    return nLen <= bytes.size() ? static_cast<int>(nLen) : NOTIFY_CUT;
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    const FnHasTag hasTag = [](WORD nDriver, WORD nTag) { return nDriver < DRIVERS && nTag < TAGS; };
    std::span<const BYTE> left(pData, nSize);
    while (!left.empty()) {
        const int nLen = SysNotifyLength(left, hasTag);
        FUZZ_CHECK(nLen == LengthAgain(left));
        if (nLen == NOTIFY_CUT || nLen == NOTIFY_STOP)
            return 0;
        FUZZ_CHECK(nLen >= 3 && static_cast<size_t>(nLen) <= left.size());
        const auto whole = left.first(static_cast<size_t>(nLen));
        FUZZ_CHECK(SysNotifyLength(whole, hasTag) == nLen);
        for (size_t nPart = 0; nPart < std::min<size_t>(whole.size(), 64); ++nPart)
            FUZZ_CHECK(SysNotifyLength(whole.first(nPart), hasTag) == NOTIFY_CUT);
        FUZZ_CHECK(SysNotifyLength(whole.first(whole.size() - 1), hasTag) == NOTIFY_CUT);
        if (whole[2] == SYS_ALARM) {
            CWireReader reader(whole.subspan(3));
            const S2RtAlarm2 alarm = ReadRtAlarm(reader);
            std::array<BYTE, S2RtAlarm2::WIRE_SIZE> again{};
            CWireWriter writer(again);
            WriteRtAlarm(writer, alarm);
            FUZZ_CHECK(!reader.IsBad() && std::ranges::equal(again, whole.subspan(3)));
        }
        left = left.subspan(static_cast<size_t>(nLen));
    }
    return 0;
}
