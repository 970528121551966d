// The walk of the notification stream past system notifications: it always goes on or ends, inside the
// buffer, and says the same of a notification whatever follows it.
#include "NotifyWalk.h"
#include "RtAlarm.h"
#include "fuzz.h"

#include <algorithm>
#include <array>

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    const FnHasTag hasTag = [](WORD nDriver, WORD nTag) { return nDriver < 4 && nTag < 100; };
    std::span<const BYTE> left(pData, nSize);
    while (!left.empty()) {
        const int nLen = SysNotifyLength(left, hasTag);
        if (nLen == NOTIFY_CUT || nLen == NOTIFY_STOP)
            return 0;
        FUZZ_CHECK(nLen >= 3 && static_cast<size_t>(nLen) <= left.size());
        const auto whole = left.first(static_cast<size_t>(nLen));
        FUZZ_CHECK(SysNotifyLength(whole, hasTag) == nLen);
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
