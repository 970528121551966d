// Scrambling and identifiers; the layouts stand in mtool3.h.
#include "mtool3.h"

#include <cstdlib>
#include <ctime>

namespace {

BYTE RandomByte() noexcept
{
    return static_cast<BYTE>(std::rand());
}

} // namespace

UINT EncryptPacket(UINT nInLen, const BYTE* szInPacket, UINT nOutBufLen, BYTE* szOutPacket)
{
    const UINT nGroups = nInLen / 3;
    const UINT nTail = nInLen % 3;
    if (uint64_t{nGroups} * 4 + 4 > nOutBufLen)
        return 0;
    const BYTE* pIn = szInPacket;
    BYTE* pOut = szOutPacket;
    for (UINT i = 0; i < nGroups; ++i, pIn += 3, pOut += 4) {
        const BYTE u = RandomByte();
        pOut[0] = u;
        pOut[1] = static_cast<BYTE>(pIn[0] + u);
        pOut[2] = static_cast<BYTE>(pIn[1] - u);
        pOut[3] = static_cast<BYTE>(pIn[2] ^ u);
    }
    if (nTail == 0)
        return nGroups * 4;
    const BYTE u = RandomByte();
    pOut[0] = u;
    pOut[1] = static_cast<BYTE>(pIn[0] + u);
    if (nTail == 2)
        pOut[2] = static_cast<BYTE>(pIn[1] - u);
    return nGroups * 4 + nTail + 1;
}

UINT DecryptPacket(UINT nInLen, const BYTE* szInPacket, UINT nOutBufLen, BYTE* szOutPacket)
{
    const UINT nGroups = nInLen / 4;
    const UINT nTail = nInLen % 4;
    if (uint64_t{nGroups} * 3 > nOutBufLen)
        return 0;
    const BYTE* pIn = szInPacket;
    BYTE* pOut = szOutPacket;
    for (UINT i = 0; i < nGroups; ++i, pIn += 4, pOut += 3) {
        const BYTE u = pIn[0];
        pOut[0] = static_cast<BYTE>(pIn[1] - u);
        pOut[1] = static_cast<BYTE>(pIn[2] + u);
        pOut[2] = static_cast<BYTE>(pIn[3] ^ u);
    }
    if (nTail == 0)
        return nGroups * 3;
    if (nTail == 1 || nOutBufLen < nGroups * 3 + nTail - 1)
        return 0;
    const BYTE u = pIn[0];
    pOut[0] = static_cast<BYTE>(pIn[1] - u);
    if (nTail == 3)
        pOut[1] = static_cast<BYTE>(pIn[2] + u);
    return nGroups * 3 + nTail - 1;
}

int MaxEncryptLen(UINT nOutBufLen)
{
    return static_cast<int>(nOutBufLen / 4 * 3) - 1;
}

void CoCreateGuid(_GUID& guid)
{
    const auto now = static_cast<uint64_t>(std::time(nullptr));
    guid.Data1 = static_cast<DWORD>(now);
    std::srand(guid.Data1);
    guid.Data2 = static_cast<WORD>(std::rand());
    guid.Data3 = static_cast<WORD>(std::rand());
    for (size_t i = 0; i < sizeof guid.Data4; ++i)
        guid.Data4[i] = static_cast<BYTE>(now >> (8 * i));
}
