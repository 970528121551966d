// Variant values: what a value is made of, copying and moving, the byte form in both directions, sizes,
// equality. Conversions, texts and dates: test_variant_convert.cpp.
#include "XVariant.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<BYTE>;

XVariant OfType(VARTYPE vt, long long llBits = 0)
{
    XVariant value;
    value.vt = vt;
    value.llVal = llBits;
    return value;
}

Bytes Encode(const XVariant& value, bool bIncludeVT)
{
    Bytes bytes(value.BufferSize(bIncludeVT));
    EXPECT_EQ(value.ToBuffer(bytes.data(), bytes.size(), bIncludeVT), bytes.size());
    return bytes;
}

/// Every type of the table of types, with what it takes.
struct STypeSize
{
    VARTYPE vt;
    BYTE nBytes;
    UINT nFivePacked;
    BYTE nWords;
};
constexpr STypeSize SIZES[] = {
    {VT_I2, 2, 10, 1},  {VT_UI2, 2, 10, 1},  {VT_I4, 4, 20, 2}, {VT_R4, 4, 20, 2}, {VT_UI4, 4, 20, 2},
    {VT_INT, 4, 20, 2}, {VT_UINT, 4, 20, 2}, {VT_R8, 8, 40, 4}, {VT_I8, 8, 40, 4}, {VT_DATE, 8, 0, 1},
    {VT_BOOL, 1, 1, 1}, {VT_I1, 1, 5, 1},    {VT_UI1, 1, 5, 1},
};

bool IsSized(VARTYPE vt)
{
    for (const STypeSize& size : SIZES) {
        if (size.vt == vt)
            return true;
    }
    return false;
}

std::vector<VARTYPE> AllOtherCodes()
{
    std::vector<VARTYPE> codes;
    for (unsigned n = 0; n <= 0xFFFF; ++n) {
        const auto vt = static_cast<VARTYPE>(n);
        if (vt != VT_STR && !IsSized(vt))
            codes.push_back(vt);
    }
    return codes;
}

/// One value of each type that has a payload, and its bytes with the type word.
struct SWire
{
    XVariant value;
    Bytes bytes;
};
std::vector<SWire> WireTable()
{
    return {
        {XVariant(short{-2}), {2, 0, 0xFE, 0xFF}},
        {XVariant(USHORT{0xABCD}), {18, 0, 0xCD, 0xAB}},
        {XVariant(int{-3}), {3, 0, 0xFD, 0xFF, 0xFF, 0xFF}},
        {XVariant(UINT{0x89ABCDEF}), {19, 0, 0xEF, 0xCD, 0xAB, 0x89}},
        {OfType(VT_INT, 0x01020304), {22, 0, 4, 3, 2, 1}},
        {OfType(VT_UINT, 0x01020304), {23, 0, 4, 3, 2, 1}},
        {XVariant(1.0F), {4, 0, 0, 0, 0x80, 0x3F}},
        {XVariant(1.0, VT_R8), {5, 0, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F}},
        {XVariant(-2.0, VT_DATE), {7, 0, 0, 0, 0, 0, 0, 0, 0, 0xC0}},
        {XVariant(0x0102030405060708LL), {20, 0, 8, 7, 6, 5, 4, 3, 2, 1}},
        {XVariant(true), {11, 0, 1}},
        {XVariant(false), {11, 0, 0}},
        {XVariant(char{-1}), {16, 0, 0xFF}},
        {XVariant(BYTE{200}), {17, 0, 200}},
        {XVariant("abc"), {8, 0, 'a', 'b', 'c', 0}},
        {XVariant(""), {8, 0, 0}},
    };
}

std::string NameOf(const XVariant& value)
{
    return "type " + std::to_string(value.vt);
}

// ---- construction, assignment, copy, move

