// See TagLoader.h.
#include "TagLoader.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace {

constexpr size_t MAX_TAG_NAME = 253; // what a client's single look-up holds
constexpr size_t MAX_TEXT_VALUE = 4000;
constexpr int64_t MAX_PERIOD_MS = 3600000;

struct SType
{
    std::string_view name;
    VARTYPE vt;
};

constexpr std::array TYPES = {
    SType{"i4", VT_I4},     SType{"i2", VT_I2},     SType{"r4", VT_R4},       SType{"r8", VT_R8},
    SType{"date", VT_DATE}, SType{"str", VT_STR},   SType{"bool", VT_BOOL},   SType{"i1", VT_I1},
    SType{"ui1", VT_UI1},   SType{"ui2", VT_UI2},   SType{"ui4", VT_UI4},     SType{"i8", VT_I8},
    SType{"int", VT_INT},   SType{"uint", VT_UINT}, SType{"empty", VT_EMPTY},
};

std::vector<std::string_view> TypeNames()
{
    std::vector<std::string_view> names;
    for (const SType& type : TYPES)
        names.push_back(type.name);
    return names;
}

/// Days since 1899-12-30.
double DateOf(const toml::date& date, const toml::time& time)
{
    // Days from the civil calendar, counted in years that begin in March.
    const int64_t nYear = static_cast<int64_t>(date.year) - (date.month <= 2);
    const int64_t nEra = nYear / 400;
    const int64_t nOfEra = nYear - nEra * 400;
    const int64_t nMonth = (date.month + 9) % 12;
    const int64_t nOfYear = (153 * nMonth + 2) / 5 + date.day - 1;
    const int64_t nDays = nEra * 146097 + nOfEra * 365 + nOfEra / 4 - nOfEra / 100 + nOfYear - 693899;
    const double dSeconds = time.hour * 3600.0 + time.minute * 60.0 + time.second + time.nanosecond / 1e9;
    return static_cast<double>(nDays) + dSeconds / 86400.0;
}

std::optional<double> DateValue(const toml::node& node)
{
    if (const auto both = node.value_exact<toml::date_time>())
        return both->offset ? std::nullopt : std::optional(DateOf(both->date, both->time));
    if (const auto date = node.value_exact<toml::date>())
        return DateOf(*date, toml::time());
    return node.is_number() ? node.value<double>() : std::nullopt;
}

/// A name for each number: the pattern's %d or %05d gives way to it.
std::string NumberedName(const std::string& strPattern, size_t nNumber)
{
    const size_t nPercent = strPattern.find('%');
    size_t nEnd = nPercent + 1;
    while (nEnd < strPattern.size() && strPattern[nEnd] >= '0' && strPattern[nEnd] <= '9')
        ++nEnd;
    const std::string strWidth = strPattern.substr(nPercent + 1, nEnd - nPercent - 1);
    std::string strNumber = std::to_string(nNumber);
    const size_t nWidth = strWidth.empty() ? 0 : std::stoul(strWidth);
    if (strNumber.size() < nWidth)
        strNumber.insert(0, nWidth - strNumber.size(), '0');
    return strPattern.substr(0, nPercent) + strNumber + strPattern.substr(nEnd + 1);
}

bool IsPattern(const std::string& strPattern)
{
    const size_t nPercent = strPattern.find('%');
    if (nPercent == strPattern.npos || strPattern.find('%', nPercent + 1) != strPattern.npos)
        return false;
    const size_t nEnd = strPattern.find_first_not_of("0123456789", nPercent + 1);
    return nEnd != strPattern.npos && strPattern[nEnd] == 'd' && nEnd - nPercent <= 2 + 1;
}

struct SRange
{
    double dLow;
    double dHigh;
};

SRange LoadRange(CTomlTable& table)
{
    const SRange range{table.NeedNumber("low"), table.NeedNumber("high")};
    if (range.dLow >= range.dHigh)
        table.FailAt("high", "must be above low");
    return range;
}

double LoadPositive(CTomlTable& table, std::string_view key)
{
    const double d = table.NeedNumber(key);
    if (d <= 0)
        table.FailAt(key, "must be above 0");
    return d;
}

} // namespace

void CTagLoader::Load(CTomlTable& table)
{
    const std::string strName = table.NeedText("name");
    table.Rename("tag \"" + strName + "\"");
    STagDef tag;
    const VARTYPE vt = TYPES[table.Choice("type", TypeNames())].vt;
    tag.initial = LoadValue(table, "value", table.Node("value"), vt);
    tag.nPeriodMs = static_cast<UINT>(table.Int("period_ms", m_nPeriodMs, 1, MAX_PERIOD_MS));
    if (auto motion = table.Table("motion", table.What() + ", motion"))
        tag.motion = LoadMotion(*motion, tag);
    const bool bMany = table.Has("count");
    const int64_t nCount = table.Int("count", 1, 1, static_cast<int64_t>(SDriverDef::MAX_TAGS));
    const int64_t nFirst = table.Int("first", 0, 0, 1000000000);
    table.Finish();
    if (bMany && !IsPattern(strName))
        table.FailAt("name", "with a count needs one number in it, written like %d or %05d");
    for (int64_t i = 0; i < nCount; ++i) {
        STagDef one(tag);
        const std::string strOne = bMany ? NumberedName(strName, static_cast<size_t>(nFirst + i)) : strName;
        one.strName = table.ToGb("name", strOne, MAX_TAG_NAME);
        Add(table, std::move(one));
    }
}

