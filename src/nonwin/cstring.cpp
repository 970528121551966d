// See cstring.h.
#include "cstring.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iconv.h>
#include <memory>
#include <strings.h>

namespace {

constexpr const char* GB2312 = "GB2312";
constexpr const char* UTF8 = "UTF-8";
constexpr const char* UTF16 = "UCS-2LE";

/// One converter for one conversion: nothing is shared, so nothing is locked.
class CConverter
{
public:
    CConverter(const char* szTo, const char* szFrom) noexcept : m_cd(::iconv_open(szTo, szFrom)) {}
    ~CConverter()
    {
        if (IsOpen())
            ::iconv_close(m_cd);
    }
    CConverter(const CConverter&) = delete;
    CConverter& operator=(const CConverter&) = delete;

    bool IsOpen() const noexcept { return m_cd != reinterpret_cast<iconv_t>(-1); }

    /// Converts all at once. Returns the bytes produced, also those before a fault.
    size_t Convert(const char* pIn, size_t nIn, char* pOut, size_t nRoom, bool& bFault) const noexcept
    {
        char* pFrom = const_cast<char*>(pIn); // the interface of iconv: it reads only
        char* pTo = pOut;
        bFault = ::iconv(m_cd, &pFrom, &nIn, &pTo, &nRoom) == static_cast<size_t>(-1);
        return static_cast<size_t>(pTo - pOut);
    }

private:
    iconv_t m_cd;
};

struct SConversion
{
    const char* szTo;
    const char* szFrom;
    const char* szCannotOpen;
    const char* szFailed;
};

void ConvertText(const SConversion& how, const char* pIn, size_t nIn, size_t nRoom, std::string& strOut)
{
    std::string strInput(pIn, nIn); // the target may be the source
    strOut.clear();
    const CConverter converter(how.szTo, how.szFrom);
    if (!converter.IsOpen()) {
        std::perror(how.szCannotOpen);
        return;
    }
    strOut.resize(nRoom);
    bool bFault = false;
    const size_t nDone = converter.Convert(strInput.data(), nIn, strOut.data(), nRoom, bFault);
    if (bFault)
        std::perror(how.szFailed);
    strOut.resize(nDone);
}

bool IsIn(const char* set, char ch) noexcept
{
    return std::strchr(set, ch) != nullptr;
}

} // namespace

bool operator==(const CString& left, const CString& right) noexcept
{
    return static_cast<const std::string&>(left) == static_cast<const std::string&>(right);
}

void _strlwr(char* s)
{
    for (; *s; ++s) {
        if (*s >= 'A' && *s <= 'Z')
            *s = static_cast<char>(*s - 'A' + 'a');
    }
}

void CString::SetAt(size_t nPos, char ch) noexcept
{
    if (nPos < size())
        (*this)[nPos] = ch;
}

CString CString::Left(int nCount) const
{
    return Mid(0, nCount);
}

CString CString::Mid(int nFirst) const
{
    return Mid(nFirst, GetLength());
}

CString CString::Mid(int nFirst, int nCount) const
{
    const auto nFrom = static_cast<size_t>(std::max(nFirst, 0));
    if (nFrom >= size() || nCount <= 0)
        return {};
    return CString(substr(nFrom, static_cast<size_t>(nCount)));
}

CString CString::Right(int nCount) const
{
    return Mid(GetLength() - std::clamp(nCount, 0, GetLength()));
}

int CString::Find(char ch, int nStart) const
{
    return nStart < 0 ? -1 : static_cast<int>(find(ch, static_cast<size_t>(nStart)));
}

int CString::Find(const char* sz, int nStart) const
{
    return nStart < 0 ? -1 : static_cast<int>(find(sz, static_cast<size_t>(nStart)));
}

int CString::ReverseFind(char ch) const
{
    return static_cast<int>(rfind(ch));
}

int CString::Insert(int nPos, char ch)
{
    insert(static_cast<size_t>(std::clamp(nPos, 0, GetLength())), 1, ch);
    return GetLength();
}

int CString::Insert(int nPos, const char* sz)
{
    insert(static_cast<size_t>(std::clamp(nPos, 0, GetLength())), sz);
    return GetLength();
}

void CString::Append(const char* sz, int nLen)
{
    if (nLen > 0)
        append(sz, ::strnlen(sz, static_cast<size_t>(nLen)));
}

void CString::Truncate(size_t nLen)
{
    if (nLen < size())
        resize(nLen);
}

void CString::MakeLower()
{
    for (char& ch : *this)
        ch = ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
}

