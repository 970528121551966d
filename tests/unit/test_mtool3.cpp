// Scrambling and identifiers.
#include "mtool3.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

namespace {

TEST(EncryptPacket, OfNothingNeedsRoomForATailGroupAllTheSame)
{
    std::array<BYTE, 4> out{1, 2, 3, 4};
    EXPECT_EQ(EncryptPacket(0, nullptr, 4, out.data()), 0U);
    EXPECT_EQ(EncryptPacket(0, nullptr, 3, out.data()), 0U);
    EXPECT_EQ(out, (std::array<BYTE, 4>{1, 2, 3, 4}));
}

TEST(EncryptPacket, OfSixteenBytesGivesTwentyTwo)
{
    const std::array<BYTE, 16> in{};
    std::array<BYTE, 511> out{};
    EXPECT_EQ(EncryptPacket(in.size(), in.data(), out.size(), out.data()), 22U);
}

TEST(EncryptPacket, KeepsItsMarginAlsoForWholeGroups)
{
    const std::array<BYTE, 3> in{1, 2, 3};
    std::array<BYTE, 8> out{};
    EXPECT_EQ(EncryptPacket(3, in.data(), 7, out.data()), 0U);
    EXPECT_EQ(EncryptPacket(3, in.data(), 8, out.data()), 4U);
}

TEST(EncryptPacket, WritesEachGroupByItsOwnRandomByte)
{
    const std::array<BYTE, 8> in{0x10, 0x20, 0x30, 0xFF, 0x00, 0xAA, 0x55, 0x66};
    std::array<BYTE, 16> out{};
    std::srand(7);
    ASSERT_EQ(EncryptPacket(in.size(), in.data(), out.size(), out.data()), 11U);
    std::srand(7);
    for (size_t nGroup = 0; nGroup < 3; ++nGroup) {
        const auto u = static_cast<BYTE>(std::rand());
        const BYTE* b = &in[3 * nGroup];
        const BYTE* c = &out[4 * nGroup];
        EXPECT_EQ(c[0], u);
        EXPECT_EQ(c[1], static_cast<BYTE>(b[0] + u));
        EXPECT_EQ(c[2], static_cast<BYTE>(b[1] - u));
        if (nGroup < 2) {
            EXPECT_EQ(c[3], static_cast<BYTE>(b[2] ^ u));
        }
    }
}

TEST(DecryptPacket, GivesEveryLengthBack)
{
    for (UINT nLen = 0; nLen < 300; ++nLen) {
        std::vector<BYTE> in(nLen);
        std::iota(in.begin(), in.end(), static_cast<BYTE>(nLen * 7));
        std::vector<BYTE> out(nLen / 3 * 4 + 4);
        const UINT nOut = EncryptPacket(nLen, in.data(), static_cast<UINT>(out.size()), out.data());
        EXPECT_EQ(nOut, nLen / 3 * 4 + (nLen % 3 ? nLen % 3 + 1 : 0));
        std::vector<BYTE> back(nLen);
        ASSERT_EQ(DecryptPacket(nOut, out.data(), nLen, back.data()), nLen);
        EXPECT_EQ(back, in);
    }
}

TEST(DecryptPacket, RefusesLengthsThatNeverOccur)
{
    const std::array<BYTE, 9> in{};
    std::array<BYTE, 16> out{};
    for (const UINT nLen : {1U, 5U, 9U})
        EXPECT_EQ(DecryptPacket(nLen, in.data(), out.size(), out.data()), 0U) << nLen;
}

TEST(DecryptPacket, OfTwoBytesIsOneByte)
{
    const std::array<BYTE, 2> in{0x20, 0x50};
    BYTE out = 0;
    EXPECT_EQ(DecryptPacket(2, in.data(), 1, &out), 1U);
    EXPECT_EQ(out, '0');
}

TEST(DecryptPacket, RefusesABufferThatIsTooSmall)
{
    const std::array<BYTE, 7> in{};
    std::array<BYTE, 5> out{};
    EXPECT_EQ(DecryptPacket(4, in.data(), 2, out.data()), 0U);
    EXPECT_EQ(DecryptPacket(7, in.data(), 4, out.data()), 0U);
    EXPECT_EQ(DecryptPacket(7, in.data(), 5, out.data()), 5U);
}

TEST(DecryptPacket, WritesTheWholeGroupsEvenBehindWhichALengthIsBad)
{
    const std::array<BYTE, 5> in{1, 'a' + 1, 'b' - 1, 'c' ^ 1, 9};
    std::array<BYTE, 4> out{0, 0, 0, 0x55};
    EXPECT_EQ(DecryptPacket(5, in.data(), out.size(), out.data()), 0U);
    EXPECT_EQ(out, (std::array<BYTE, 4>{'a', 'b', 'c', 0x55}));
}

TEST(MaxEncryptLen, FitsABufferAndOneGroupMoreDoesNot)
{
    for (UINT nRoom = 4; nRoom < 600; ++nRoom) {
        const std::vector<BYTE> in(nRoom);
        std::vector<BYTE> out(nRoom);
        const auto nMax = static_cast<UINT>(MaxEncryptLen(nRoom));
        EXPECT_GT(EncryptPacket(nMax, in.data(), nRoom, out.data()), 0U) << nRoom;
        EXPECT_EQ(EncryptPacket(nMax + 1, in.data(), nRoom, out.data()), 0U) << nRoom;
    }
}

TEST(MaxEncryptLen, IsTheLargestThatFits)
{
    EXPECT_EQ(MaxEncryptLen(512), 383);
    EXPECT_EQ(MaxEncryptLen(3), -1);
    EXPECT_EQ(MaxEncryptLen(0), -1);
    EXPECT_EQ(MaxEncryptLen(4), 2);
}

TEST(CoCreateGuid, IsTheSameWithinASecond)
{
    _GUID first{};
    _GUID second{};
    time_t tBegin = 0;
    do { // the second may change in between, but hardly twice in a row
        tBegin = std::time(nullptr);
        CoCreateGuid(first);
        CoCreateGuid(second);
    } while (tBegin != std::time(nullptr));
    EXPECT_EQ(std::memcmp(&first, &second, sizeof first), 0);
    EXPECT_EQ(first.Data1, static_cast<DWORD>(tBegin));
    uint64_t nSeconds = 0;
    std::memcpy(&nSeconds, first.Data4, sizeof nSeconds);
    EXPECT_EQ(nSeconds, static_cast<uint64_t>(tBegin));
}

TEST(CoCreateGuid, DrawsFromTheGeneratorThatItSeeds)
{
    _GUID guid{};
    CoCreateGuid(guid);
    const int nNext = std::rand();
    std::srand(guid.Data1);
    EXPECT_EQ(guid.Data2, static_cast<WORD>(std::rand()));
    EXPECT_EQ(guid.Data3, static_cast<WORD>(std::rand()));
    EXPECT_EQ(std::rand(), nNext);
}

} // namespace