void CTagLoader::Add(CTomlTable& table, STagDef tag)
{
    if (tag.strName.empty() || tag.strName.find(',') != tag.strName.npos || tag.strName.front() == ' ' ||
        tag.strName.back() == ' ')
        table.FailAt(
            "name",
            "must not be empty, hold a comma, or begin or end with a blank: no client could ask for it");
    if (m_driver.tags.size() == SDriverDef::MAX_TAGS)
        table.Fail("a driver has at most " + std::to_string(SDriverDef::MAX_TAGS) + " tags");
    const auto nTag = static_cast<WORD>(m_driver.tags.size());
    if (!m_positions.emplace(tag.strName, nTag).second)
        table.FailAt("name", "its driver has a tag of this name already");
    if (std::holds_alternative<SFollowMotion>(tag.motion))
        m_followers.push_back({nTag, m_strFollows, table});
    m_driver.tags.push_back(std::move(tag));
}

XVariant CTagLoader::LoadValue(CTomlTable& table, std::string_view key, const toml::node* pNode, VARTYPE vt)
{
    const auto need = [&](bool bRight, const char* szKind) {
        if (!bRight)
            table.FailAt(key, std::string("must be ") + szKind);
    };
    if (vt == VT_EMPTY) {
        need(!pNode, "left out: the type empty has no value");
        return {};
    }
    if (vt == VT_STR) {
        const auto text = pNode ? pNode->value_exact<std::string>() : std::string();
        need(text && text->size() <= MAX_TEXT_VALUE && text->find('\0') == text->npos,
             "a text of at most 4000 bytes without NUL characters");
        return {text->c_str()};
    }
    if (!pNode)
        return NumberToValue(0, vt);
    if (vt == VT_BOOL) {
        need(pNode->is_boolean(), "true or false");
        return {pNode->value_or(false)};
    }
    if (vt == VT_DATE) {
        const auto date = DateValue(*pNode);
        need(date.has_value(), "a date like 2024-05-06 or 2024-05-06T07:08:09, without time zone");
        return {*date, VT_DATE};
    }
    if (vt == VT_R4 || vt == VT_R8) {
        need(pNode->is_number(), "a number");
        return NumberToValue(pNode->value_or(0.0), vt);
    }
    const auto n = pNode->value_exact<int64_t>();
    need(n.has_value(), "a whole number");
    XVariant value(static_cast<long long>(*n));
    value.ChangeType(vt);
    need(static_cast<int64_t>(value.ToInt64()) == *n, "within the range of its type");
    return value;
}

TagMotion CTagLoader::LoadMotion(CTomlTable& table, const STagDef& tag)
{
    const size_t nKind = table.Choice("kind", {"echo", "constant", "ramp", "sine", "random", "cycle"});
    const VARTYPE vt = tag.initial.vt;
    if (nKind >= 2 && vt == VT_EMPTY)
        table.Fail("a tag of the type empty cannot move");
    if (nKind >= 2 && nKind <= 4 && vt == VT_STR)
        table.Fail("a text cannot move like a number; use the kind cycle");
    TagMotion motion;
    if (nKind == 0) {
        if (const auto of = table.Gb("of", MAX_TAG_NAME)) {
            motion = SFollowMotion{};
            m_strFollows = *of;
        }
    } else if (nKind == 1) {
        motion = SConstantMotion{};
    } else if (nKind == 2) {
        const SRange range = LoadRange(table);
        motion =
            SRampMotion{range.dLow, range.dHigh, LoadPositive(table, "step"), table.Bool("bounce", false)};
    } else if (nKind == 3) {
        const SRange range = LoadRange(table);
        motion = SSineMotion{range.dLow, range.dHigh, LoadPositive(table, "cycle_s"),
                             table.Number("phase").value_or(0)};
    } else if (nKind == 4) {
        const SRange range = LoadRange(table);
        motion = SWalkMotion{range.dLow, range.dHigh, LoadPositive(table, "step")};
    } else {
        motion = LoadCycle(table, vt);
    }
    table.Finish();
    return motion;
}

SCycleMotion CTagLoader::LoadCycle(CTomlTable& table, VARTYPE vt)
{
    const toml::node* pNode = table.Node("values");
    const toml::array* pArray = pNode ? pNode->as_array() : nullptr;
    if (!pArray || pArray->empty())
        table.Fail("needs a key values: a list of values that follow each other");
    SCycleMotion cycle;
    for (const toml::node& node : *pArray)
        cycle.values.push_back(LoadValue(table, "values", &node, vt));
    return cycle;
}

void CTagLoader::ResolveFollowers()
{
    for (auto& [nTag, strOf, table] : m_followers) {
        const auto found = m_positions.find(strOf);
        if (found == m_positions.end() || found->second == nTag)
            table.FailAt("motion", "of must name another tag of the same driver");
        std::get<SFollowMotion>(m_driver.tags[nTag].motion).nTag = found->second;
    }
}