TEST(XVariant, CodesOfTheTypesAreThoseOfTheWire)
{
    constexpr VARENUM inOrder[] = {VT_EMPTY, VT_NULL, VT_I2,      VT_I4,      VT_R4,
                                   VT_R8,    VT_CY,   VT_DATE,    VT_STR,     VT_JSOBJ,
                                   VT_ERROR, VT_BOOL, VT_VARIANT, VT_UNKNOWN, VT_DECIMAL};
    for (unsigned n = 0; n < std::size(inOrder); ++n)
        EXPECT_EQ(inOrder[n], n);
    constexpr VARENUM from16[] = {VT_I1,     VT_UI1,         VT_UI2,   VT_UI4,     VT_I8,  VT_UI8,
                                  VT_INT,    VT_UINT,        VT_VOID,  VT_HRESULT, VT_PTR, VT_SAFEARRAY,
                                  VT_CARRAY, VT_USERDEFINED, VT_LPSTR, VT_LPWSTR};
    for (unsigned n = 0; n < std::size(from16); ++n)
        EXPECT_EQ(from16[n], 16 + n);
    constexpr VARENUM from36[] = {VT_RECORD, VT_INT_PTR, VT_UINT_PTR};
    for (unsigned n = 0; n < std::size(from36); ++n)
        EXPECT_EQ(from36[n], 36 + n);
    constexpr VARENUM from64[] = {
        VT_FILETIME,      VT_BLOB,        VT_STREAM, VT_STORAGE, VT_STREAMED_OBJECT,
        VT_STORED_OBJECT, VT_BLOB_OBJECT, VT_CF,     VT_CLSID,   VT_VERSIONED_STREAM};
    for (unsigned n = 0; n < std::size(from64); ++n)
        EXPECT_EQ(from64[n], 64 + n);
    EXPECT_EQ(VT_BSTR, 8);
    EXPECT_EQ(VT_DISPATCH, 9);
    EXPECT_TRUE(VT_BSTR_BLOB == 4095 && VT_ILLEGALMASKED == 4095 && VT_TYPEMASK == 4095);
    EXPECT_TRUE(VT_VECTOR == 4096 && VT_ARRAY == 8192 && VT_BYREF == 16384 && VT_RESERVED == 32768);
    EXPECT_EQ(VT_ILLEGAL, 65535);
}

/// Made of a value and assigned it: the same type, the same value.
template <class T> void ExpectTypeOf(T value, VARTYPE vt, long long llBits)
{
    const XVariant made(value);
    EXPECT_EQ(made.vt, vt);
    EXPECT_EQ(made.llVal, llBits);
    XVariant assigned("text that must go");
    assigned = value;
    EXPECT_EQ(assigned.vt, vt);
    EXPECT_EQ(assigned.llVal, llBits);
}

TEST(XVariant, TakesTheTypeOfTheNumberItIsMadeOfOrAssigned)
{
    ExpectTypeOf(true, VT_BOOL, 1);
    ExpectTypeOf(false, VT_BOOL, 0);
    ExpectTypeOf(char{'A'}, VT_I1, 'A');
    ExpectTypeOf(BYTE{200}, VT_UI1, 200);
    ExpectTypeOf(short{-1}, VT_I2, 0xFFFF);
    ExpectTypeOf(USHORT{0xFFFE}, VT_UI2, 0xFFFE);
    ExpectTypeOf(int{-1}, VT_I4, 0xFFFFFFFF);
    ExpectTypeOf(0, VT_I4, 0);
    ExpectTypeOf(-1L, VT_I4, 0xFFFFFFFF);
    ExpectTypeOf(UINT{0xFFFFFFFF}, VT_UI4, 0xFFFFFFFF);
    ExpectTypeOf(ULONG{7}, VT_UI4, 7);
    ExpectTypeOf(1.0F, VT_R4, 0x3F800000);
    ExpectTypeOf(-1LL, VT_I8, -1);
    XVariant value;
    EXPECT_EQ(value.vt, VT_EMPTY);
    EXPECT_EQ(value.llVal, 0);
    value = 2.5;
    EXPECT_EQ(value.vt, VT_R8);
    EXPECT_EQ(value.dblVal, 2.5);
}

