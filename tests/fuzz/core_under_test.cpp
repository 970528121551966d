// See core_under_test.h.
#include "core_under_test.h"

#include <algorithm>

namespace {

size_t PayloadSize(unsigned nType)
{
    switch (nType) {
    case 2:  // signed and unsigned 16 bits
    case 18: //
        return 2;
    case 3: // 32 bits, and the 32-bit float
    case 4:
    case 19:
    case 22:
    case 23:
        return 4;
    case 5: // double, date, 64 bits
    case 7:
    case 20:
        return 8;
    case 11: // boolean and 8 bits
    case 16:
    case 17:
        return 1;
    default:
        return 0;
    }
}

} // namespace

std::optional<SDecoded> DecodePayload(unsigned nType, std::span<const BYTE> bytes)
{
    size_t nUsed = PayloadSize(nType);
    if (nType == 8) {
        const auto nul = std::ranges::find(bytes, BYTE{0});
        nUsed = static_cast<size_t>(nul - bytes.begin()) + 1;
    }
    if (nUsed > bytes.size())
        return std::nullopt;
    const unsigned nKept = nType == 0x2000 ? 0x200C : nType; // an array becomes one of variants
    SDecoded decoded{{static_cast<BYTE>(nKept), static_cast<BYTE>(nKept >> 8)}, nUsed};
    decoded.value.insert(decoded.value.end(), bytes.begin(),
                         bytes.begin() + static_cast<std::ptrdiff_t>(nUsed));
    if (nType == 11)
        decoded.value[2] = bytes[0] != 0;
    return decoded;
}

std::optional<SDecoded> DecodeTyped(std::span<const BYTE> bytes)
{
    if (bytes.size() < 2)
        return std::nullopt;
    auto decoded = DecodePayload(LittleWord(bytes), bytes.subspan(2));
    if (decoded)
        decoded->nUsed += 2;
    return decoded;
}

Encoded Encode(const XVariant& value)
{
    Encoded bytes(value.BufferSize(true));
    value.ToBuffer(bytes.data(), bytes.size(), true);
    return bytes;
}

CDBCoreTest::CDBCoreTest(CScriptedWire& wire, WORD nTags) : m_wire(wire)
{
    FUZZ_CHECK(m_core.m_rcvSock.Create());
    m_wire.Open(m_core.m_rcvSock.GetHandle());
    Reopen();
    const CThreadGuard guard(m_core.m_lock);
    SNDrvInfoEx info;
    info.tagNum = nTags;
    m_core.m_mapDrvInfos[CString("D")] = info;
    m_core.m_pDrivers.resize(1);
    m_core.m_bConnect = true;
}

void CDBCoreTest::Reopen()
{
    if (m_core.m_reqSock.IsSocket())
        return;
    FUZZ_CHECK(m_core.m_reqSock.Create());
    m_wire.Open(m_core.m_reqSock.GetHandle());
}

CDBDriver::TagSlots CDBCoreTest::Learn(const std::string& strNames, const std::vector<WORD>& positions)
{
    std::vector<BYTE> reply{'L'};
    for (const WORD nPos : positions)
        reply.insert(reply.end(), {static_cast<BYTE>(nPos), static_cast<BYTE>(nPos >> 8), 0, 0});
    m_wire.Reply(reply);
    CDBDriver::TagSlots slots;
    FUZZ_CHECK(Driver().CheckTagId(strNames.c_str(), slots));
    FUZZ_CHECK(slots.size() == positions.size());
    return slots;
}

bool CDBCoreTest::WalkReceive(CRecvBuffer& buffer)
{
    if (buffer.Fill(m_core.m_rcvSock) <= 0)
        return false;
    FUZZ_CHECK(m_core.WalkReceive(buffer, m_python));
    return true;
}
