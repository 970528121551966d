// See standin_iconv.h.
#include "standin_iconv.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>

EStandIn g_eStandIn = EStandIn::None;

namespace {

struct SChar
{
    std::string_view gb;
    std::string_view utf8;
    std::string_view utf16;
    bool bUsual;
};

using namespace std::string_view_literals;

constexpr std::array CHARS = {
    SChar{"\xA1\xAA"sv, "\u2014"sv, "\x14\x20"sv, true},
    SChar{"\xA1\xAA"sv, "\u2015"sv, "\x15\x20"sv, false},
    SChar{"\xA1\xA4"sv, "\u00B7"sv, "\xB7\x00"sv, true},
    SChar{"\xA1\xA4"sv, "\u30FB"sv, "\xFB\x30"sv, false},
};

std::string_view FormOf(const SChar& one, std::string_view encoding)
{
    return encoding == "GB2312" ? one.gb : encoding == "UTF-8" ? one.utf8 : one.utf16;
}

/// Whether this converter knows the form; what has two forms, both known, comes out in the unusual one.
bool Knows(const SChar& one, bool bOut)
{
    const bool bBoth = g_eStandIn == EStandIn::TakesBoth;
    return bBoth ? !bOut || !one.bUsual : one.bUsual == (g_eStandIn == EStandIn::TakesUsual);
}

/// The next character in the other encoding, and its length here; nothing when this converter refuses it.
std::optional<std::string> Next(std::string_view in, std::string_view from, std::string_view to, size_t& nLen)
{
    const auto ch = static_cast<unsigned char>(in[0]);
    nLen = from == "UCS-2LE" ? 2 : 1;
    if (ch < 0x80 && in.size() >= nLen && (nLen == 1 || in[1] == 0))
        return std::string(1, in[0]) + (to == "UCS-2LE" ? std::string(1, '\0') : std::string());
    for (const SChar& one : CHARS) {
        const std::string_view form = FormOf(one, from);
        nLen = form.size();
        if (in.starts_with(form) && Knows(one, from == "GB2312"))
            return std::string(FormOf(one, to));
    }
    return std::nullopt;
}

/// The errors of iconv: a character that is cut off by the end of the text is not a wrong one.
int ErrorAt(std::string_view in)
{
    return in == "\xE2\x80" ? EINVAL : EILSEQ;
}

} // namespace

size_t StandInConvert(const std::string& strNames, char** ppIn, size_t* pnIn, char** ppOut, size_t* pnRoom)
{
    const std::string strFrom = strNames.substr(0, strNames.find(" to "));
    const std::string strTo = strNames.substr(strNames.find(" to ") + 4);
    while (*pnIn > 0) {
        size_t nLen = 0;
        const auto next = Next({*ppIn, *pnIn}, strFrom, strTo, nLen);
        if (!next || next->size() > *pnRoom) {
            errno = next ? E2BIG : ErrorAt({*ppIn, *pnIn});
            return static_cast<size_t>(-1);
        }
        std::memcpy(*ppOut, next->data(), next->size());
        *ppIn += nLen;
        *pnIn -= nLen;
        *ppOut += next->size();
        *pnRoom -= next->size();
    }
    return 0;
}
