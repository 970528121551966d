// See Trace.h. Long lists are cut: the bytes stand beside them.
#include "Trace.h"

#include "Log.h"
#include "cstring.h"

#include <algorithm>

namespace {

constexpr size_t MAX_LISTED = 8;

std::string Hex(std::span<const BYTE> bytes)
{
    return fmt::format("{:02X}", fmt::join(bytes, " "));
}

template <class TList, class FnShow> std::string List(const TList& list, FnShow fnShow)
{
    std::string text;
    size_t nShown = 0;
    for (const auto& one : list) {
        if (nShown == MAX_LISTED)
            return text + fmt::format(", ... ({} in all)", list.size());
        text += (nShown++ ? ", " : "") + fnShow(one);
    }
    return text;
}

std::string Escaped(char ch)
{
    return fmt::format("\\x{:02X}", static_cast<BYTE>(ch));
}

/// The length of the GB2312 character at the start of text, or 0.
size_t CharLength(std::string_view text)
{
    const auto first = static_cast<BYTE>(text[0]);
    if (first >= 0x20 && first < 0x7F)
        return 1;
    const auto isRow = [](BYTE b) { return (b >= 0xA1 && b <= 0xA9) || (b >= 0xB0 && b <= 0xF7); };
    const bool bDouble = text.size() > 1 && isRow(first) && static_cast<BYTE>(text[1]) >= 0xA1;
    return bDouble ? 2 : 0;
}

/// The length of the printable UTF-8 character at the start of text, or 0.
size_t Utf8Length(std::string_view text)
{
    const auto first = static_cast<BYTE>(text[0]);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7F;
    const size_t nLen = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < nLen)
        return 0;
    const bool bWhole = std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(nLen),
                                    [](char ch) { return (static_cast<BYTE>(ch) & 0xC0) == 0x80; });
    return bWhole ? nLen : 0;
}

struct SDescribe
{
    const CPlant& plant;

    std::string operator()(const SPathsRequest&) const { return "project paths?"; }
    std::string operator()(const SLoginRequest& r) const
    {
        return "login of " + ShowUtf8(r.strUser) + " with password " + ShowUtf8(r.strPassword);
    }
    std::string operator()(const SLookupRequest& r) const
    {
        return (r.bContinued ? "and where is " : "where is ") +
               List(r.names, [](const auto& n) { return fmt::format("{}/{}", n.nDriver, Show(n.strName)); }) +
               "?";
    }
    std::string operator()(const SReleaseRequest& r) const
    {
        return fmt::format("release handle {}", r.nHandle);
    }
    std::string operator()(const SReadRequest& r) const { return "read " + Tags(r.tags); }
    std::string operator()(const SAdviseRequest& r) const { return "subscribe " + Tags(r.tags); }
    std::string operator()(const SWriteRequest& r) const
    {
        return "write " +
               List(r.values, [&](const auto& v) { return ShowTag(plant, v.tag) + " = " + Show(v.value); });
    }
    std::string operator()(const SAlarmsRequest&) const { return "register for alarms"; }
    std::string operator()(const SDownloadRequest& r) const
    {
        std::string text = "download " + Show(r.strName);
        if (r.last)
            text += fmt::format(", has {} bytes of time {}", r.last->nSize, r.last->tTime);
        if (r.gz)
            text += fmt::format(", has {} compressed bytes of time {}", r.gz->nSize, r.gz->tTime);
        return text;
    }

    std::string Tags(const std::vector<STagRef>& tags) const
    {
        return List(tags, [this](STagRef tag) { return ShowTag(plant, tag); });
    }
};

} // namespace

void CTrace::Print(const char* szArrow, const std::string& strWho, std::span<const BYTE> bytes,
                   const std::string& strMeaning) const
{
    const auto shown = m_nMaxBytes ? bytes.first(std::min(bytes.size(), m_nMaxBytes)) : bytes;
    const size_t nMore = bytes.size() - shown.size();
    spdlog::trace("{} {}: {} | {}{}", szArrow, strWho, strMeaning, Hex(shown),
                  nMore ? fmt::format(" ... and {} more", nMore) : std::string());
}

std::string Show(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        const size_t nLen = CharLength(text);
        if (nLen == 2)
            shown += CT2UTF8(std::string(text.substr(0, 2)));
        else
            shown += nLen ? std::string(1, text[0]) : Escaped(text[0]);
        text.remove_prefix(std::max<size_t>(nLen, 1));
    }
    return shown;
}

std::string ShowUtf8(std::string_view text)
{
    std::string shown = "\"";
    while (!text.empty()) {
        const size_t nLen = Utf8Length(text);
        shown += nLen ? std::string(text.substr(0, nLen)) : Escaped(text[0]);
        text.remove_prefix(std::max<size_t>(nLen, 1));
    }
    return shown + "\"";
}

std::string Show(const XVariant& value)
{
    if (value.vt == VT_STR)
        return ShowUtf8(value.pStrVal ? std::string_view(*value.pStrVal) : std::string_view());
    if (value.vt == VT_I8)
        return std::to_string(value.llVal);
    CString text;
    return value.ToStringA(text, -1) ? std::string(text) : fmt::format("nothing (type {})", value.vt);
}

std::string ShowTag(const CPlant& plant, STagRef tag)
{
    if (!plant.Value(tag))
        return fmt::format("{}/{} (no such tag)", tag.nDriver, tag.nTag);
    return fmt::format("{}/{}", Show(plant.DriverName(tag.nDriver)), Show(plant.TagName(tag)));
}

std::string Describe(const CPlant& plant, const Request& request)
{
    return std::visit(SDescribe{plant}, request);
}

std::string DescribeValues(std::span<const BYTE> payload)
{
    std::vector<XVariant> values;
    while (!payload.empty()) {
        const auto nSize = values.emplace_back().FromBytes(payload, true);
        payload = payload.subspan(nSize.value_or(payload.size()));
    }
    return "values " + List(values, [](const XVariant& value) { return Show(value); });
}

std::string DescribeChange(const CPlant& plant, STagRef tag)
{
    return "change of " + ShowTag(plant, tag) + ": " + Show(*plant.Value(tag));
}

std::string DescribeAlarm(const SProject& project, const SAlarmNews& news)
{
    const S2RtAlarm2& r = news.record;
    return fmt::format("alarm {}: {}, {}, {}, level {}, value {}, limit {}", news.bEnded ? "ended" : "raised",
                       Show(project.tagList.at(r.tid)), Show(project.textList.at(r.type)),
                       Show(project.textList.at(r.grp)), r.level, r.value, r.limit);
}

std::string Describe(const SFileHeader& header)
{
    if (!header.bExist)
        return "there is no such file";
    if (header.bUseLast)
        return "the client's copy is current";
    return fmt::format("{} body bytes{}{}{}", header.nSize, header.bGZ ? ", compressed" : "",
                       header.bAppend ? ", to append" : "", header.bHello ? ", windows acknowledged" : "");
}
