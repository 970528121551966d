// The lengths of the system notifications, so that the stream can be walked past those that nobody here
// reads. Knows no socket: it takes the bytes that are there and says how long the notification at their start
// is.
//
// Every notification begins with a 16-bit word: a driver id, or 0xFFFF for a system notification.
//
//   driver notification  offset 0: driver id, 2: tag position, 4: value without its type word
//   system notification  offset 0: 0xFFFF, 2: sub-type, then by sub-type:
//
//     1, 3              35 bytes in all; 3: alarm record (RtAlarm.h)
//     2, 5, 7           7
//     4                 43
//     6                 20
//     8                 5
//     9, 14, 15, 22     8;               3: driver index, 5: tag position, both checked
//     10 to 13          15;              likewise
//     16 to 21          7 + text + NUL;  likewise, 7: text
//     255               3
#pragma once

#include "WireReader.h"

#include <functional>
#include <span>

constexpr WORD SYSTEM_NOTIFY = 0xFFFF;
constexpr BYTE SYS_ALARM = 1;
constexpr BYTE SYS_ALARM_EVENT = 3;

/// What stands for a length where there is none.
constexpr int NOTIFY_STOP = -2;  // the walk of this receive ends: what follows cannot be told apart
constexpr int NOTIFY_CUT = 0;    // the bytes end inside this notification
constexpr int NOTIFY_AWAIT = -3; // a subscription is under way for the tag: its reply says the type
constexpr int NOTIFY_LEAVE = -1; // the connection has ended meanwhile: leave without touching it

/// Whether a driver index and a tag position name a tag of the connected project.
using FnHasTag = std::function<bool(WORD nDriver, WORD nTag)>;

/// The length of the system notification at the start of bytes (whose first word is 0xFFFF), NOTIFY_CUT or
/// NOTIFY_STOP.
int SysNotifyLength(std::span<const BYTE> bytes, const FnHasTag& hasTag);
