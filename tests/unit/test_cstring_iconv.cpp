// The conversions of the text type: their results, their room, their failures and what they say of them.
//
// The three functions of the system's converter are replaced for this program, so that a test sees how each
// conversion uses them and can make one fail to open.
#include "cstring.h"
#include "standin_iconv.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <iconv.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<bool> g_bCannotOpen{false};
std::atomic<int> g_nOpens{0};
std::atomic<int> g_nCalls{0};
std::atomic<int> g_nCloses{0};
std::atomic<size_t> g_nInput{0};
std::atomic<size_t> g_nRoom{0};
std::atomic<bool> g_bKeepNames{false};
std::string g_strNames; // of the last open, kept only where one thread converts

/// The function that would have been called without this program's own.
template <class FN> FN* Next(const char* szName)
{
    auto* pNext = reinterpret_cast<FN*>(::dlsym(RTLD_NEXT, szName));
    if (!pNext)
        std::abort();
    return pNext;
}

} // namespace

// A macro of the header may have renamed them.
#define AS_TEXT_(x) #x
#define AS_TEXT(x) AS_TEXT_(x)

extern "C" iconv_t iconv_open(const char* szTo, const char* szFrom)
{
    static auto* const pNext = Next<iconv_t(const char*, const char*)>(AS_TEXT(iconv_open));
    ++g_nOpens;
    if (g_bKeepNames || g_eStandIn != EStandIn::None)
        g_strNames = std::string(szFrom) + " to " + szTo;
    if (!g_bCannotOpen)
        return pNext(szTo, szFrom);
    errno = EINVAL;
    return reinterpret_cast<iconv_t>(-1);
}

extern "C" size_t iconv(iconv_t cd, char** ppIn, size_t* pnIn, char** ppOut, size_t* pnRoom)
{
    static auto* const pNext = Next<size_t(iconv_t, char**, size_t*, char**, size_t*)>(AS_TEXT(iconv));
    ++g_nCalls;
    g_nInput = *pnIn;
    g_nRoom = *pnRoom;
    if (g_eStandIn != EStandIn::None)
        return StandInConvert(g_strNames, ppIn, pnIn, ppOut, pnRoom);
    return pNext(cd, ppIn, pnIn, ppOut, pnRoom);
}

extern "C" int iconv_close(iconv_t cd)
{
    static auto* const pNext = Next<int(iconv_t)>(AS_TEXT(iconv_close));
    ++g_nCloses;
    return pNext(cd);
}

namespace {

constexpr const char* GB = "T1 \xCE\xC2\xB6\xC8"; // "T1 " and the two characters of "temperature"
constexpr const char* UTF = "T1 \xE6\xB8\xA9\xE5\xBA\xA6";
const std::vector<WORD> UNITS{'T', '1', ' ', 0x6E29, 0x5EA6};
constexpr const char* UTF_OUTSIDE = "ab\xF0\x9F\x98\x80"
                                    "cd"; // a character that GB2312 does not have
constexpr const char* GB_INVALID = "ab\xFF\xFF"
                                   "cd";
constexpr const char* GB_CUT = "ab\xCE"; // the first half of a character

/// The line that perror prints.
std::string Complaint(const char* szText, int nError)
{
    return std::string(szText) + ": " + std::strerror(nError) + "\n";
}

struct SUnits
{
    std::unique_ptr<WORD[]> units;
    size_t nLen;
};

SUnits Utf16Of(const char* szGb, size_t nInLen = 0)
{
    SUnits result{nullptr, 999};
    result.units.reset(ToUtf16(szGb, result.nLen, nInLen));
    return result;
}

class CStringConversion : public testing::Test
{
protected:
    void SetUp() override
    {
        g_bKeepNames = true;
        g_nOpens = g_nCalls = g_nCloses = 0;
        testing::internal::CaptureStderr();
    }
    void TearDown() override
    {
        g_bCannotOpen = g_bKeepNames = false;
        if (!m_bTaken) {
            EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        }
    }

    std::string Said()
    {
        m_bTaken = true;
        return testing::internal::GetCapturedStderr();
    }

