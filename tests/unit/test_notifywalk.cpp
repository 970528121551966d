// The length of every system notification, whole and cut at every byte.
#include "NotifyWalk.h"

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

} // namespace
