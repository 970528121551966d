// The Windows-style integer names of the wire's records, with the widths that the wire gives them.
#pragma once

#include <cstdint>

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using USHORT = std::uint16_t;
using DWORD = std::uint32_t;
using UINT = std::uint32_t;
using ULONG =
    unsigned long; // a type of its own beside UINT, so that both may overload; never on the wire as it is
using LPCSTR = const char*;
using LPCTSTR = const char*;
using SOCKET = std::int32_t;
using HRESULT = std::int32_t;
