// The alarm record, and the characters that open the requests.
#include "RtAlarm.h"

#include "NetCmd.h"

#include <array>
#include <gtest/gtest.h>
#include <limits>
#include <utility>

namespace {

TEST(RtAlarm, LiesOnTheWireAsItsTableSays)
{
    const S2RtAlarm2 alarm{0x01020304, 0x05060708, 0x090A, 0x0B0C, 0x0D0E, 0x0F, 0x10, 1.0, -2.0};
    std::array<BYTE, S2RtAlarm2::WIRE_SIZE> bytes{};
    CWireWriter writer(bytes);
    WriteRtAlarm(writer, alarm);
    EXPECT_EQ(writer.Length(), S2RtAlarm2::WIRE_SIZE);
    const std::array<BYTE, 32> wanted{4,    3,    2,    1,    8,    7, 6, 5, 0x0A, 9,   0x0C,
                                      0x0B, 0x0E, 0x0D, 0x0F, 0x10, 0, 0, 0, 0,    0,   0,
                                      0xF0, 0x3F, 0,    0,    0,    0, 0, 0, 0,    0xC0};
    EXPECT_EQ(bytes, wanted);
    CWireReader reader(bytes);
    const S2RtAlarm2 back = ReadRtAlarm(reader);
    EXPECT_FALSE(reader.IsBad());
    EXPECT_EQ(reader.Left(), 0U);
    EXPECT_EQ(back.almtm, alarm.almtm);
    EXPECT_EQ(back.evttm, alarm.evttm);
    EXPECT_EQ(back.tid, alarm.tid);
    EXPECT_EQ(back.type, alarm.type);
    EXPECT_EQ(back.grp, alarm.grp);
    EXPECT_EQ(back.level, alarm.level);
    EXPECT_EQ(back.status, alarm.status);
    EXPECT_EQ(back.value, alarm.value);
    EXPECT_EQ(back.limit, alarm.limit);
}

TEST(RtAlarm, CutAnywhereIsBad)
{
    const std::array<BYTE, S2RtAlarm2::WIRE_SIZE> bytes{};
    for (size_t n = 0; n < bytes.size(); ++n) {
        CWireReader reader(std::span<const BYTE>(bytes).first(n));
        static_cast<void>(ReadRtAlarm(reader));
        EXPECT_TRUE(reader.IsBad()) << n;
    }
}

TEST(RtAlarm, KeepsEveryDouble)
{
    const double values[] = {-0.0, std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::denorm_min(),
                             std::numeric_limits<double>::quiet_NaN(), 1e300};
    for (const double dValue : values) {
        std::array<BYTE, S2RtAlarm2::WIRE_SIZE> bytes{};
        CWireWriter writer(bytes);
        WriteRtAlarm(writer, {.value = dValue, .limit = -dValue});
        CWireReader reader(bytes);
        const S2RtAlarm2 back = ReadRtAlarm(reader);
        EXPECT_EQ(std::bit_cast<uint64_t>(back.value), std::bit_cast<uint64_t>(dValue));
        EXPECT_EQ(std::bit_cast<uint64_t>(back.limit), std::bit_cast<uint64_t>(-dValue));
    }
}

TEST(NetCmd, EachRequestHasItsCharacter)
{
    const std::pair<BYTE, char> rows[] = {
        {CMD_OPEN, '7'},     {CMD_REGISTER, '8'},  {CMD_PRJ_PATH, '3'},   {CMD_LOGIN, '9'},
        {CMD_DOWNLOAD, '4'}, {CMD_GET_POS, 'L'},   {CMD_UNADVISE, 'd'},   {CMD_RT_ALARM, 'n'},
        {CMD_ADVISE, 'b'},   {CMD_READ_TAGS, 'H'}, {CMD_WRITE_TAGS, 'g'}, {CMD_REFUSED, '0'},
    };
    for (const auto& [nCmd, ch] : rows)
        EXPECT_EQ(nCmd, static_cast<BYTE>(ch)) << ch;
}

} // namespace