TEST(XVariant, MadeOfADoubleIsANumberOrADate)
{
    const XVariant number(2.5, VT_R8);
    EXPECT_EQ(number.vt, VT_R8);
    EXPECT_EQ(number.dblVal, 2.5);
    const XVariant day(2.5, VT_DATE);
    EXPECT_EQ(day.vt, VT_DATE);
    EXPECT_EQ(day.date, 2.5);
    // A text would free the number as if it were a pointer.
    EXPECT_EQ(XVariant(2.5, VT_STR).vt, VT_R8);
}

TEST(XVariant, OwnsACopyOfItsText)
{
    std::string strSource("abc");
    XVariant value(strSource.c_str());
    strSource[0] = 'X';
    ASSERT_EQ(value.vt, VT_STR);
    EXPECT_EQ(*value.pStrVal, "abc");
    value = "other";
    EXPECT_EQ(*value.pStrVal, "other");
    value = value.pStrVal->c_str() + 2;
    EXPECT_EQ(*value.pStrVal, "her");
    EXPECT_EQ(*XVariant(static_cast<LPCSTR>(nullptr)).pStrVal, "");
    EXPECT_EQ(*XVariant(CString("abc")).pStrVal, "abc");
    value = CString("def");
    EXPECT_EQ(*value.pStrVal, "def");
}

TEST(XVariant, CopiesEveryTypeAndEachTextOnItsOwn)
{
    for (const SWire& wire : WireTable()) {
        SCOPED_TRACE(NameOf(wire.value));
        const XVariant copy(wire.value);
        EXPECT_TRUE(copy == wire.value);
        XVariant assigned(77);
        assigned = wire.value;
        EXPECT_TRUE(assigned == wire.value);
        if (wire.value.vt == VT_STR) {
            EXPECT_NE(copy.pStrVal, wire.value.pStrVal);
            EXPECT_NE(assigned.pStrVal, wire.value.pStrVal);
        }
    }
}

TEST(XVariant, CopiesOnlyTheBytesOfItsType)
{
    for (const STypeSize& size : SIZES) {
        SCOPED_TRACE(size.vt);
        const XVariant full = OfType(size.vt, 0x0101010101010101);
        const long long llWant = size.nBytes == 8 ? full.llVal : (1LL << 8 * size.nBytes) / 255;
        const XVariant copy(full);
        EXPECT_EQ(copy.llVal, llWant);
        XVariant assigned(-1LL);
        assigned = full;
        EXPECT_EQ(assigned.llVal, llWant);
    }
}

TEST(XVariant, CopyOfATypeWithoutPayloadKeepsTheRawBytesButAssignmentDoesNot)
{
    for (const VARTYPE vt : {VT_EMPTY, VT_NULL, VT_CY, VT_UI8, VT_ARRAY, VT_ILLEGAL}) {
        SCOPED_TRACE(vt);
        const XVariant raw = OfType(vt, 0x1122334455667788);
        const XVariant copy(raw);
        EXPECT_EQ(copy.vt, vt);
        EXPECT_EQ(copy.llVal, 0x1122334455667788);
        XVariant assigned(5);
        assigned = raw;
        EXPECT_EQ(assigned.vt, vt);
        EXPECT_EQ(assigned.llVal, 0);
    }
}

TEST(XVariant, CopiesAMissingTextAsAMissingText)
{
    const XVariant none = OfType(VT_STR);
    const XVariant copy(none);
    EXPECT_EQ(copy.vt, VT_STR);
    EXPECT_EQ(copy.pStrVal, nullptr);
    XVariant assigned("abc");
    assigned = none;
    EXPECT_EQ(assigned.vt, VT_STR);
    EXPECT_EQ(assigned.pStrVal, nullptr);
}

