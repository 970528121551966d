// The keyless scrambling of the handshake's records, and the identifier that a client shows there.
//
// Scrambled form, 3 plain bytes b0 b1 b2 to 4 on the wire, u a fresh byte for each group (all modulo 256):
//
//   full group   u  b0+u  b1-u  b2^u
//   1 byte left  u  b0+u
//   2 bytes left u  b0+u  b1-u
//
// So a scrambled length of remainder 1 modulo 4 never occurs.
#pragma once

#include "wintypes.h"

/// Returns the scrambled length, or 0 when nOutBufLen is below nInLen / 3 * 4 + 4 (room for a tail group is
/// always asked for). Draws from rand(), which the caller seeds.
UINT EncryptPacket(UINT nInLen, const BYTE* szInPacket, UINT nOutBufLen, BYTE* szOutPacket);

/// Returns the plain length, or 0 for a length that cannot be or an output buffer that is too small.
UINT DecryptPacket(UINT nInLen, const BYTE* szInPacket, UINT nOutBufLen, BYTE* szOutPacket);

/// The largest plain length whose scrambled form fits a buffer; -1 below 4 bytes.
int MaxEncryptLen(UINT nOutBufLen);

/// A client's identifier: 16 bytes on the wire, little-endian.
///
///   offset  size  field
///   0       4     Data1  seconds since 1970
///   4       2     Data2  random, seeded with the seconds
///   6       2     Data3  random
///   8       8     Data4  seconds since 1970, 64-bit
struct _GUID
{
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];
};
static_assert(sizeof(_GUID) == 16);

/// Seeds rand() with the current second, so two identifiers of one second are equal.
void CoCreateGuid(_GUID& guid);
