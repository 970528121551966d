// The length of every system notification, whole and cut at every byte; and the alarm record.
#include "NotifyWalk.h"

#include "RtAlarm.h"

#include <array>
#include <gtest/gtest.h>
#include <map>
#include <vector>

namespace {

const FnHasTag ONE_TAG = [](WORD nDriver, WORD nTag) { return nDriver == 3 && nTag == 9; };

/// A system notification of a sub-type: driver 3, tag 9 where those stand, then other bytes up to nLen.
std::vector<BYTE> Notify(int nSubType, size_t nLen)
{
    std::vector<BYTE> bytes{0xFF, 0xFF, static_cast<BYTE>(nSubType), 3, 0, 9, 0};
    bytes.resize(std::max<size_t>(nLen, 7), 0x55);
    bytes.resize(nLen);
    return bytes;
}

std::map<int, size_t> FixedLengths()
{
    std::map<int, size_t> lengths{{1, 35}, {3, 35}, {2, 7}, {5, 7},  {7, 7},
                                  {4, 43}, {6, 20}, {8, 5}, {255, 3}};
    for (const int n : {9, 14, 15, 22})
        lengths[n] = 8;
    for (const int n : {10, 11, 12, 13})
        lengths[n] = 15;
    return lengths;
}

TEST(SysNotifyLength, IsFixedForMostSubTypesAndCutWhereBytesAreMissing)
{
    for (const auto& [nSubType, nLen] : FixedLengths()) {
        const auto bytes = Notify(nSubType, nLen + 1);
        EXPECT_EQ(SysNotifyLength(bytes, ONE_TAG), static_cast<int>(nLen)) << nSubType;
        for (size_t n = 2; n < nLen; ++n)
            EXPECT_EQ(SysNotifyLength(std::span(bytes).first(n), ONE_TAG), NOTIFY_CUT)
                << nSubType << " of " << n;
    }
}

TEST(SysNotifyLength, OfATextReachesToItsEnd)
{
    for (int nSubType = 16; nSubType <= 21; ++nSubType) {
        auto bytes = Notify(nSubType, 12);
        EXPECT_EQ(SysNotifyLength(bytes, ONE_TAG), NOTIFY_CUT) << "no NUL yet";
        bytes.insert(bytes.end(), {0, 1, 2});
        EXPECT_EQ(SysNotifyLength(bytes, ONE_TAG), 13);
        bytes[7] = 0;
        EXPECT_EQ(SysNotifyLength(bytes, ONE_TAG), 8);
    }
}

TEST(SysNotifyLength, StopsAtATagThatDoesNotExist)
{
    for (int nSubType = 9; nSubType <= 22; ++nSubType) {
        auto bytes = Notify(nSubType, 20);
        bytes[19] = 0;
        EXPECT_NE(SysNotifyLength(bytes, ONE_TAG), NOTIFY_STOP) << nSubType;
        bytes[3] = 4;
        EXPECT_EQ(SysNotifyLength(bytes, ONE_TAG), NOTIFY_STOP) << nSubType;
        bytes[3] = 3;
        bytes[6] = 1;
        EXPECT_EQ(SysNotifyLength(bytes, ONE_TAG), NOTIFY_STOP) << nSubType;
    }
}

TEST(SysNotifyLength, StopsAtASubTypeThatNobodyKnows)
{
    for (int nSubType = 0; nSubType < 256; ++nSubType) {
        const bool bKnown = FixedLengths().count(nSubType) || (nSubType >= 16 && nSubType <= 21);
        if (!bKnown) {
            EXPECT_EQ(SysNotifyLength(Notify(nSubType, 64), ONE_TAG), NOTIFY_STOP) << nSubType;
        }
    }
}

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

} // namespace
