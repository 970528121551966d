// See cstring.h.
#include "cstring.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iconv.h>
#include <memory>
#include <span>
#include <string_view>
#include <strings.h>

namespace {

constexpr const char* GB2312 = "GB2312";
constexpr const char* UTF8 = "UTF-8";
constexpr const char* UTF16 = "UCS-2LE";

/// A character of GB2312 that converters do not agree on. Input methods type the usual form, and the C
/// library's converter knows the other one alone; so both are taken on the way in, and the usual one is given
/// on the way out.
struct STwoForms
{
    std::string_view gb;
    std::string_view usual8;
    std::string_view other8;
    WORD usual16;
    WORD other16;
};

constexpr std::array TWO_FORMS = {
    STwoForms{"\xA1\xAA", "\xE2\x80\x94", "\xE2\x80\x95", 0x2014, 0x2015}, // a dash
    STwoForms{"\xA1\xA4", "\xC2\xB7", "\xE3\x83\xBB", 0x00B7, 0x30FB},     // a dot at half height
};

/// The GB2312 form of the character at the start of text, and its length there; empty when it is none of
/// those.
using FnTwoForms = std::string_view (*)(std::string_view text, size_t& nLen);

std::string_view TwoFormsOfUtf8(std::string_view text, size_t& nLen)
{
    for (const STwoForms& one : TWO_FORMS) {
        for (const std::string_view form : {one.usual8, one.other8}) {
            nLen = form.size();
            if (text.starts_with(form))
                return one.gb;
        }
    }
    return {};
}

std::string_view TwoFormsOfUtf16(std::string_view text, size_t& nLen)
{
    WORD nUnit = 0;
    nLen = sizeof nUnit;
    if (text.size() < nLen)
        return {};
    std::memcpy(&nUnit, text.data(), nLen);
    for (const STwoForms& one : TWO_FORMS) {
        if (nUnit == one.usual16 || nUnit == one.other16)
            return one.gb;
    }
    return {};
}

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

    /// Converts all at once. Returns the bytes produced, also those before a fault. Behind a character that
    /// has two forms and is refused in this one it goes on.
    size_t Convert(std::string_view in, std::span<char> room, FnTwoForms fnTwoForms,
                   bool& bFault) const noexcept
    {
        char* pFrom = const_cast<char*>(in.data()); // the interface of iconv: it reads only
        size_t nIn = in.size();
        char* pTo = room.data();
        size_t nRoom = room.size();
        while ((bFault = ::iconv(m_cd, &pFrom, &nIn, &pTo, &nRoom) == static_cast<size_t>(-1))) {
            size_t nLen = 0;
            const bool bRefused = fnTwoForms && errno == EILSEQ;
            const auto gb = bRefused ? fnTwoForms({pFrom, nIn}, nLen) : std::string_view();
            if (gb.empty() || gb.size() > nRoom)
                break;
            pTo = std::copy(gb.begin(), gb.end(), pTo);
            nRoom -= gb.size();
            pFrom += nLen;
            nIn -= nLen;
        }
        return static_cast<size_t>(pTo - room.data());
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
    FnTwoForms fnTwoForms = nullptr; // of the text that becomes GB2312
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
    const size_t nDone = converter.Convert(strInput, strOut, how.fnTwoForms, bFault);
    if (bFault)
        std::perror(how.szFailed);
    strOut.resize(nDone);
}

/// The new form is not longer than the old one, so the text stays where it is.
void ReplaceAll(std::string& strText, std::string_view from, std::string_view to)
{
    for (size_t nHit = strText.find(from); nHit != std::string::npos;
         nHit = strText.find(from, nHit + to.size()))
        strText.replace(nHit, from.size(), to);
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

std::optional<std::string> GbOfUtf8(const std::string& strUtf8)
{
    std::string strGb(2 * strUtf8.size(), '\0');
    const CConverter converter(GB2312, UTF8);
    if (!converter.IsOpen())
        return std::nullopt;
    bool bFault = false;
    strGb.resize(converter.Convert(strUtf8, strGb, TwoFormsOfUtf8, bFault));
    return bFault ? std::nullopt : std::optional(std::move(strGb));
}

void CString::FromUtf16(const WORD* src, size_t len)
{
    if (len == 0) {
        clear();
        return;
    }
    const SConversion how{GB2312, UTF16, "FromUtf16:iconv_open", "FromUtf16:iconv", TwoFormsOfUtf16};
    ConvertText(how, reinterpret_cast<const char*>(src), 2 * len, 3 * len + 3, *this);
}

void CString::FromUtf8(const char* src, size_t len)
{
    if (len == 0) {
        clear();
        return;
    }
    const SConversion how{GB2312, UTF8, "FromUtf8:iconv_open:", "FromUtf8:iconv:", TwoFormsOfUtf8};
    ConvertText(how, src, len, 2 * len, *this);
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
    for (const STwoForms& one : TWO_FORMS)
        ReplaceAll(strUtf8, one.other8, one.usual8);
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
    const std::span<char> room(reinterpret_cast<char*>(units.get()), (inlen + 1) * 2);
    const size_t nDone = converter.Convert({szInBuf, inlen}, room, nullptr, bFault);
    if (bFault) {
        std::perror("ToUtf16:iconv");
        return nullptr;
    }
    outLen = nDone / 2;
    for (const STwoForms& one : TWO_FORMS)
        std::replace(units.get(), units.get() + outLen, one.other16, one.usual16);
    return units.release();
}

WORD* CString::ToUtf16(size_t& outLen) const
{
    return ::ToUtf16(c_str(), outLen, 0);
}
