// Typed values out of a peer's block: what is decoded encodes to the same bytes, and nothing is read beyond.
#include "XVariant.h"
#include "fuzz.h"

#include <algorithm>
#include <vector>

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    std::span<const BYTE> left(pData, nSize);
    while (!left.empty()) {
        XVariant value;
        const auto nUsed = value.FromBytes(left, true);
        if (!nUsed) {
            FUZZ_CHECK(value.vt == VT_EMPTY);
            return 0;
        }
        FUZZ_CHECK(*nUsed >= sizeof value.vt && *nUsed <= left.size());
        std::vector<BYTE> again(value.BufferSize(true));
        FUZZ_CHECK(value.ToBuffer(again.data(), again.size(), true) == again.size());
        if (value.vt != (VT_ARRAY | VT_VARIANT)) {
            FUZZ_CHECK(again.size() == *nUsed);
            // Any byte but 0 is true, and is written as 1.
            if (value.vt != VT_BOOL)
                FUZZ_CHECK(std::ranges::equal(again, left.first(*nUsed)));
        }
        XVariant untyped;
        untyped.vt = value.vt;
        const auto nPayload = untyped.FromBytes(left.subspan(sizeof value.vt), false);
        FUZZ_CHECK(nPayload && *nPayload + sizeof value.vt == *nUsed);
        CString strText;
        value.ToStringA(strText, static_cast<int>(nSize % 14) - 1);
        for (const VARTYPE vt : {VT_I2, VT_R4, VT_R8, VT_DATE, VT_STR, VT_BOOL, VT_I8, VT_UI8}) {
            XVariant changed(value);
            changed.ChangeType(vt);
            FUZZ_CHECK(changed.vt == vt);
        }
        left = left.subspan(*nUsed);
    }
    return 0;
}
