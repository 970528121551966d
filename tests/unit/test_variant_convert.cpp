// Conversions of variant values to numbers, dates and texts, changes of type, and date patterns.
#include "XVariant.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr double TWO_TO_63 = 9223372036854775808.0;

XVariant OfType(VARTYPE vt, long long llBits = 0)
{
    XVariant value;
    value.vt = vt;
    value.llVal = llBits;
    return value;
}

XVariant Real(double value)
{
    return {value, VT_R8};
}

/// The text with this number of decimals; nothing when the type has none.
std::optional<std::string> Text(const XVariant& value, int nPointBit = -1)
{
    CString str("old");
    CString strSame("old");
    const bool bDone = value.ToStringA(str, nPointBit);
    EXPECT_EQ(value.ToString(strSame, nPointBit), bDone);
    EXPECT_EQ(strSame, str);
    if (bDone)
        return str;
    EXPECT_EQ(str, "");
    return std::nullopt;
}

/// Sets the time zone for one scope.
class CZone
{
public:
    explicit CZone(const char* szZone)
    {
        if (const char* szBefore = ::getenv("TZ"))
            m_strBefore = szBefore;
        ::setenv("TZ", szZone, 1);
        ::tzset();
    }
    ~CZone()
    {
        m_strBefore ? ::setenv("TZ", m_strBefore->c_str(), 1) : ::unsetenv("TZ");
        ::tzset();
    }
    CZone(const CZone&) = delete;
    CZone& operator=(const CZone&) = delete;

private:
    std::optional<std::string> m_strBefore;
};

constexpr const char* ZONES_WITHOUT_SUMMER[] = {"UTC0", "CST-8", "EST5", "NPT-5:45"};
constexpr const char* ZONE_WITH_SUMMER = "EST5EDT,M3.2.0,M11.1.0";

// ---- numbers

/// A value and what it is as a number of each kind.
struct SNumbers
{
    XVariant value;
    double dbl;
    UINT nInt;
    uint64_t nInt64;
};

TEST(VariantConversion, GivesTheNumbersOfEveryType)
{
    const uint64_t nMinusOne = ~uint64_t{0};
    const SNumbers table[] = {
        {XVariant(short{-1}), -1, 0xFFFFFFFF, nMinusOne},
        {XVariant(USHORT{0xFFFF}), 65535, 0xFFFF, 0xFFFF},
        {XVariant(-1), -1, 0xFFFFFFFF, nMinusOne},
        {OfType(VT_INT, 0xFFFFFFFF), -1, 0xFFFFFFFF, nMinusOne},
        {XVariant(UINT{0xFFFFFFFF}), 4294967295.0, 0xFFFFFFFF, 0xFFFFFFFF},
        {OfType(VT_UINT, 0xFFFFFFFF), 4294967295.0, 0xFFFFFFFF, 0xFFFFFFFF},
        {XVariant(char{-1}), -1, 0xFFFFFFFF, nMinusOne},
        {XVariant(BYTE{255}), 255, 255, 255},
        {XVariant(true), 1, 1, 1},
        {XVariant(false), 0, 0, 0},
        {XVariant(0x100000005LL), 4294967301.0, 5, 0x100000005},
        {XVariant(-1LL), -1, 0xFFFFFFFF, nMinusOne},
        {XVariant(-2.75F), -2.75, 0xFFFFFFFE, nMinusOne - 1},
        {Real(2.75), 2.75, 2, 2},
        {Real(-2.75), -2.75, 0xFFFFFFFE, nMinusOne - 1},
        {XVariant(43957.5, VT_DATE), 43957.5, 43957, 43957},
        {XVariant("12abc"), 12, 12, 12},
        {XVariant(" 2.5e1 "), 25, 2, 2},
        {XVariant("-1"), -1, 0xFFFFFFFF, nMinusOne},
        {XVariant("abc"), 0, 0, 0},
        {XVariant("true"), 0, 0, 0},
        {XVariant(""), 0, 0, 0},
        {OfType(VT_STR), 0, 0, 0},
        {XVariant("4294967301"), 4294967301.0, 5, 0x100000005},
    };
    for (const SNumbers& row : table) {
        SCOPED_TRACE(std::to_string(row.value.vt) + " " + std::to_string(row.dbl));
        EXPECT_EQ(row.value.ToDouble(), row.dbl);
        EXPECT_EQ(row.value.ToFloat(), static_cast<float>(row.dbl));
        if (row.value.vt != VT_STR) {
            EXPECT_EQ(row.value.ToDate(), row.dbl);
        }
        EXPECT_EQ(row.value.ToInt(), row.nInt);
        EXPECT_EQ(row.value.ToInt64(), row.nInt64);
        EXPECT_EQ(row.value.ToBool(), row.nInt != 0);
    }
}