TEST(XVariant, AssignedToItselfStaysAsItIs)
{
    XVariant value("abc");
    const XVariant& same = value;
    value = same;
    EXPECT_EQ(*value.pStrVal, "abc");
    XVariant& other = value;
    value = std::move(other);
    EXPECT_EQ(*value.pStrVal, "abc");
}

TEST(XVariant, MovesItsTextAndIsEmptyAfterwards)
{
    static_assert(std::is_nothrow_move_constructible_v<XVariant> &&
                  std::is_nothrow_move_assignable_v<XVariant>);
    XVariant value("abc");
    const CString* pText = value.pStrVal;
    XVariant moved(std::move(value));
    EXPECT_EQ(moved.pStrVal, pText);
    EXPECT_TRUE(value.vt == VT_EMPTY &&
                value.llVal == 0); // NOLINT(bugprone-use-after-move): that is the promise
    XVariant assigned("to be freed");
    assigned = std::move(moved);
    EXPECT_EQ(assigned.pStrVal, pText);
    EXPECT_TRUE(moved.vt == VT_EMPTY && moved.llVal == 0); // NOLINT(bugprone-use-after-move)
    XVariant number(1.5, VT_DATE);
    const XVariant movedNumber(std::move(number));
    EXPECT_TRUE(movedNumber.vt == VT_DATE && movedNumber.date == 1.5);
}

TEST(XVariant, ClearedIsEmptyAndAllZero)
{
    for (const SWire& wire : WireTable()) {
        SCOPED_TRACE(NameOf(wire.value));
        XVariant value(wire.value);
        value.Clear();
        EXPECT_EQ(value.vt, VT_EMPTY);
        EXPECT_EQ(value.llVal, 0);
        value.Clear();
        EXPECT_EQ(value.vt, VT_EMPTY);
    }
    XVariant none = OfType(VT_STR);
    none.Clear();
    EXPECT_EQ(none.vt, VT_EMPTY);
    XVariant raw = OfType(VT_UI8, -1);
    raw.Clear();
    EXPECT_EQ(raw.vt, VT_EMPTY);
    EXPECT_EQ(raw.llVal, 0);
}

// ---- byte form

TEST(XVariant, WritesAndReadsEachTypeByteForByte)
{
    for (const SWire& wire : WireTable()) {
        SCOPED_TRACE(NameOf(wire.value));
        const Bytes payload(wire.bytes.begin() + 2, wire.bytes.end());
        EXPECT_EQ(wire.value.BufferSize(true), wire.bytes.size());
        EXPECT_EQ(wire.value.BufferSize(false), payload.size());
        EXPECT_EQ(Encode(wire.value, true), wire.bytes);
        EXPECT_EQ(Encode(wire.value, false), payload);
        XVariant typed("old");
        EXPECT_EQ(typed.FromBuffer(wire.bytes.data(), true), wire.bytes.size());
        EXPECT_TRUE(typed == wire.value);
        XVariant known = OfType(wire.value.vt);
        EXPECT_EQ(known.FromBuffer(payload.data(), false), payload.size());
        EXPECT_TRUE(known == wire.value);
    }
}

TEST(XVariant, WritesAllBytesWhateverTheStatedRoomIs)
{
    const XVariant value("abc");
    EXPECT_EQ(value.BufferSize(true), 6U);
    Bytes bytes(6);
    EXPECT_EQ(value.ToBuffer(bytes.data(), 0, true), 6U);
    EXPECT_EQ(bytes, (Bytes{8, 0, 'a', 'b', 'c', 0}));
}

TEST(XVariant, ReadsTheFortyTwoWithAndWithoutItsTypeWord)
{
    const Bytes bytes{3, 0, 0x2A, 0, 0, 0};
    XVariant value;
    EXPECT_EQ(value.FromBuffer(bytes.data(), true), 6U);
    EXPECT_EQ(value.vt, VT_I4);
    EXPECT_EQ(value.lVal, 42);
    value.lVal = 1;
    EXPECT_EQ(value.FromBuffer(bytes.data() + 2, false), 4U);
    EXPECT_EQ(value.vt, VT_I4);
    EXPECT_EQ(value.lVal, 42);
}

