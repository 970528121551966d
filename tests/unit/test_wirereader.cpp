// Reading and writing of wire bytes: exact bytes, and never one outside the buffer. Buffers here are exactly
// as long as they claim, so that an address sanitizer build sees every step outside.
#include "WireReader.h"

#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<BYTE>;

TEST(WireReader, ReadsLittleEndianFieldsInTheirOrder)
{
    const Bytes bytes{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xFF,
                      0xFE, 0xFD, 0xFC, 0xFB, 0xFA, 0xF9, 0xF8};
    CWireReader reader(bytes);
    EXPECT_EQ(reader.Left(), 15U);
    EXPECT_EQ(reader.Get<BYTE>(), 0x01);
    EXPECT_EQ(reader.Get<WORD>(), 0x0302);
    EXPECT_EQ(reader.Get<DWORD>(), 0x07060504U);
    EXPECT_EQ(reader.Left(), 8U);
    EXPECT_EQ(reader.Get<uint64_t>(), 0xF8F9FAFBFCFDFEFFU);
    EXPECT_EQ(reader.Left(), 0U);
    EXPECT_FALSE(reader.IsBad());
}

TEST(WireReader, PastTheEndGivesZeroAndStaysBad)
{
    const Bytes bytes{1, 2, 3};
    CWireReader reader(bytes);
    EXPECT_EQ(reader.Get<DWORD>(), 0U);
    EXPECT_TRUE(reader.IsBad());
    EXPECT_EQ(reader.Get<BYTE>(), 0) << "also what would still have been there";
    EXPECT_EQ(reader.Text(), "");
    EXPECT_TRUE(reader.Bytes(1).empty());
    reader.Skip(0);
    EXPECT_TRUE(reader.IsBad());
}

TEST(WireReader, OfNothingIsGoodUntilAskedForSomething)
{
    CWireReader reader({});
    EXPECT_EQ(reader.Left(), 0U);
    EXPECT_TRUE(reader.Bytes(0).empty());
    EXPECT_TRUE(reader.Rest().empty());
    EXPECT_FALSE(reader.IsBad());
    EXPECT_EQ(reader.Text(), "");
    EXPECT_TRUE(reader.IsBad());
}

TEST(WireReader, TakesTextsWithTheirNul)
{
    const Bytes bytes{'a', 'b', 0, 0, 'c', 0, 9};
    CWireReader reader(bytes);
    EXPECT_EQ(reader.Text(), "ab");
    EXPECT_EQ(reader.Text(), "");
    EXPECT_FALSE(reader.IsBad()) << "an empty text is a text";
    EXPECT_EQ(reader.Text(), "c");
    EXPECT_EQ(reader.Get<BYTE>(), 9);
    EXPECT_FALSE(reader.IsBad());
}

TEST(WireReader, TextWithoutNulIsBad)
{
    const Bytes bytes{'a', 'b'};
    CWireReader reader(bytes);
    EXPECT_EQ(reader.Text(), "");
    EXPECT_TRUE(reader.IsBad());
}

TEST(WireReader, TakesAndSkipsRunsOfBytes)
{
    const Bytes bytes{1, 2, 3, 4, 5};
    CWireReader reader(bytes);
    const auto two = reader.Bytes(2);
    EXPECT_EQ(Bytes(two.begin(), two.end()), (Bytes{1, 2}));
    reader.Skip(1);
    EXPECT_EQ(Bytes(reader.Rest().begin(), reader.Rest().end()), (Bytes{4, 5}));
    reader.Skip(2);
    EXPECT_FALSE(reader.IsBad());
    reader.Skip(1);
    EXPECT_TRUE(reader.IsBad());
}

TEST(WireReader, LengthsNearTheLargestNumberAreJustTooLong)
{
    const Bytes bytes{1, 2, 3};
    for (const size_t nLen :
         {size_t{4}, std::numeric_limits<size_t>::max() / 2, std::numeric_limits<size_t>::max()}) {
        CWireReader reader(bytes);
        reader.Skip(1);
        EXPECT_TRUE(reader.Bytes(nLen).empty());
        EXPECT_TRUE(reader.IsBad());
    }
}