void CString::MakeUpper()
{
    for (char& ch : *this)
        ch = ch >= 'a' && ch <= 'z' ? static_cast<char>(ch - 'a' + 'A') : ch;
}

int CString::CompareNoCase(const char* sz) const
{
    return ::strcasecmp(c_str(), sz);
}

void CString::TrimLeft(char ch)
{
    erase(0, std::min(find_first_not_of(ch), size()));
}

void CString::TrimRight(char ch)
{
    resize(find_last_not_of(ch) + 1);
}

void CString::Trim(char ch)
{
    TrimRight(ch);
    TrimLeft(ch);
}

void CString::TrimLeft(const char* set)
{
    erase(begin(), std::find_if(begin(), end(), [set](char ch) { return !IsIn(set, ch); }));
}

void CString::TrimRight(const char* set)
{
    while (!empty() && IsIn(set, back()))
        pop_back();
}

void CString::Trim(const char* set)
{
    TrimRight(set);
    TrimLeft(set);
}

int CString::Replace(char chOld, char chNew)
{
    const auto nCount = std::count(begin(), end(), chOld);
    std::replace(begin(), end(), chOld, chNew);
    return static_cast<int>(nCount);
}

int CString::Replace(const char* szOld, const char* szNew)
{
    const size_t nOld = std::strlen(szOld);
    const size_t nNew = std::strlen(szNew);
    int nCount = 0;
    if (nOld == 0)
        return 0;
    for (size_t nHit = find(szOld); nHit != npos; nHit = find(szOld, nHit + nNew)) {
        replace(nHit, nOld, szNew);
        ++nCount;
    }
    return nCount;
}

int CString::Remove(char ch)
{
    return static_cast<int>(std::erase(static_cast<std::string&>(*this), ch));
}

CString CString::Tokenize(const char* pszTokens, int& iStart) const
{
    if (iStart < 0)
        return {};
    const auto nFrom = static_cast<size_t>(iStart);
    if (nFrom >= size()) {
        iStart = -1;
        return {};
    }
    if (!pszTokens || !*pszTokens)
        return {};
    const size_t nToken = nFrom + std::strspn(c_str() + nFrom, pszTokens);
    if (nToken >= size()) {
        iStart = -1;
        return {};
    }
    const size_t nLen = std::strcspn(c_str() + nToken, pszTokens);
    iStart = static_cast<int>(nToken + nLen + 1);
    return CString(substr(nToken, nLen));
}

void CString::FromUtf16(const WORD* src, size_t len)
{
    if (len == 0) {
        clear();
        return;
    }
    const SConversion how{GB2312, UTF16, "FromUtf16:iconv_open", "FromUtf16:iconv"};
    ConvertText(how, reinterpret_cast<const char*>(src), 2 * len, 3 * len + 3, *this);
}

void CString::FromUtf8(const char* src, size_t len)
{
    if (len == 0) {
        clear();
        return;
    }
    ConvertText({GB2312, UTF8, "FromUtf8:iconv_open:", "FromUtf8:iconv:"}, src, len, 2 * len, *this);
}

void ToUtf8(const char* szInBuf, CString& strUtf8, size_t inlen)
{
    if (inlen == 0)
        inlen = std::strlen(szInBuf);
    if (inlen == 0) {
        strUtf8.clear();
        return;
    }
    ConvertText({UTF8, GB2312, "ToUtf8:iconv_open:", "ToUtf8:iconv:"}, szInBuf, inlen, 2 * inlen, strUtf8);
}

void CString::ToUtf8(CString& strUtf8) const
{
    ::ToUtf8(c_str(), strUtf8, size());
}

WORD* ToUtf16(const char* szInBuf, size_t& outLen, size_t inlen)
{
    outLen = 0;
    if (inlen == 0)
        inlen = std::strlen(szInBuf);
    const CConverter converter(UTF16, GB2312);
    if (!converter.IsOpen()) {
        std::perror("ToUtf16:iconv_open:");
        return nullptr;
    }
    auto units = std::make_unique<WORD[]>(inlen + 1);
    bool bFault = false;
    const size_t nDone =
        converter.Convert(szInBuf, inlen, reinterpret_cast<char*>(units.get()), (inlen + 1) * 2, bFault);
    if (bFault) {
        std::perror("ToUtf16:iconv");
        return nullptr;
    }
    outLen = nDone / 2;
    return units.release();
}

WORD* CString::ToUtf16(size_t& outLen) const
{
    return ::ToUtf16(c_str(), outLen, 0);
}