    void ExpectOneConversion(const std::string& strNames, size_t nInput, size_t nRoom)
    {
        EXPECT_EQ(g_nOpens, 1);
        EXPECT_EQ(g_nCalls, 1);
        EXPECT_EQ(g_nCloses, 1);
        EXPECT_EQ(g_strNames, strNames);
        EXPECT_EQ(g_nInput, nInput);
        EXPECT_EQ(g_nRoom, nRoom);
    }

private:
    bool m_bTaken = false;
};

// ---- conversions: results

TEST_F(CStringConversion, OfGb2312GivesUtf8)
{
    CString strUtf8("old");
    ToUtf8(GB, strUtf8, 0);
    EXPECT_EQ(strUtf8, UTF);
    CString(GB).ToUtf8(strUtf8);
    EXPECT_EQ(strUtf8, UTF);
    ToUtf8(GB, strUtf8, 5);
    EXPECT_EQ(strUtf8, "T1 \xE6\xB8\xA9");
    EXPECT_EQ(CT2UTF8(GB), UTF);
    EXPECT_EQ(CT2UTF8(std::string(GB)), UTF);
}

TEST_F(CStringConversion, OfUtf8GivesGb2312)
{
    CString str("old");
    str.FromUtf8(UTF, std::strlen(UTF));
    EXPECT_EQ(str, GB);
    str.FromUtf8(UTF, 6);
    EXPECT_EQ(str, "T1 \xCE\xC2");
    EXPECT_EQ(CUTF82T(UTF), GB);
    EXPECT_EQ(CUTF82T(std::string(UTF)), GB);
}

TEST_F(CStringConversion, OfUtf16GivesGb2312)
{
    CString str("old");
    str.FromUtf16(UNITS.data(), UNITS.size());
    EXPECT_EQ(str, GB);
    str.FromUtf16(UNITS.data(), 2);
    EXPECT_EQ(str, "T1");
}

TEST_F(CStringConversion, OfGb2312GivesUtf16InAnArrayWithOneUnitToSpare)
{
    const SUnits two = Utf16Of("ab");
    ASSERT_NE(two.units, nullptr);
    EXPECT_EQ(two.nLen, 2U);
    EXPECT_EQ(two.units[0], 'a');
    EXPECT_EQ(two.units[1], 'b');
    two.units[2] = 'c'; // an address sanitizer build watches that it is there
    const SUnits whole = Utf16Of(GB);
    EXPECT_EQ(std::vector<WORD>(whole.units.get(), whole.units.get() + whole.nLen), UNITS);
    EXPECT_EQ(Utf16Of(GB, 3).nLen, 3U);
    size_t nLen = 0;
    const std::unique_ptr<WORD[]> member(CString(GB).ToUtf16(nLen));
    EXPECT_EQ(std::vector<WORD>(member.get(), member.get() + nLen), UNITS);
}

TEST_F(CStringConversion, OfNothingGivesNothing)
{
    CString str("old");
    ToUtf8("", str, 0);
    EXPECT_EQ(str, "");
    str = "old";
    CString().ToUtf8(str);
    EXPECT_EQ(str, "");
    str = "old";
    str.FromUtf8("some text", 0);
    EXPECT_EQ(str, "");
    str = "old";
    str.FromUtf16(UNITS.data(), 0);
    EXPECT_EQ(str, "");
    EXPECT_EQ(CT2UTF8(""), "");
    EXPECT_EQ(CUTF82T(""), "");
    const SUnits none = Utf16Of("");
    EXPECT_NE(none.units, nullptr);
    EXPECT_EQ(none.nLen, 0U);
}

TEST_F(CStringConversion, WithALengthGoesOnBehindNulBytes)
{
    CString str;
    ToUtf8("a\0b", str, 3);
    EXPECT_EQ(str, std::string("a\0b", 3));
    str.FromUtf8("a\0b", 3);
    EXPECT_EQ(str, std::string("a\0b", 3));
    CString(std::string("a\0b", 3)).ToUtf8(str);
    EXPECT_EQ(str, std::string("a\0b", 3));
}

TEST_F(CStringConversion, MayReplaceItsOwnSource)
{
    CString str(GB);
    str.ToUtf8(str);
    EXPECT_EQ(str, UTF);
    str.FromUtf8(str.c_str(), str.size());
    EXPECT_EQ(str, GB);
    ToUtf8(str, str, 0);
    EXPECT_EQ(str, UTF);
}

TEST_F(CStringConversion, OfEveryGb2312CharacterComesBackTheSame)
{
    CString strAll;
    for (int nHigh = 0xB0; nHigh <= 0xF7; ++nHigh) {
        for (int nLow = 0xA1; nLow <= (nHigh == 0xD7 ? 0xF9 : 0xFE); ++nLow) {
            strAll.AppendChar(static_cast<char>(nHigh));
            strAll.AppendChar(static_cast<char>(nLow));
        }
    }
    ASSERT_EQ(strAll.GetLength(), 2 * 6763);
    CString strUtf8;
    strAll.ToUtf8(strUtf8);
    EXPECT_EQ(strUtf8.GetLength(), 3 * 6763);
    EXPECT_EQ(CUTF82T(strUtf8.c_str()), strAll);
    size_t nLen = 0;
    const std::unique_ptr<WORD[]> units(strAll.ToUtf16(nLen));
    EXPECT_EQ(nLen, 6763U);
    EXPECT_EQ(CString(units.get(), nLen), strAll);
}

// ---- conversions: how the converter is used

TEST_F(CStringConversion, ToUtf8OpensOnceConvertsOnceAndCloses)
{
    CString strOut;
    ToUtf8(GB, strOut, 0);
    ExpectOneConversion("GB2312 to UTF-8", 7, 14);
}

TEST_F(CStringConversion, FromUtf8OpensOnceConvertsOnceAndCloses)
{
    CString str;
    str.FromUtf8(UTF, 9);
    ExpectOneConversion("UTF-8 to GB2312", 9, 18);
}

TEST_F(CStringConversion, FromUtf16OpensOnceConvertsOnceAndCloses)
{
    CString str;
    str.FromUtf16(UNITS.data(), 5);
    ExpectOneConversion("UCS-2LE to GB2312", 10, 18);
}

TEST_F(CStringConversion, ToUtf16OpensOnceConvertsOnceAndCloses)
{
    Utf16Of(GB);
    ExpectOneConversion("GB2312 to UCS-2LE", 7, 16);
}

TEST_F(CStringConversion, ThatFailsClosesItsConverterToo)
{
    CString str;
    ToUtf8(GB_INVALID, str, 0);
    Utf16Of(GB_INVALID);
    Said();
    EXPECT_EQ(g_nOpens, 2);
    EXPECT_EQ(g_nCloses, 2);
}

// ---- conversions: failures

TEST_F(CStringConversion, ToUtf8CutsAtAnInvalidSequenceAndSaysSo)
{
    CString str("old");
    ToUtf8(GB_INVALID, str, 0);
    EXPECT_EQ(Said(), Complaint("ToUtf8:iconv:", EILSEQ));
    EXPECT_EQ(str, "ab");
}

TEST_F(CStringConversion, ToUtf8CutsAHalfCharacterAtTheEndAndSaysSo)
{
    CString str("old");
    ToUtf8(GB_CUT, str, 0);
    EXPECT_EQ(Said(), Complaint("ToUtf8:iconv:", EINVAL));
    EXPECT_EQ(str, "ab");
}

TEST_F(CStringConversion, FromUtf8CutsAtACharacterThatGb2312DoesNotHaveAndSaysSo)
{
    CString str("old");
    str.FromUtf8(UTF_OUTSIDE, std::strlen(UTF_OUTSIDE));
    EXPECT_EQ(Said(), Complaint("FromUtf8:iconv:", EILSEQ));
    EXPECT_EQ(str, "ab");
}

TEST_F(CStringConversion, FromUtf8CutsAHalfCharacterAtTheEndAndSaysSo)
{
    CString str("old");
    str.FromUtf8(UTF, 5);
    EXPECT_EQ(Said(), Complaint("FromUtf8:iconv:", EINVAL));
    EXPECT_EQ(str, "T1 ");
}

TEST_F(CStringConversion, FromUtf16CutsAtAUnitThatGb2312DoesNotHaveAndSaysSo)
{
    const std::array<WORD, 3> units{'a', 0x0E01, 'b'};
    CString str("old");
    str.FromUtf16(units.data(), units.size());
    EXPECT_EQ(Said(), Complaint("FromUtf16:iconv", EILSEQ));
    EXPECT_EQ(str, "a");
}

TEST_F(CStringConversion, ToUtf16LosesEverythingAtAnInvalidSequenceAndSaysSo)
{
    const SUnits none = Utf16Of(GB_INVALID);
    EXPECT_EQ(Said(), Complaint("ToUtf16:iconv", EILSEQ));
    EXPECT_EQ(none.units, nullptr);
    EXPECT_EQ(none.nLen, 0U);
}

TEST_F(CStringConversion, ToUtf16LosesEverythingAtAHalfCharacterAndSaysSo)
{
    const SUnits none = Utf16Of(GB_CUT);
    EXPECT_EQ(Said(), Complaint("ToUtf16:iconv", EINVAL));
    EXPECT_EQ(none.units, nullptr);
    EXPECT_EQ(none.nLen, 0U);
}

TEST_F(CStringConversion, WithoutAConverterLeavesTheTargetEmptyAndSaysSo)
{
    g_bCannotOpen = true;
    CString strTo("old");
    CString strFrom8("old");
    CString strFrom16("old");
    ToUtf8(GB, strTo, 0);
    strFrom8.FromUtf8(UTF, std::strlen(UTF));
    strFrom16.FromUtf16(UNITS.data(), UNITS.size());
    const SUnits none = Utf16Of(GB);
    EXPECT_EQ(Said(), Complaint("ToUtf8:iconv_open:", EINVAL) + Complaint("FromUtf8:iconv_open:", EINVAL) +
                          Complaint("FromUtf16:iconv_open", EINVAL) +
                          Complaint("ToUtf16:iconv_open:", EINVAL));
    EXPECT_EQ(strTo, "");
    EXPECT_EQ(strFrom8, "");
    EXPECT_EQ(strFrom16, "");
    EXPECT_EQ(none.units, nullptr);
    EXPECT_EQ(none.nLen, 0U);
    EXPECT_EQ(g_nCloses, 0);
}

TEST(CString, ConvertsOnManyThreadsAtOnce)
{
    std::atomic<int> nWrong{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&nWrong] {
            for (int n = 0; n < 500; ++n)
                nWrong += CT2UTF8(GB) != UTF || CUTF82T(UTF) != GB;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(nWrong, 0);
}

} // namespace