TEST(XVariant, MissingTextIsWrittenAsAnEmptyOne)
{
    EXPECT_EQ(Encode(OfType(VT_STR), true), (Bytes{8, 0, 0}));
    EXPECT_EQ(OfType(VT_STR).BufferSize(false), 1U);
}

TEST(XVariant, TextOnTheWireEndsAtItsFirstNul)
{
    XVariant value("");
    value.pStrVal->assign("ab\0cd", 5);
    EXPECT_EQ(Encode(value, false), (Bytes{'a', 'b', 0}));
    const Bytes two{'a', 'b', 0, 'c', 'd', 0};
    EXPECT_EQ(value.FromBuffer(two.data(), false), 3U);
    EXPECT_EQ(*value.pStrVal, "ab");
}

TEST(XVariant, AnyNonZeroByteIsATrueBoolean)
{
    for (int n = 0; n < 256; ++n) {
        const BYTE byte = static_cast<BYTE>(n);
        XVariant value(false);
        EXPECT_EQ(value.FromBuffer(&byte, false), 1U);
        EXPECT_EQ(value.llVal, n != 0 ? 1 : 0);
        EXPECT_EQ(Encode(value, false), Bytes{static_cast<BYTE>(n != 0)});
    }
}

TEST(XVariant, OfEveryOtherTypeHasNoPayload)
{
    const Bytes noise(16, 0xEE);
    for (const VARTYPE vt : AllOtherCodes()) {
        SCOPED_TRACE(vt);
        const Bytes typeWord{static_cast<BYTE>(vt), static_cast<BYTE>(vt >> 8)};
        EXPECT_EQ(Encode(OfType(vt, -1), true), typeWord);
        EXPECT_EQ(OfType(vt, -1).BufferSize(false), 0U);
        const VARTYPE vtRead = vt == VT_ARRAY ? VT_ARRAY | VT_VARIANT : vt;
        XVariant value("old");
        EXPECT_EQ(value.FromBuffer(typeWord.data(), true), 2U);
        EXPECT_EQ(value.vt, vtRead);
        EXPECT_EQ(value.llVal, 0);
        XVariant known = OfType(vt, -1);
        EXPECT_EQ(known.FromBuffer(noise.data(), false), 0U);
        EXPECT_EQ(known.vt, vtRead);
        EXPECT_EQ(known.llVal, 0);
        EXPECT_EQ(known.FromBytes({}, false), 0U);
    }
}

TEST(XVariant, ArrayIsItsTypeWordAndKeepsNothing)
{
    const Bytes bytes{0, 32, 3, 0, 2, 0, 1, 0, 11, 0, 1, 8, 0, 'x', 0};
    XVariant value("old");
    EXPECT_EQ(value.FromBuffer(bytes.data(), true), 2U);
    EXPECT_EQ(value.vt, 8204);
    EXPECT_EQ(value.llVal, 0);
    value = XVariant(1);
    EXPECT_EQ(value.FromBytes(bytes, true), 2U);
    EXPECT_EQ(value.vt, 8204);
    XVariant known = OfType(VT_ARRAY);
    EXPECT_EQ(known.FromBuffer(bytes.data() + 2, false), 0U);
    EXPECT_EQ(known.vt, 8204);
}