TEST(VariantConversion, OfATypeWithoutPayloadGivesZero)
{
    for (unsigned n = 0; n <= 0xFFFF; ++n) {
        const auto vt = static_cast<VARTYPE>(n);
        if (vt == VT_STR || XVariant::GetVTSize(vt) != 0)
            continue;
        const XVariant value = OfType(vt, -1);
        EXPECT_TRUE(value.ToDouble() == 0 && value.ToFloat() == 0 && value.ToDate() == 0);
        EXPECT_TRUE(value.ToInt() == 0 && value.ToInt64() == 0 && !value.ToBool());
        EXPECT_EQ(Text(value), std::nullopt);
    }
}

TEST(VariantConversion, OfAColourPutsRedIntoTheLowestByte)
{
    EXPECT_EQ(XVariant("#FF8000").ToInt(), 0x80FFU);
    EXPECT_EQ(XVariant("#FF8000").ToInt64(), 0x80FFU);
    EXPECT_EQ(XVariant("#112233").ToInt(), 0x332211U);
    EXPECT_EQ(XVariant("#44112233").ToInt(), 0x44332211U);
    EXPECT_EQ(XVariant("#99944112233").ToInt(), 0x44332211U);
    EXPECT_EQ(XVariant("#").ToInt(), 0U);
    EXPECT_EQ(XVariant("#xyz").ToInt(), 0U);
    EXPECT_EQ(XVariant(" #112233").ToInt(), 0U);
    EXPECT_EQ(XVariant("#112233").ToDouble(), 0.0);
}

TEST(VariantConversion, ToBooleanLooksAtTheWholeNumberOnly)
{
    EXPECT_FALSE(Real(0.7).ToBool());
    EXPECT_FALSE(Real(-0.7).ToBool());
    EXPECT_TRUE(Real(1.0).ToBool());
    EXPECT_TRUE(Real(-1.5).ToBool());
    EXPECT_FALSE(XVariant("true").ToBool());
    EXPECT_TRUE(XVariant("1").ToBool());
    EXPECT_FALSE(XVariant(0x100000000LL).ToBool()) << "the low 32 bits decide";
}

TEST(VariantConversion, OfFloatingValuesKeepsWhat64BitsHoldAndElseGivesZero)
{
    struct SCase
    {
        double value;
        uint64_t nWant;
    };
    const SCase cases[] = {
        {4294967301.9, 0x100000005},
        {-4294967301.9, ~uint64_t{0x100000005} + 1},
        {TWO_TO_63, uint64_t{1} << 63},
        {1e19, 10'000'000'000'000'000'000U},
        {-TWO_TO_63, uint64_t{1} << 63},
        {std::nextafter(2 * TWO_TO_63, 0), 0xFFFFFFFFFFFFF800},
        {2 * TWO_TO_63, 0},
        {std::nextafter(-TWO_TO_63, -INF), 0},
        {1e300, 0},
        {INF, 0},
        {-INF, 0},
        {NOT_A_NUMBER, 0},
    };
    for (const SCase& c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(Real(c.value).ToInt64(), c.nWant);
        EXPECT_EQ(Real(c.value).ToInt(), static_cast<UINT>(c.nWant));
        EXPECT_EQ(XVariant(c.value, VT_DATE).ToInt64(), c.nWant);
    }
    EXPECT_EQ(XVariant(std::numeric_limits<float>::max()).ToInt64(), 0U);
    EXPECT_EQ(XVariant(std::nanf("")).ToInt(), 0U);
}

TEST(VariantConversion, ToFloatOfADoubleBeyondItIsInfinite)
{
    EXPECT_EQ(Real(1e300).ToFloat(), static_cast<float>(INF));
    EXPECT_TRUE(std::isnan(Real(NOT_A_NUMBER).ToFloat()));
}

// ---- texts

