// The replies to requests (download apart), and the notifications that are pushed. Bytes out of values; no
// socket.
//
//   '9' login      0: '9'  1: zeros (4)  5: rights (4)
//   '3' paths      0: '3'  1: project, event, alarm, history directory, a NUL behind each
//   'L' look-up    0: 'L'  then for each name: position (2, 0xFFFF: none), zeros (2)
//   'd' release    0: 'd'
//   'H' read       blocks: 'H', 1 when more follow (1), length (2), values with type words
//   'b' subscribe  blocks: 'b', length (2), values with type words
//   'n' alarms     0: 'n'  1: count (2)  3: alarm records (32 each)
//   refusal        '0'
//
//   change         0: driver id (2)  2: tag position (2)  4: value without type word
//   system         0: 0xFFFF  2: sub-type  3: its content
//
// A value is never cut by a block's end, and a block holds at least one value.
#pragma once

#include "AlarmBook.h"
#include "Requests.h"

constexpr WORD NO_POSITION = 0xFFFF;

Bytes EncodeLogin(DWORD nRights);
Bytes EncodePaths(const SPrjPaths& paths);
/// Of a continued look-up the positions alone.
Bytes EncodePositions(std::span<const WORD> positions, bool bContinued);
Bytes EncodeReleased();
/// Blocks of at most nBlockSize payload bytes; a null value stands for a tag that does not exist. No values:
/// one empty block.
std::vector<Bytes> EncodeRead(std::span<const XVariant* const> values, size_t nBlockSize);
/// As above; no values: no block.
std::vector<Bytes> EncodeAdvised(std::span<const XVariant* const> values, size_t nBlockSize);
/// How many bytes of a block must reach the client in one piece.
constexpr size_t READ_BLOCK_HEAD = 4;
constexpr size_t ADVISE_BLOCK_HEAD = 3;
Bytes EncodeAlarms(std::span<const S2RtAlarm2> alarms);
constexpr size_t ALARMS_HEAD = 3;

/// Empty for a value without payload, which cannot be told to a client.
Bytes EncodeChange(STagRef tag, const XVariant& value);
Bytes EncodeAlarmNews(const SAlarmNews& news);
/// A system notification that clients pass over. tag: for those that name one.
Bytes EncodeSysNotify(BYTE nSubType, STagRef tag);
/// Whether the sub-type names a tag, which a client then must know.
bool SysNotifyNamesTag(BYTE nSubType) noexcept;
/// Whether there is such a sub-type beside the alarms'.
bool IsSysNotify(BYTE nSubType) noexcept;
