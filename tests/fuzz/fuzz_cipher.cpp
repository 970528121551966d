// Scrambling: whatever is scrambled comes back, and no input leaves its buffers.
#include "fuzz.h"
#include "mtool3.h"

#include <algorithm>
#include <vector>

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    const auto nLen = static_cast<UINT>(nSize);
    std::vector<BYTE> scrambled(nSize / 3 * 4 + 4);
    const UINT nScrambled = EncryptPacket(nLen, pData, static_cast<UINT>(scrambled.size()), scrambled.data());
    FUZZ_CHECK(nScrambled % 4 != 1);
    std::vector<BYTE> back(nSize);
    FUZZ_CHECK(DecryptPacket(nScrambled, scrambled.data(), nLen, back.data()) == nLen);
    FUZZ_CHECK(std::equal(back.begin(), back.end(), pData));
    for (UINT nRoom = 0; nRoom < 16; ++nRoom) {
        std::vector<BYTE> small(nRoom);
        FUZZ_CHECK(DecryptPacket(nLen, pData, nRoom, small.data()) <= nRoom);
        FUZZ_CHECK(EncryptPacket(nLen, pData, nRoom, small.data()) <= nRoom);
    }
    return 0;
}