TEST(VariantText, OfWholeNumbersMayHaveZeroDecimals)
{
    EXPECT_EQ(Text(XVariant(7), 3), "7.000");
    EXPECT_EQ(Text(XVariant(12), 2), "12.00");
    struct SCase
    {
        XVariant value;
        const char* szPlain;
    };
    const SCase cases[] = {
        {XVariant(short{-5}), "-5"},
        {XVariant(-5), "-5"},
        {OfType(VT_INT, 0xFFFFFFFB), "-5"},
        {XVariant(char{-5}), "-5"},
        {XVariant(BYTE{200}), "200"},
        {XVariant(USHORT{65535}), "65535"},
        {XVariant(UINT{4294967295U}), "4294967295"},
        {OfType(VT_UINT, 4294967295), "4294967295"},
    };
    for (const SCase& c : cases) {
        SCOPED_TRACE(c.value.vt);
        for (const int nPointBit : {-2, -1, 0, 11, 100})
            EXPECT_EQ(Text(c.value, nPointBit), c.szPlain);
        EXPECT_EQ(Text(c.value, 1), std::string(c.szPlain) + ".0");
        EXPECT_EQ(Text(c.value, 10), std::string(c.szPlain) + ".0000000000");
    }
}

TEST(VariantText, OfA64BitIntegerIsItsLow32BitsSignedWithoutDecimals)
{
    EXPECT_EQ(Text(XVariant(5LL), 2), "5");
    EXPECT_EQ(Text(XVariant(-5LL)), "-5");
    EXPECT_EQ(Text(XVariant(0x100000005LL)), "5");
    EXPECT_EQ(Text(XVariant(0xFFFFFFFFLL)), "-1");
    EXPECT_EQ(Text(XVariant(0x80000000LL)), "-2147483648");
}

TEST(VariantText, OfFloatingValuesHasTheDecimalsAskedFor)
{
    EXPECT_EQ(Text(Real(2.5), 0), "3");
    EXPECT_EQ(Text(Real(-2.5), 0), "-3");
    EXPECT_EQ(Text(Real(2.5), 2), "2.50");
    EXPECT_EQ(Text(Real(2.5), -1), "2.5");
    EXPECT_EQ(Text(Real(2.4999), 0), "2");
    EXPECT_EQ(Text(Real(-0.4), 0), "0");
    EXPECT_EQ(Text(Real(0.1), 10), "0.1000000000");
    EXPECT_EQ(Text(Real(0.1), 11), "0.1");
    EXPECT_EQ(Text(Real(1234567.0)), "1.23457e+06");
    EXPECT_EQ(Text(Real(100000.0)), "100000");
    EXPECT_EQ(Text(Real(-0.00001)), "-1e-05");
    EXPECT_EQ(Text(XVariant(0.1F)), "0.1");
    EXPECT_EQ(Text(XVariant(2.5F), 0), "3");
    EXPECT_EQ(Text(XVariant(-2.5F), 3), "-2.500");
}

TEST(VariantText, OfExtremeFloatingValuesIsDefined)
{
    EXPECT_EQ(Text(Real(4294967301.0), 0), "5") << "the low 32 bits";
    EXPECT_EQ(Text(Real(2147483647.5), 0), "-2147483648");
    EXPECT_EQ(Text(Real(1e300), 0), "0");
    EXPECT_EQ(Text(Real(NOT_A_NUMBER), 0), "0");
    EXPECT_EQ(Text(Real(-INF), 0), "0");
    EXPECT_EQ(Text(Real(INF)), "inf");
    const std::optional<std::string> strLong = Text(Real(-1e300), 10);
    ASSERT_TRUE(strLong);
    EXPECT_EQ(strLong->size(), 1U + 301 + 1 + 10);
    EXPECT_EQ(std::stod(*strLong), -1e300);
}

TEST(VariantText, OfTextsAndBooleansIgnoresDecimals)
{
    for (const int nPointBit : {-1, 0, 3}) {
        EXPECT_EQ(Text(XVariant("a text"), nPointBit), "a text");
        EXPECT_EQ(Text(OfType(VT_STR), nPointBit), "");
        EXPECT_EQ(Text(XVariant(true), nPointBit), "1");
        EXPECT_EQ(Text(XVariant(false), nPointBit), "0");
    }
}

TEST(VariantText, MayBeWrittenIntoTheVariantsOwnText)
{
    XVariant value("a text");
    EXPECT_TRUE(value.ToStringA(*value.pStrVal, -1));
    EXPECT_EQ(*value.pStrVal, "a text");
}

