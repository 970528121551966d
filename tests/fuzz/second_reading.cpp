// See second_reading.h.
#include "second_reading.h"

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

uint64_t Number(std::span<const BYTE> bytes)
{
    uint64_t n = 0;
    for (size_t i = bytes.size(); i-- > 0;)
        n = n << 8 | bytes[i];
    return n;
}

std::vector<BYTE> Unscrambled(std::span<const BYTE> scrambled)
{
    std::vector<BYTE> plain;
    for (size_t i = 0; i + 1 < scrambled.size(); i += 4) {
        const auto group = scrambled.subspan(i, std::min<size_t>(4, scrambled.size() - i));
        plain.push_back(static_cast<BYTE>(group[1] - group[0]));
        if (group.size() > 2)
            plain.push_back(static_cast<BYTE>(group[2] + group[0]));
        if (group.size() > 3)
            plain.push_back(group[3] ^ group[0]);
    }
    return plain;
}

std::vector<std::string> Split(const std::string& strText, const std::string& strBetween)
{
    std::vector<std::string> parts;
    for (size_t nFrom = 0;;) {
        const size_t nEnd = strText.find(strBetween, nFrom);
        parts.push_back(strText.substr(nFrom, nEnd - nFrom));
        if (nEnd == std::string::npos)
            return parts;
        nFrom = nEnd + strBetween.size();
    }
}

std::string Lower(std::string strText)
{
    for (char& ch : strText)
        ch = ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
    return strText;
}

DWORD HexAtFront(const std::string& strText)
{
    uint64_t n = 0;
    for (const char ch : Lower(strText)) {
        const size_t nDigit = std::string("0123456789abcdef").find(ch);
        if (nDigit == std::string::npos)
            break;
        n = n << 4 | nDigit;
        if (n > 0xFFFFFFFF)
            return 0;
    }
    return static_cast<DWORD>(n);
}
