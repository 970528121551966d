// The alarm record of the wire, as it comes in notifications and in the reply to the alarm registration.
#pragma once

#include "WireReader.h"

#include <bit>

/// 32 bytes, little-endian:
///
///   offset  size  field
///   0       4     almtm   time of the alarm, seconds since 1970-01-01 UTC
///   4       4     evttm   time of its later event, or 0
///   8       2     tid     index into the tag name list
///   10      2     type    index into the text list
///   12      2     grp     index into the text list
///   14      1     level
///   15      1     status
///   16      8     value   IEEE 754 double
///   24      8     limit   IEEE 754 double
struct S2RtAlarm2
{
    static constexpr size_t WIRE_SIZE = 32;

    DWORD almtm = 0;
    DWORD evttm = 0;
    WORD tid = 0;
    WORD type = 0;
    WORD grp = 0;
    BYTE level = 0;
    BYTE status = 0;
    double value = 0;
    double limit = 0;
};

inline S2RtAlarm2 ReadRtAlarm(CWireReader& reader) noexcept
{
    S2RtAlarm2 alarm;
    alarm.almtm = reader.Get<DWORD>();
    alarm.evttm = reader.Get<DWORD>();
    alarm.tid = reader.Get<WORD>();
    alarm.type = reader.Get<WORD>();
    alarm.grp = reader.Get<WORD>();
    alarm.level = reader.Get<BYTE>();
    alarm.status = reader.Get<BYTE>();
    alarm.value = std::bit_cast<double>(reader.Get<uint64_t>());
    alarm.limit = std::bit_cast<double>(reader.Get<uint64_t>());
    return alarm;
}

inline void WriteRtAlarm(CWireWriter& writer, const S2RtAlarm2& alarm) noexcept
{
    writer.Put(alarm.almtm);
    writer.Put(alarm.evttm);
    writer.Put(alarm.tid);
    writer.Put(alarm.type);
    writer.Put(alarm.grp);
    writer.Put(alarm.level);
    writer.Put(alarm.status);
    writer.Put(std::bit_cast<uint64_t>(alarm.value));
    writer.Put(std::bit_cast<uint64_t>(alarm.limit));
}