TEST(VariantText, IsWhatATextMadeOfAVariantHolds)
{
    EXPECT_EQ(CString(XVariant("abc")), "abc");
    EXPECT_EQ(CString(XVariant(-7)), "-7");
    EXPECT_EQ(CString(Real(2.5)), "2.5");
    EXPECT_EQ(CString(XVariant(true)), "1");
    EXPECT_EQ(CString(OfType(VT_STR)), "");
    EXPECT_EQ(CString(OfType(VT_CY)), "");
    XVariant raw("");
    raw.pStrVal->assign("a\0b", 3);
    EXPECT_EQ(CString(raw), std::string("a\0b", 3));
}

// ---- dates

TEST(VariantDate, OfATextIsTheSameWallClockTimeInEveryZone)
{
    for (const char* szZone : ZONES_WITHOUT_SUMMER) {
        SCOPED_TRACE(szZone);
        const CZone zone(szZone);
        EXPECT_EQ(XVariant("2020-5-6").ToDate(), 43957.0);
        EXPECT_EQ(XVariant("2020-05-06 12:00:00").ToDate(), 43957.5);
        EXPECT_EQ(XVariant("1970-1-1 6:0:0").ToDate(), 25569.25);
        EXPECT_EQ(XVariant("2020").ToDate(), 43831.0) << "missing fields are those of 1 January, 00:00:00";
        EXPECT_EQ(XVariant("2020-05-06 18").ToDate(), 43957.75);
        EXPECT_EQ(XVariant("2020-05-06 rubbish").ToDate(), 43957.0);
        EXPECT_EQ(Text(XVariant(43957.0, VT_DATE)), "2020-05-06 00:00:00");
        EXPECT_EQ(Text(XVariant(43957.75, VT_DATE), 3), "2020-05-06 18:00:00") << "no decimals";
        EXPECT_EQ(Text(XVariant(25570.0, VT_DATE)), "1970-01-02 00:00:00");
    }
}

TEST(VariantDate, OfATextWithoutAnyFieldIsZero)
{
    for (const char* sz : {"abc", "", "-", " x2020"})
        EXPECT_EQ(XVariant(sz).ToDate(), 0.0) << sz;
    EXPECT_EQ(OfType(VT_STR).ToDate(), 0.0);
    EXPECT_EQ(XVariant("12:30:00").ToDate(), XVariant("12-1-1").ToDate()) << "the first number is the year";
}

TEST(VariantDate, InSummerTimeCountsStandardTimeAndItsTextComesBack)
{
    const CZone zone(ZONE_WITH_SUMMER);
    EXPECT_EQ(XVariant("2020-01-15 12:00:00").ToDate(), 43845.5);
    const XVariant summer(XVariant("2020-07-01 12:00:00").ToDate(), VT_DATE);
    EXPECT_DOUBLE_EQ(summer.date, 44013.0 + 11.0 / 24);
    EXPECT_EQ(Text(summer), "2020-07-01 12:00:00");
}

TEST(VariantDate, FieldsBeyondTheirRangeCarryOver)
{
    const CZone zone("UTC0");
    EXPECT_EQ(XVariant("2020-13-1").ToDate(), XVariant("2021-1-1").ToDate());
    EXPECT_EQ(XVariant("2020-5-6 24:0:0").ToDate(), 43958.0);
    EXPECT_EQ(XVariant("2020-3-0").ToDate(), XVariant("2020-2-29").ToDate());
}

TEST(VariantDate, TextIsRoundedToTheNearestSecond)
{
    const CZone zone("UTC0");
    constexpr double SECOND = 1.0 / 86400.0;
    EXPECT_EQ(Text(XVariant(43957.0 + 0.4 * SECOND, VT_DATE)), "2020-05-06 00:00:00");
    EXPECT_EQ(Text(XVariant(43957.0 + 0.6 * SECOND, VT_DATE)), "2020-05-06 00:00:01");
    EXPECT_EQ(Text(XVariant(43957.0 - 0.4 * SECOND, VT_DATE)), "2020-05-06 00:00:00");
}

TEST(VariantDate, TextBefore1970IsCutTowardZeroAndSoASecondLate)
{
    const CZone zone("UTC0");
    EXPECT_EQ(Text(XVariant(25569.0, VT_DATE)), "1970-01-01 00:00:00");
    EXPECT_EQ(Text(XVariant(25568.0, VT_DATE)), "1969-12-31 00:00:01");
    EXPECT_EQ(Text(XVariant(0.0, VT_DATE)), "1899-12-30 00:00:01");
}

