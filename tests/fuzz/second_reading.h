// What several targets need to read bytes a second time, written down without the code under test: numbers,
// texts, scrambled records, and values as their encoded bytes in place of variants, so that the two readings
// cannot be wrong in the same way.
#pragma once

#include "XVariant.h"
#include "fuzz.h"

#include <optional>
#include <string>
#include <vector>

/// An encoded value: type word and payload.
using Encoded = std::vector<BYTE>;

/// The value at the front of bytes as it would be encoded again, and how many bytes it takes there. Nothing
/// when the bytes end inside it.
struct SDecoded
{
    Encoded value;
    size_t nUsed = 0;
};
std::optional<SDecoded> DecodeTyped(std::span<const BYTE> bytes);
std::optional<SDecoded> DecodePayload(unsigned nType, std::span<const BYTE> bytes);
/// The code under test's own form of a value.
Encoded Encode(const XVariant& value);

/// Little-endian, of up to eight bytes.
uint64_t Number(std::span<const BYTE> bytes);
inline unsigned LittleWord(std::span<const BYTE> bytes)
{
    return bytes[0] | unsigned{bytes[1]} << 8;
}

/// Three plain bytes of every four; what is left over is one or two of them. A last byte that is alone in its
/// group stands for nothing.
std::vector<BYTE> Unscrambled(std::span<const BYTE> scrambled);

std::vector<std::string> Split(const std::string& strText, const std::string& strBetween);
std::string Lower(std::string strText);
/// The hexadecimal digits that a text begins with; 0 when there are none or their number needs more than 32
/// bits.
DWORD HexAtFront(const std::string& strText);