TEST(XVariant, HostileArraysOfArraysCostNothing)
{
    // 65535 elements, each again an array of 65535, as deep as the bytes go: decoding them would not end.
    Bytes nested;
    for (int i = 0; i < 250'000; ++i)
        nested.insert(nested.end(), {0, 32, 0xFF, 0xFF});
    XVariant value;
    EXPECT_EQ(value.FromBytes(nested, true), 2U);
    EXPECT_EQ(value.vt, 8204);
    EXPECT_EQ(value.FromBuffer(nested.data(), true), 2U);
    // Nothing behind the type word is touched: here, nothing is there.
    const Bytes typeWordOnly{0, 32};
    EXPECT_EQ(value.FromBytes(typeWordOnly, true), 2U);
    EXPECT_EQ(value.FromBuffer(typeWordOnly.data(), true), 2U);
    EXPECT_EQ(value.vt, 8204);
}

TEST(XVariant, BoundedReadingTakesWhatUnboundedReadingTakes)
{
    for (const SWire& wire : WireTable()) {
        SCOPED_TRACE(NameOf(wire.value));
        Bytes bytes(wire.bytes);
        bytes.insert(bytes.end(), {0xEE, 0xEE, 0});
        const std::span<const BYTE> payload = std::span<const BYTE>(bytes).subspan(2);
        XVariant typed("old");
        EXPECT_EQ(typed.FromBytes(bytes, true), wire.bytes.size());
        EXPECT_TRUE(typed == wire.value);
        XVariant known = OfType(wire.value.vt);
        EXPECT_EQ(known.FromBytes(payload, false), wire.bytes.size() - 2);
        EXPECT_TRUE(known == wire.value);
    }
}

TEST(XVariant, BoundedReadingOfEveryShorterPieceIsRefusedAndChangesNothing)
{
    for (const SWire& wire : WireTable()) {
        SCOPED_TRACE(NameOf(wire.value));
        for (size_t nLen = 0; nLen < wire.bytes.size(); ++nLen) {
            const Bytes piece(wire.bytes.begin(), wire.bytes.begin() + static_cast<ptrdiff_t>(nLen));
            XVariant value("kept");
            EXPECT_EQ(value.FromBytes(piece, true), std::nullopt);
            EXPECT_TRUE(value == XVariant("kept"));
            if (nLen < 2)
                continue;
            const Bytes payload(piece.begin() + 2, piece.end());
            XVariant known(wire.value);
            EXPECT_EQ(known.FromBytes(payload, false), std::nullopt);
            EXPECT_TRUE(known == wire.value);
        }
    }
}

TEST(XVariant, ReadingAnEmptyValueWithoutTypeWordGivesZero)
{
    const BYTE byte = 5;
    XVariant value;
    EXPECT_EQ(value.FromBuffer(&byte, false), 0U);
    EXPECT_EQ(value.vt, VT_EMPTY);
}

TEST(XVariant, RandomBytesComeBackAsTheyWereReadAndNeverRunOver)
{
    std::mt19937 random(20240305);
    for (int i = 0; i < 20'000; ++i) {
        Bytes bytes(random() % 14);
        for (BYTE& byte : bytes)
            byte = static_cast<BYTE>(random());
        if (bytes.size() >= 2 && i % 4 != 0) {
            bytes[0] %= 32;
            bytes[1] = 0;
        }
        XVariant value;
        const std::optional<size_t> nUsed = value.FromBytes(bytes, true);
        if (!nUsed)
            continue;
        ASSERT_LE(*nUsed, bytes.size());
        Bytes want(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(*nUsed));
        if (value.vt == VT_BOOL)
            want[2] = want[2] != 0;
        if (value.vt != (VT_ARRAY | VT_VARIANT)) {
            ASSERT_EQ(Encode(value, true), want);
        }
    }
}

// ---- sizes and equality

TEST(XVariant, SizesOfTypesAreThoseOfTheTable)
{
    for (const STypeSize& size : SIZES) {
        SCOPED_TRACE(size.vt);
        EXPECT_EQ(XVariant::GetVTSize(size.vt), size.nBytes);
        EXPECT_EQ(XVariant::GetVTSize(size.vt, 5), size.nFivePacked);
        EXPECT_EQ(XVariant::GetVTSize(size.vt, 0), 0U);
        EXPECT_EQ(XVariant::GetVTSizeW(size.vt), size.nWords);
    }
    std::vector<VARTYPE> others = AllOtherCodes();
    others.push_back(VT_STR);
    for (const VARTYPE vt : others) {
        SCOPED_TRACE(vt);
        EXPECT_EQ(XVariant::GetVTSize(vt), 0);
        EXPECT_EQ(XVariant::GetVTSize(vt, 5), 0U);
        EXPECT_EQ(XVariant::GetVTSizeW(vt), 1);
    }
}

TEST(XVariant, BooleansArePackedAsBits)
{
    EXPECT_EQ(XVariant::GetVTSize(VT_BOOL, 1), 1U);
    EXPECT_EQ(XVariant::GetVTSize(VT_BOOL, 8), 1U);
    EXPECT_EQ(XVariant::GetVTSize(VT_BOOL, 9), 2U);
    EXPECT_EQ(XVariant::GetVTSize(VT_BOOL, 16), 2U);
    EXPECT_EQ(XVariant::GetVTSize(VT_BOOL, 0xFFFFFFFF), 0x20000000U);
}

TEST(XVariant, EqualsItsCopyAndNothingElse)
{
    const std::vector<SWire> table = WireTable();
    for (size_t i = 0; i < table.size(); ++i) {
        for (size_t j = 0; j < table.size(); ++j) {
            SCOPED_TRACE(NameOf(table[i].value) + " and " + NameOf(table[j].value));
            EXPECT_EQ(table[i].value == XVariant(table[j].value), i == j);
            EXPECT_EQ(table[i].value != XVariant(table[j].value), i != j);
        }
    }
}

TEST(XVariant, OfAnotherTypeIsNeverEqual)
{
    EXPECT_FALSE(XVariant(1) == XVariant(UINT{1}));
    EXPECT_FALSE(OfType(VT_INT, 1) == OfType(VT_I4, 1));
    EXPECT_FALSE(XVariant(1.0, VT_R8) == XVariant(1.0, VT_DATE));
    EXPECT_FALSE(OfType(VT_EMPTY) == OfType(VT_NULL));
}

TEST(XVariant, ComparesAtTheWidthOfItsType)
{
    for (const STypeSize& size : SIZES) {
        SCOPED_TRACE(size.vt);
        const bool bDouble = size.vt == VT_R8 || size.vt == VT_DATE;
        const auto llBeyond = size.nBytes == 8 ? 0LL : 1LL << 8 * size.nBytes;
        EXPECT_TRUE(OfType(size.vt, 1) == OfType(size.vt, 1 | llBeyond));
        EXPECT_FALSE(OfType(size.vt, 0) == OfType(size.vt, bDouble ? 0x4000000000000000 : 1));
    }
}

TEST(XVariant, FloatingValuesCompareAsNumbers)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(XVariant(0.0, VT_R8) == XVariant(-0.0, VT_R8));
    EXPECT_TRUE(XVariant(0.0F) == XVariant(-0.0F));
    EXPECT_FALSE(XVariant(nan, VT_R8) == XVariant(nan, VT_R8));
    EXPECT_FALSE(XVariant(nan, VT_DATE) == XVariant(nan, VT_DATE));
    EXPECT_FALSE(XVariant(std::nanf("")) == XVariant(std::nanf("")));
}

TEST(XVariant, TextsCompareUpToTheirFirstNul)
{
    XVariant left("ab");
    XVariant right("ab");
    right.pStrVal->append("\0x", 2);
    EXPECT_TRUE(left == right);
    EXPECT_FALSE(left == XVariant("aB"));
    EXPECT_TRUE(OfType(VT_STR) == XVariant(""));
}

TEST(XVariant, OnlyEmptyAndNullOfTheTypesWithoutPayloadAreEqual)
{
    for (const VARTYPE vt : AllOtherCodes()) {
        SCOPED_TRACE(vt);
        EXPECT_EQ(OfType(vt, 1) == OfType(vt, 1), vt == VT_EMPTY || vt == VT_NULL);
        const XVariant one = OfType(vt);
        EXPECT_EQ(one == one, vt == VT_EMPTY || vt == VT_NULL);
    }
}

} // namespace