TEST(VariantDate, OutsideEveryCalendarHasAnEmptyText)
{
    for (const double date : {1e300, -1e300, 1e13, -1e13, INF, -INF, NOT_A_NUMBER})
        EXPECT_EQ(Text(XVariant(date, VT_DATE)), "") << date;
    const CZone zone("UTC0");
    EXPECT_EQ(Text(XVariant(3.0e6, VT_DATE)), "10113-09-19 00:00:00");
}

TEST(VariantDate, FieldsBeyondEveryCalendarDoNotFailTheProgram)
{
    for (const char* sz : {"2147483647-1-1", "-2147483648-1-1", "2020--2147483648-1",
                           "2020-1-2147483647 2147483647:2147483647:2147483647"})
        EXPECT_TRUE(std::isfinite(XVariant(sz).ToDate())) << sz;
}

TEST(VariantDate, OfATextWithANumberThatNoIntHoldsIsZero)
{
    for (const char* sz :
         {"2147483648-1-1", "-2147483649-1-1", "2020-4294967301-6", "2020-5-6 12:0:9223372036854775808",
          "99999999999999999999999999-5-6", "2020-5-6 -99999999999999999999999:0:0"})
        EXPECT_EQ(XVariant(sz).ToDate(), 0.0) << sz;
}

TEST(VariantDate, TakesFromEveryTextTheFieldsThatScanfTakes)
{
    const CZone zone("UTC0");
    constexpr std::string_view SOME = "0123456789--::  +x\t";
    std::mt19937 random(1);
    for (int nRound = 0; nRound < 20'000; ++nRound) {
        std::string strText = nRound % 2 ? "2020-5-6 " : "";
        for (auto nLeft = random() % 14; nLeft > 0; --nLeft)
            strText.push_back(SOME[random() % SOME.size()]);
        long long fields[] = {2000, 1, 1, 0, 0, 0}; // wide enough for all that is made here
        const int nRead = std::sscanf(strText.c_str(), "%lld-%lld-%lld %lld:%lld:%lld", &fields[0],
                                      &fields[1], &fields[2], &fields[3], &fields[4], &fields[5]);
        const bool bFits = std::ranges::all_of(fields, [](long long n) { return std::in_range<int>(n); });
        std::string strSame = std::to_string(fields[0]);
        for (size_t i = 1; i < std::size(fields); ++i)
            strSame.append(1, "-- ::"[i - 1]).append(std::to_string(fields[i]));
        const DATE want = nRead > 0 && bFits ? XVariant(strSame.c_str()).ToDate() : 0.0;
        EXPECT_EQ(XVariant(strText.c_str()).ToDate(), want) << strText;
    }
}

// ---- change of type

TEST(VariantChangeType, ConvertsToEveryTargetType)
{
    const XVariant source(65835.75, VT_R8); // 0x1012B and three quarters
    struct SCase
    {
        VARTYPE vt;
        long long llWant;
    };
    const SCase cases[] = {{VT_I2, 0x012B},   {VT_UI2, 0x012B},   {VT_I4, 0x1012B},       {VT_UI4, 0x1012B},
                           {VT_INT, 0x1012B}, {VT_UINT, 0x1012B}, {VT_I1, 0x2B},          {VT_UI1, 0x2B},
                           {VT_BOOL, 1},      {VT_I8, 0x1012B},   {VT_DATE, source.llVal}};
    for (const SCase& c : cases) {
        SCOPED_TRACE(c.vt);
        XVariant value(source);
        EXPECT_EQ(value.ChangeType(c.vt), 0);
        EXPECT_EQ(value.vt, c.vt);
        EXPECT_EQ(value.llVal, c.llWant);
    }
    XVariant value(source);
    EXPECT_EQ(value.ChangeType(VT_R4), 0);
    EXPECT_EQ(value.vt, VT_R4);
    EXPECT_EQ(value.fltVal, 65835.75F);
    EXPECT_EQ(value.ChangeType(VT_R8), 0);
    EXPECT_TRUE(value == source);
    EXPECT_EQ(value.ChangeType(VT_STR), 0);
    EXPECT_TRUE(value == XVariant("65835.8"));
}