TEST(WireWriter, WritesLittleEndianFieldsBytesAndTexts)
{
    Bytes room(17, 0xEE);
    CWireWriter writer(room);
    writer.Put(BYTE{0x01});
    writer.Put(WORD{0x0302});
    writer.Put(DWORD{0x07060504});
    writer.PutText("ab");
    writer.PutBytes("cd", 2);
    EXPECT_EQ(writer.Length(), 12U);
    EXPECT_EQ(writer.Room(), 5U);
    EXPECT_FALSE(writer.IsBad());
    EXPECT_EQ(room, (Bytes{1, 2, 3, 4, 5, 6, 7, 'a', 'b', 0, 'c', 'd', 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST(WireWriter, WritesSixtyFourBits)
{
    Bytes room(8);
    CWireWriter writer(room);
    writer.Put(uint64_t{0x0807060504030201});
    EXPECT_EQ(room, (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(writer.Room(), 0U);
}

TEST(WireWriter, WhatDoesNotFitIsNotBegunAndNothingFollowsIt)
{
    Bytes room(3, 0xEE);
    CWireWriter writer(room);
    writer.Put(BYTE{1});
    writer.Put(DWORD{2});
    EXPECT_TRUE(writer.IsBad());
    writer.Put(BYTE{3});
    writer.PutText("");
    writer.PutBytes("x", 1);
    EXPECT_EQ(writer.Length(), 1U);
    EXPECT_EQ(room, (Bytes{1, 0xEE, 0xEE}));
}

TEST(WireWriter, TextNeedsRoomForItsNul)
{
    Bytes room(3, 0xEE);
    CWireWriter tooLong(room);
    tooLong.PutText("abc");
    EXPECT_TRUE(tooLong.IsBad());
    EXPECT_EQ(room, Bytes(3, 0xEE));
    CWireWriter exact(room);
    exact.PutText("ab");
    EXPECT_FALSE(exact.IsBad());
    EXPECT_EQ(room, (Bytes{'a', 'b', 0}));
}

TEST(WireWriter, LengthsNearTheLargestNumberAreJustTooLong)
{
    Bytes room(3, 0xEE);
    CWireWriter writer(room);
    writer.Put(BYTE{1});
    volatile size_t nTooLong =
        std::numeric_limits<size_t>::max(); // a peer's number, not one a compiler foresees
    writer.PutBytes("x", nTooLong);
    EXPECT_TRUE(writer.IsBad());
    EXPECT_EQ(writer.Length(), 1U);
}

TEST(WireWriter, OfNoRoomTakesNothingButNothing)
{
    CWireWriter writer({});
    writer.PutBytes(nullptr, 0);
    EXPECT_FALSE(writer.IsBad());
    writer.PutText("");
    EXPECT_TRUE(writer.IsBad());
    EXPECT_EQ(writer.Length(), 0U);
}

TEST(WireWriter, WhatWasWrittenIsReadBack)
{
    std::mt19937_64 random(7);
    for (int i = 0; i < 1000; ++i) {
        const uint64_t n = random();
        const std::string strText(random() % 20, 'x');
        Bytes room(16 + strText.size());
        CWireWriter writer(room);
        writer.Put(static_cast<BYTE>(n));
        writer.PutText(strText);
        writer.Put(static_cast<WORD>(n));
        writer.Put(static_cast<DWORD>(n));
        writer.Put(n);
        ASSERT_EQ(writer.Length(), room.size());
        CWireReader reader(room);
        ASSERT_EQ(reader.Get<BYTE>(), static_cast<BYTE>(n));
        ASSERT_EQ(reader.Text(), strText);
        ASSERT_EQ(reader.Get<WORD>(), static_cast<WORD>(n));
        ASSERT_EQ(reader.Get<DWORD>(), static_cast<DWORD>(n));
        ASSERT_EQ(reader.Get<uint64_t>(), n);
        ASSERT_TRUE(!reader.IsBad() && !writer.IsBad() && reader.Left() == 0);
    }
}

} // namespace
