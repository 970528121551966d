// The dash and the middle dot, which have two forms in Unicode: both are taken, and the usual one comes out,
// whatever the system's converter does. Converters that differ stand in for it here: one takes the one form
// alone, one the other, one both.
#include "cstring.h"
#include "standin_iconv.h"

#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr const char* USUAL = "a\u2014b\u00B7c";
constexpr const char* OTHER = "a\u2015b\u30FBc";
constexpr const char* GB = "a\xA1\xAA"
                           "b\xA1\xA4"
                           "c";
const std::vector<WORD> USUAL_UNITS{'a', 0x2014, 'b', 0x00B7, 'c'};
const std::vector<WORD> OTHER_UNITS{'a', 0x2015, 'b', 0x30FB, 'c'};

class CTwoForms : public testing::TestWithParam<EStandIn>
{
protected:
    void SetUp() override
    {
        g_eStandIn = GetParam();
        testing::internal::CaptureStderr();
    }
    void TearDown() override
    {
        g_eStandIn = EStandIn::None;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), m_strExpected);
    }

    std::string m_strExpected; // on standard error
};

INSTANTIATE_TEST_SUITE_P(EveryConverter, CTwoForms,
                         testing::Values(EStandIn::None, EStandIn::TakesUsual, EStandIn::TakesOther,
                                         EStandIn::TakesBoth));

TEST_P(CTwoForms, AreBothTakenFromUtf8)
{
    EXPECT_EQ(CUTF82T(USUAL), GB);
    EXPECT_EQ(CUTF82T(OTHER), GB);
    EXPECT_EQ(GbOfUtf8(USUAL), GB);
    EXPECT_EQ(GbOfUtf8(OTHER), GB);
}

TEST_P(CTwoForms, AreBothTakenFromUtf16)
{
    EXPECT_EQ(CString(USUAL_UNITS.data(), USUAL_UNITS.size()), GB);
    EXPECT_EQ(CString(OTHER_UNITS.data(), OTHER_UNITS.size()), GB);
}

TEST_P(CTwoForms, ComeOutAsTheUsualOnes)
{
    EXPECT_EQ(CT2UTF8(GB), USUAL);
    size_t nLen = 0;
    const std::unique_ptr<WORD[]> units(ToUtf16(GB, nLen, 0));
    ASSERT_NE(units, nullptr);
    EXPECT_EQ(std::vector<WORD>(units.get(), units.get() + nLen), USUAL_UNITS);
}

TEST_P(CTwoForms, MayStandAloneAndInARow)
{
    std::string strUtf8;
    std::string strGb;
    for (int i = 0; i < 100; ++i) {
        strUtf8 += i % 3 ? "\u2014" : "\u00B7";
        strGb += i % 3 ? "\xA1\xAA" : "\xA1\xA4";
        EXPECT_EQ(CUTF82T(strUtf8), strGb);
        EXPECT_EQ(CT2UTF8(strGb), strUtf8);
    }
}

TEST_P(CTwoForms, DoNotHideWhatCannotBeConvertedBehindThem)
{
    // A Thai letter, which GB2312 does not have; and the first bytes of a dash.
    m_strExpected = "FromUtf8:iconv:: Invalid or incomplete multibyte or wide character\n"
                    "FromUtf8:iconv:: Invalid argument\n"
                    "FromUtf16:iconv: Invalid or incomplete multibyte or wide character\n";
    EXPECT_EQ(CUTF82T("\u2014\u0E01\u2014"), "\xA1\xAA");
    EXPECT_EQ(CUTF82T("\u2014\xE2\x80"), "\xA1\xAA");
    const std::array<WORD, 3> units{0x00B7, 0x0E01, 0x00B7};
    EXPECT_EQ(CString(units.data(), units.size()), "\xA1\xA4");
    EXPECT_EQ(GbOfUtf8("\u2014\u0E01\u2014"), std::nullopt);
    EXPECT_EQ(GbOfUtf8("\u2014\xE2\x80"), std::nullopt);
}

TEST(CString, OfUtf8WithoutAGb2312FormIsNothingAndSaysNothing)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(GbOfUtf8("\u6E29\u5EA6"), "\xCE\xC2\xB6\xC8");
    EXPECT_EQ(GbOfUtf8(""), "");
    EXPECT_EQ(GbOfUtf8("ab\xFF"), std::nullopt);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

} // namespace