TEST(VariantChangeType, ConvertsNegativeNumbersAndTexts)
{
    XVariant value(-1);
    EXPECT_EQ(value.ChangeType(VT_I8), 0);
    EXPECT_EQ(value.llVal, -1);
    EXPECT_EQ(value.ChangeType(VT_I1), 0);
    EXPECT_EQ(value.cVal, static_cast<char>(-1));
    EXPECT_EQ(value.ChangeType(VT_STR), 0);
    EXPECT_TRUE(value == XVariant("-1"));
    EXPECT_EQ(value.ChangeType(VT_I2), 0);
    EXPECT_EQ(value.iVal, -1);
    value = "2020-05-06 12:00:00";
    EXPECT_EQ(value.ChangeType(VT_DATE), 0);
    EXPECT_EQ(value.date, 43957.5);
    EXPECT_EQ(value.ChangeType(VT_STR), 0);
    EXPECT_TRUE(value == XVariant("2020-05-06 12:00:00"));
    value = 0.7;
    EXPECT_EQ(value.ChangeType(VT_BOOL), 0);
    EXPECT_FALSE(value.boolVal);
}

TEST(VariantChangeType, OfATenthToTextGivesItsNaturalForm)
{
    XVariant value(0.1, VT_R8);
    EXPECT_EQ(value.ChangeType(VT_STR), 0);
    EXPECT_TRUE(value == XVariant("0.1"));
    XVariant empty;
    EXPECT_EQ(empty.ChangeType(VT_STR), 0);
    EXPECT_TRUE(empty == XVariant(""));
}

TEST(VariantChangeType, ToTheSameTypeChangesNothingEvenWithASource)
{
    const XVariant source(9);
    XVariant value(5);
    EXPECT_EQ(value.ChangeType(VT_I4, &source), 0);
    EXPECT_EQ(value.lVal, 5);
    XVariant odd = OfType(VT_UI8, 77);
    EXPECT_EQ(odd.ChangeType(VT_UI8, &source), 0);
    EXPECT_EQ(odd.llVal, 77);
}

TEST(VariantChangeType, TakesItsSourceWhenThereIsOne)
{
    const XVariant source("12");
    XVariant value(5);
    EXPECT_EQ(value.ChangeType(VT_R8, &source), 0);
    EXPECT_EQ(value.dblVal, 12.0);
    XVariant self("34");
    EXPECT_EQ(self.ChangeType(VT_I4, &self), 0);
    EXPECT_EQ(self.lVal, 34);
}

TEST(VariantChangeType, ToNoTargetTypeSaysOneAndLeavesAZeroOfThatType)
{
    for (unsigned n = 0; n <= 0xFFFF; ++n) {
        const auto vt = static_cast<VARTYPE>(n);
        if (vt == VT_STR || XVariant::GetVTSize(vt) != 0)
            continue;
        XVariant value("a text");
        ASSERT_EQ(value.ChangeType(vt), 1) << vt;
        ASSERT_EQ(value.vt, vt);
        ASSERT_EQ(value.llVal, 0) << vt;
    }
}

// ---- date patterns

std::string Filled(const char* szPattern, int nYear = 2024)
{
    CString str("old");
    DateToStr(nYear, 3, 5, 7, 8, 9, szPattern, str);
    return str;
}

TEST(DatePattern, FillsEveryMarker)
{
    EXPECT_EQ(Filled("$Y/$2M/$2D"), "2024/03/05");
    EXPECT_EQ(Filled("$M"), "3");
    EXPECT_EQ(Filled("$Y-$M-$D $h:$m:$s"), "2024-3-5 7:8:9");
    EXPECT_EQ(Filled("$2Y-$2M-$2D $2h:$2m:$2s"), "2024-03-05 07:08:09");
    EXPECT_EQ(Filled("no marker, $ $x $$"), "no marker, $ $x $$");
    EXPECT_EQ(Filled(""), "");
}

TEST(DatePattern, WithAPlainMarkerLeavesThePaddedOneOfTheSameField)
{
    EXPECT_EQ(Filled("$M $2M $M"), "3 $2M 3");
    EXPECT_EQ(Filled("$2M $2M $D"), "03 03 5");
}

TEST(DatePattern, PadsTheYearToTwoPlacesAndNeverCutsIt)
{
    EXPECT_EQ(Filled("$2Y"), "2024");
    EXPECT_EQ(Filled("$2Y", 7), " 7");
    EXPECT_EQ(Filled("$Y", 7), "7");
}

TEST(DatePattern, PrintsAtMostSevenCharactersOfAField)
{
    EXPECT_EQ(Filled("$Y", 123456789), "1234567");
    EXPECT_EQ(Filled("$2Y", -123456789), "-123456");
}

TEST(DatePattern, MayBeFilledInPlace)
{
    CString str("$Y");
    DateToStr(2024, 1, 1, 0, 0, 0, str, str);
    EXPECT_EQ(str, "2024");
}

} // namespace
