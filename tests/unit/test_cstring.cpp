// The text type: construction, operators, and the operations on bytes. Conversions: test_cstring_iconv.cpp.
#include "cstring.h"

#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>

namespace {

// ---- construction and operators

TEST(CString, IsMadeOfNothingOfTextsAndOfRepeatedCharacters)
{
    const std::string strStd("ab");
    EXPECT_EQ(CString(), "");
    EXPECT_EQ(CString("abc"), "abc");
    EXPECT_EQ(CString(static_cast<const char*>(nullptr)), "");
    EXPECT_EQ(CString(strStd), "ab");
    EXPECT_EQ(CString(std::string("ab")), "ab");
    EXPECT_EQ(CString('x', 3), "xxx");
    EXPECT_EQ(CString('x', 0), "");
    const WORD units[] = {'a', 0x6E29};
    EXPECT_EQ(CString(units, 2), "a\xCE\xC2");
    const CString str("abc");
    const CString strCopy(str);
    EXPECT_EQ(strCopy, str);
    CString strAssigned("old");
    strAssigned = str;
    EXPECT_EQ(strAssigned, "abc");
    strAssigned = "literal";
    EXPECT_EQ(strAssigned, "literal");
    strAssigned = strStd;
    EXPECT_EQ(strAssigned, "ab");
}

TEST(CString, MovesWithoutCopyingItsBytes)
{
    static_assert(std::is_nothrow_move_constructible_v<CString> &&
                  std::is_nothrow_move_assignable_v<CString>);
    static_assert(sizeof(CString) == sizeof(std::string));
    CString str('x', 100);
    const char* pBytes = str.c_str();
    CString strMoved(std::move(str));
    EXPECT_EQ(strMoved.c_str(), pBytes);
    CString strAssigned;
    strAssigned = std::move(strMoved);
    EXPECT_EQ(strAssigned.c_str(), pBytes);
}

TEST(CString, ComparesWithEveryKindOfTextFromBothSides)
{
    const CString str("abc");
    const std::string strStd("abc");
    EXPECT_TRUE(str == CString("abc") && str == "abc" && "abc" == str && str == strStd && strStd == str);
    EXPECT_TRUE(str == std::string_view("abc") && std::string("abc") == str);
    EXPECT_TRUE(str != CString("abd") && str != "abd" && "abd" != str && str != std::string("abd"));
    EXPECT_FALSE(str != CString("abc") || str != "abc" || str != strStd);
    EXPECT_FALSE(str == "ab" || str == "abcd" || str == "");
    EXPECT_TRUE(str < CString("abd") && str < "abd" && CString("ab") < str);
}

TEST(CString, JoinsEveryKindOfTextFromBothSides)
{
    const CString str("ab");
    const std::string strStd("cd");
    EXPECT_EQ(str + str, "abab");
    EXPECT_EQ(str + "x", "abx");
    EXPECT_EQ("x" + str, "xab");
    EXPECT_EQ(str + strStd, "abcd");
    EXPECT_EQ(strStd + str, "cdab");
    EXPECT_EQ(str + 'x', "abx");
    EXPECT_EQ(str + std::to_string(5), "ab5");
    EXPECT_EQ(std::to_string(5) + str, "5ab");
    EXPECT_EQ("<" + str + "," + strStd + ',' + str.Left(1) + ">", "<ab,cd,a>");
    EXPECT_EQ(str, "ab");
}

TEST(CString, IsAKeyOfMapsAndABareTextForCFunctions)
{
    std::map<CString, int> ids;
    ids["b"] = 2;
    ids[CString("a")] = 1;
    ids[std::string("b")] = 3;
    EXPECT_EQ(ids.size(), 2U);
    EXPECT_EQ(ids.at("b"), 3);
    EXPECT_EQ(ids.begin()->first, "a");
    const CString str("text");
    EXPECT_EQ(std::strlen(str), 4U);
    const char* sz = str;
    EXPECT_EQ(sz, str.c_str());
    const std::string_view view = str;
    EXPECT_EQ(view, "text");
}

// ---- small operations

TEST(CString, TellsAndSetsLengthAndSingleBytes)
{
    CString str("abc");
    EXPECT_EQ(str.GetLength(), 3);
    EXPECT_FALSE(str.IsEmpty());
    EXPECT_EQ(str.GetAt(0), 'a');
    EXPECT_EQ(str.GetAt(2), 'c');
    EXPECT_EQ(str.GetAt(3), '\0');
    str.SetAt(1, 'X');
    str.SetAt(3, 'Y');
    EXPECT_EQ(str, "aXc");
    str.Truncate(5);
    EXPECT_EQ(str, "aXc");
    str.Truncate(1);
    EXPECT_EQ(str, "a");
    str.Empty();
    EXPECT_TRUE(str.IsEmpty());
    EXPECT_EQ(str.GetLength(), 0);
}

TEST(CString, CutsPartsThatNeverLeaveTheText)
{
    const CString str("abcdef");
    EXPECT_EQ(str.Left(2), "ab");
    EXPECT_EQ(str.Left(0), "");
    EXPECT_EQ(str.Left(-1), "");
    EXPECT_EQ(str.Left(9), "abcdef");
    EXPECT_EQ(str.Right(2), "ef");
    EXPECT_EQ(str.Right(0), "");
    EXPECT_EQ(str.Right(-1), "");
    EXPECT_EQ(str.Right(9), "abcdef");
    EXPECT_EQ(str.Mid(2), "cdef");
    EXPECT_EQ(str.Mid(6), "");
    EXPECT_EQ(str.Mid(9), "");
    EXPECT_EQ(str.Mid(-1), "abcdef");
    EXPECT_EQ(str.Mid(2, 3), "cde");
    EXPECT_EQ(str.Mid(4, 9), "ef");
    EXPECT_EQ(str.Mid(2, 0), "");
    EXPECT_EQ(str.Mid(2, -1), "");
    EXPECT_EQ(CString().Right(1), "");
}

TEST(CString, FindsPositionsOrSaysMinusOne)
{
    const CString str("abcabc");
    EXPECT_EQ(str.Find('b'), 1);
    EXPECT_EQ(str.Find('b', 2), 4);
    EXPECT_EQ(str.Find('b', 5), -1);
    EXPECT_EQ(str.Find('x'), -1);
    EXPECT_EQ(str.Find('b', -1), -1);
    EXPECT_EQ(str.Find('b', 99), -1);
    EXPECT_EQ(str.Find("ca"), 2);
    EXPECT_EQ(str.Find("bc", 2), 4);
    EXPECT_EQ(str.Find("bc", 5), -1);
    EXPECT_EQ(str.Find("xy"), -1);
    EXPECT_EQ(str.Find("bc", -1), -1);
    EXPECT_EQ(str.ReverseFind('b'), 4);
    EXPECT_EQ(str.ReverseFind('x'), -1);
    EXPECT_EQ(CString().Find('a'), -1);
    EXPECT_EQ(CString().ReverseFind('a'), -1);
}

TEST(CString, InsertsAndAppends)
{
    CString str("ad");
    EXPECT_EQ(str.Insert(1, 'b'), 3);
    EXPECT_EQ(str.Insert(2, "cc"), 5);
    EXPECT_EQ(str, "abccd");
    str.Insert(-5, '<');
    str.Insert(99, ">>");
    EXPECT_EQ(str, "<abccd>>");
    str = "a";
    str.Append("bc");
    str.Append("defg", 2);
    str.Append("hi", 9);
    str.Append("no", 0);
    str.Append("no", -1);
    str.AppendChar('!');
    EXPECT_EQ(str, "abcdehi!");
}

TEST(CString, ChangesAndIgnoresTheCaseOfAsciiLettersOnly)
{
    CString str("aZ@[`{\xC1\xE1");
    str.MakeUpper();
    EXPECT_EQ(str, "AZ@[`{\xC1\xE1");
    str.MakeLower();
    EXPECT_EQ(str, "az@[`{\xC1\xE1");
    EXPECT_EQ(CString("AbC").CompareNoCase("aBc"), 0);
    EXPECT_LT(CString("abc").CompareNoCase("ABD"), 0);
    EXPECT_GT(CString("abd").CompareNoCase("ABC"), 0);
}

TEST(CString, LowersABareTextInPlaceAndLeavesHighBytes)
{
    char sz[] = "ABC xyz";
    _strlwr(sz);
    EXPECT_STREQ(sz, "abc xyz");
    for (int n = 1; n < 256; ++n) {
        char szOne[] = {static_cast<char>(n), '\0'};
        _strlwr(szOne);
        const int nWant = n >= 'A' && n <= 'Z' ? n + 32 : n;
        EXPECT_EQ(static_cast<unsigned char>(szOne[0]), nWant);
    }
}

// ---- trimming, replacing, removing

TEST(CString, TrimsOneCharacterFromItsEnds)
{
    CString str("00100");
    str.Trim('0');
    EXPECT_EQ(str, "1");
    str = "xxaxx";
    str.TrimLeft('x');
    EXPECT_EQ(str, "axx");
    str.TrimRight('x');
    EXPECT_EQ(str, "a");
    str = "xxx";
    str.TrimLeft('x');
    EXPECT_EQ(str, "");
    str = "xxx";
    str.TrimRight('x');
    EXPECT_EQ(str, "");
    str.Trim('x');
    EXPECT_EQ(str, "");
    str = "abc";
    str.Trim('x');
    EXPECT_EQ(str, "abc");
}

TEST(CString, TrimsSetsOfCharacters)
{
    CString str("ab \t ");
    str.TrimRight(" \t");
    EXPECT_EQ(str, "ab");
    str = "\t a b \t";
    str.TrimLeft(" \t");
    EXPECT_EQ(str, "a b \t");
    str.Trim("\t ");
    EXPECT_EQ(str, "a b");
    str.Trim("");
    EXPECT_EQ(str, "a b");
    str = " \t ";
    str.Trim(" \t");
    EXPECT_EQ(str, "");
    str.TrimLeft(" ");
    str.TrimRight(" ");
    EXPECT_EQ(str, "");
}

TEST(CString, TrimmingASetTakesNulBytesToo)
{
    CString str(std::string("\0 a\0b \0", 7));
    str.TrimRight(" ");
    EXPECT_EQ(str, std::string("\0 a\0b", 5));
    str.TrimLeft(" ");
    EXPECT_EQ(str, std::string("a\0b", 3));
    str = std::string("\0a\0", 3);
    str.Trim("");
    EXPECT_EQ(str, "a");
}

TEST(CString, ReplacesWithoutLookingAtInsertedText)
{
    CString str("aaa");
    EXPECT_EQ(str.Replace("a", "aa"), 3);
    EXPECT_EQ(str, "aaaaaa");
    EXPECT_EQ(str.Replace("aa", "b"), 3);
    EXPECT_EQ(str, "bbb");
    EXPECT_EQ(str.Replace("b", ""), 3);
    EXPECT_EQ(str, "");
    str = "aaaaa";
    EXPECT_EQ(str.Replace("aa", "a"), 2);
    EXPECT_EQ(str, "aaa");
    EXPECT_EQ(str.Replace("x", "y"), 0);
    EXPECT_EQ(str.Replace("", "y"), 0);
    EXPECT_EQ(str, "aaa");
    str = "a.b.c";
    EXPECT_EQ(str.Replace('.', '/'), 2);
    EXPECT_EQ(str, "a/b/c");
    EXPECT_EQ(str.Replace('x', 'y'), 0);
}

TEST(CString, RemovesEveryByteThatIsEqual)
{
    CString str;
    EXPECT_EQ(str.Remove('x'), 0);
    str = "xaxx";
    EXPECT_EQ(str.Remove('x'), 3);
    EXPECT_EQ(str, "a");
    EXPECT_EQ(str.Remove('x'), 0);
    EXPECT_EQ(str, "a");
}

// ---- tokens

TEST(CString, TokensSkipRunsOfDelimitersAndEndWithMinusOne)
{
    const CString str("a,,b");
    int iStart = 0;
    EXPECT_EQ(str.Tokenize(",", iStart), "a");
    EXPECT_EQ(iStart, 2);
    EXPECT_EQ(str.Tokenize(",", iStart), "b");
    EXPECT_EQ(iStart, 5);
    EXPECT_EQ(str.Tokenize(",", iStart), "");
    EXPECT_EQ(iStart, -1);
    EXPECT_EQ(str.Tokenize(",", iStart), "");
    EXPECT_EQ(iStart, -1);
}

TEST(CString, TokensOfAnEmptyOrNullSetAreNoTextAtAll)
{
    const CString str("abc");
    for (const char* szNoSet : {static_cast<const char*>(nullptr), ""}) {
        int iStart = 0;
        EXPECT_EQ(str.Tokenize(szNoSet, iStart), "");
        EXPECT_EQ(iStart, 0);
        iStart = 3;
        EXPECT_EQ(str.Tokenize(szNoSet, iStart), "");
        EXPECT_EQ(iStart, -1);
        EXPECT_EQ(str.Tokenize(szNoSet, iStart), "");
        EXPECT_EQ(iStart, -1);
    }
}

TEST(CString, TokensOfEdgesAreExact)
{
    struct SCase
    {
        const char* szText;
        const char* szSet;
        int iStart;
        const char* szToken;
        int iNext;
    };
    const SCase cases[] = {{"", ",", 0, "", -1},       {",,,", ",", 0, "", -1},  {",a", ",", 0, "a", 3},
                           {"a,", ",", 0, "a", 2},     {"a,", ",", 2, "", -1},   {"a;b,c", ",;", 0, "a", 2},
                           {"a;b,c", ",;", 2, "b", 4}, {"abc", ",", 1, "bc", 4}, {"abc", ",", 9, "", -1},
                           {"abc", ",", -7, "", -7}};
    for (const SCase& c : cases) {
        SCOPED_TRACE(std::string(c.szText) + " from " + std::to_string(c.iStart));
        int iStart = c.iStart;
        EXPECT_EQ(CString(c.szText).Tokenize(c.szSet, iStart), c.szToken);
        EXPECT_EQ(iStart, c.iNext);
    }
}

} // namespace
