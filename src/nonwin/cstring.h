// The one text type: a byte string that holds GB2312, and the conversions at its edges.
//
// Text is UTF-8 where the interpreter hands it in or gets it, and where the system takes a path; everywhere
// else inside it is GB2312. No shared state: any thread may convert at any time.
//
// The dash and the middle dot have two forms in Unicode: U+2014 and U+2015, U+00B7 and U+30FB. Both are taken
// for the one of GB2312 (A1AA, A1A4), and U+2014 and U+00B7 come out, whichever the system's converter
// prefers.
#pragma once

#include "wintypes.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

class XVariant;

/// Lengths and positions are byte counts. The operations that search sets of bytes see only what stands
/// before the first NUL.
class CString : public std::string
{
public:
    CString() = default;
    /// Null gives an empty text.
    CString(const char* sz) : std::string(sz ? sz : "") {} // NOLINT(google-explicit-constructor)
    CString(const std::string& str) : std::string(str) {}  // NOLINT(google-explicit-constructor)
    CString(std::string&& str) noexcept
        : std::string(std::move(str)) {} // NOLINT(google-explicit-constructor)
    CString(const CString&) = default;
    CString(CString&&) noexcept = default;
    CString(char ch, size_t count) : std::string(count, ch) {}
    CString(const WORD* src, size_t len) { FromUtf16(src, len); }
    /// The text of a variant.
    explicit CString(const XVariant& value);
    ~CString() = default;
    CString& operator=(const CString&) = default;
    CString& operator=(CString&&) noexcept = default;

    operator const char*() const noexcept { return c_str(); } // NOLINT(google-explicit-constructor)

    int GetLength() const noexcept { return static_cast<int>(size()); }
    bool IsEmpty() const noexcept { return empty(); }
    void Empty() noexcept { clear(); }
    char GetAt(size_t nPos) const noexcept { return nPos < size() ? (*this)[nPos] : '\0'; }
    void SetAt(size_t nPos, char ch) noexcept;
    CString Left(int nCount) const;
    CString Mid(int nFirst) const;
    CString Mid(int nFirst, int nCount) const;
    CString Right(int nCount) const;
    /// The position of the first hit at or behind nStart, or -1.
    int Find(char ch, int nStart = 0) const;
    int Find(const char* sz, int nStart = 0) const;
    int ReverseFind(char ch) const;
    int Insert(int nPos, char ch);
    int Insert(int nPos, const char* sz);
    void Append(const char* sz) { append(sz); }
    void Append(const char* sz, int nLen);
    void AppendChar(char ch) { push_back(ch); }
    void Truncate(size_t nLen);
    void MakeLower();
    void MakeUpper();
    int CompareNoCase(const char* sz) const;

    void TrimLeft(char ch);
    void TrimRight(char ch);
    void Trim(char ch);
    /// A NUL byte counts as one of any set.
    void TrimLeft(const char* set);
    void TrimRight(const char* set);
    void Trim(const char* set);
    int Replace(char chOld, char chNew);
    /// Returns the number of replacements; inserted text is not searched again. An empty old replaces
    /// nothing.
    int Replace(const char* szOld, const char* szNew);
    /// Returns the number of bytes removed.
    int Remove(char ch);
    /// The next run of bytes that are none of pszTokens, from iStart (first 0) on; iStart -1 is the end. An
    /// empty or null set yields no text at all.
    CString Tokenize(const char* pszTokens, int& iStart) const;

    // Conversions. What cannot be converted cuts the result short and is said on standard error.

    void FromUtf16(const WORD* src, size_t len);
    void FromUtf8(const char* src, size_t len);
    void ToUtf8(CString& strUtf8) const;
    WORD* ToUtf16(size_t& outLen) const;
};

bool operator==(const CString& left, const CString& right) noexcept;
// The base's operators and the conversions above would stand in each other's way without these.
inline bool operator==(const CString& left, const std::string& right) noexcept
{
    return static_cast<const std::string&>(left) == right;
}
inline bool operator==(const CString& left, const char* right) noexcept
{
    return static_cast<const std::string&>(left) == right;
}

// The left side comes by value, so that a chain of sums grows one text.
inline CString operator+(CString left, const CString& right)
{
    left.append(right);
    return left;
}
inline CString operator+(CString left, const std::string& right)
{
    left.append(right);
    return left;
}
inline CString operator+(CString left, std::string&& right)
{
    left.append(right);
    return left;
}
inline CString operator+(CString left, const char* right)
{
    left.append(right);
    return left;
}
inline CString operator+(CString left, char right)
{
    left.push_back(right);
    return left;
}
inline CString operator+(std::string left, const CString& right)
{
    return CString(std::move(left)) + right;
}
inline CString operator+(const char* left, const CString& right)
{
    return CString(left) + right;
}

/// 'A' to 'Z' become lower-case; all other bytes stay.
void _strlwr(char* s);
/// strUtf8 becomes the UTF-8 form of GB2312 text of inlen bytes; inlen 0 measures it.
void ToUtf8(const char* szInBuf, CString& strUtf8, size_t inlen);
/// The GB2312 form of UTF-8 text, or nothing when some of it has none; says nothing of it.
std::optional<std::string> GbOfUtf8(const std::string& strUtf8);
/// The UTF-16LE form in a new array that the caller frees with delete[], with one unit to spare; null when
/// any of it cannot be converted. inlen 0 measures the text.
WORD* ToUtf16(const char* szInBuf, size_t& outLen, size_t inlen);

/// GB2312 in, UTF-8 out.
class CT2UTF8 : public CString
{
public:
    explicit CT2UTF8(const char* szText) { ::ToUtf8(szText, *this, 0); }
    explicit CT2UTF8(const std::string& strText) : CT2UTF8(strText.c_str()) {}
};

/// UTF-8 in, GB2312 out.
class CUTF82T : public CString
{
public:
    explicit CUTF82T(const char* szText) { FromUtf8(szText, std::char_traits<char>::length(szText)); }
    explicit CUTF82T(const std::string& strText) : CUTF82T(strText.c_str()) {}
};
