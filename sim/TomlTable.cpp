// See TomlTable.h.
#include "TomlTable.h"

#include "cstring.h"

#include <cmath>

namespace {

std::string Joined(const auto& words)
{
    std::string text;
    for (const auto& word : words)
        text += (text.empty() ? "" : ", ") + std::string(word);
    return text;
}

} // namespace

std::optional<std::string> Utf8ToGb(const std::string& strUtf8)
{
    auto gb = GbOfUtf8(strUtf8);
    if (!gb && !GbOfUtf8("a"))
        throw CProjectError("this machine's iconv has no converter for GB2312");
    return gb;
}

CTomlTable::CTomlTable(const toml::table& table, std::string strFile, std::string strWhat)
    : m_table(table), m_strFile(std::move(strFile)), m_strWhat(std::move(strWhat))
{
}

void CTomlTable::FailIn(const toml::source_region& where, const std::string& strMessage) const
{
    const auto nLine = where.begin.line;
    throw CProjectError(m_strFile + ":" + (nLine ? std::to_string(nLine) + ":" : "") + " " +
                        (m_strWhat.empty() ? "" : m_strWhat + ": ") + strMessage);
}

void CTomlTable::Fail(const std::string& strMessage) const
{
    FailIn(m_table.source(), strMessage);
}

void CTomlTable::FailAt(std::string_view key, const std::string& strMessage) const
{
    const toml::node* pNode = m_table.get(key);
    FailIn(pNode ? pNode->source() : m_table.source(), std::string(key) + ": " + strMessage);
}

const toml::node* CTomlTable::Node(std::string_view key)
{
    m_known.emplace(key);
    return m_table.get(key);
}

template <class T> std::optional<T> CTomlTable::Value(std::string_view key, const char* szKind)
{
    const toml::node* pNode = Node(key);
    if (!pNode)
        return std::nullopt;
    auto value = pNode->value_exact<T>();
    if (!value)
        FailAt(key, std::string("must be ") + szKind);
    return value;
}

std::optional<std::string> CTomlTable::Text(std::string_view key)
{
    auto text = Value<std::string>(key, "a text");
    if (text && text->find('\0') != text->npos)
        FailAt(key, "must not contain a NUL character");
    return text;
}

std::string CTomlTable::NeedText(std::string_view key)
{
    auto text = Text(key);
    if (!text)
        Fail("needs a key " + std::string(key));
    return *std::move(text);
}

std::string CTomlTable::ToGb(std::string_view key, const std::string& strUtf8, size_t nMax) const
{
    auto gb = Utf8ToGb(strUtf8);
    if (!gb)
        FailAt(key, "\"" + strUtf8 + "\" has characters that GB2312 does not have");
    if (gb->size() > nMax)
        FailAt(key, "is longer than " + std::to_string(nMax) + " bytes in GB2312");
    return *std::move(gb);
}

std::optional<std::string> CTomlTable::Gb(std::string_view key, size_t nMax)
{
    const auto text = Text(key);
    return text ? std::optional(ToGb(key, *text, nMax)) : std::nullopt;
}

std::string CTomlTable::NeedGb(std::string_view key, size_t nMax)
{
    return ToGb(key, NeedText(key), nMax);
}

bool CTomlTable::Bool(std::string_view key, bool bDefault)
{
    return Value<bool>(key, "true or false").value_or(bDefault);
}

int64_t CTomlTable::Int(std::string_view key, int64_t nDefault, int64_t nMin, int64_t nMax)
{
    const int64_t n = Value<int64_t>(key, "a whole number").value_or(nDefault);
    if (Has(key) && (n < nMin || n > nMax))
        FailAt(key, "must be from " + std::to_string(nMin) + " to " + std::to_string(nMax));
    return n;
}

std::optional<double> CTomlTable::Number(std::string_view key)
{
    const toml::node* pNode = Node(key);
    if (!pNode)
        return std::nullopt;
    if (!pNode->is_number())
        FailAt(key, "must be a number");
    const double d = pNode->value<double>().value_or(0);
    if (!std::isfinite(d))
        FailAt(key, "must be a finite number");
    return d;
}

double CTomlTable::NeedNumber(std::string_view key)
{
    const auto d = Number(key);
    if (!d)
        Fail("needs a key " + std::string(key));
    return *d;
}

size_t CTomlTable::Choice(std::string_view key, const std::vector<std::string_view>& words)
{
    const auto text = Text(key);
    if (!text)
        return 0;
    for (size_t i = 0; i < words.size(); ++i)
        if (words[i] == *text)
            return i;
    FailAt(key, "\"" + *text + "\" is none of: " + Joined(words));
}

std::optional<std::vector<std::string>> CTomlTable::GbList(std::string_view key, size_t nMax)
{
    const toml::node* pNode = Node(key);
    if (!pNode)
        return std::nullopt;
    const toml::array* pArray = pNode->as_array();
    if (!pArray)
        FailAt(key, "must be a list of texts");
    std::vector<std::string> texts;
    for (const toml::node& node : *pArray) {
        const auto text = node.value_exact<std::string>();
        if (!text)
            FailAt(key, "must be a list of texts");
        texts.push_back(ToGb(key, *text, nMax));
    }
    return texts;
}

std::optional<CTomlTable> CTomlTable::Table(std::string_view key, std::string strWhat)
{
    const toml::node* pNode = Node(key);
    if (!pNode)
        return std::nullopt;
    if (!pNode->is_table())
        FailAt(key, "must be a table");
    return CTomlTable(*pNode->as_table(), m_strFile, std::move(strWhat));
}

std::vector<CTomlTable> CTomlTable::Tables(std::string_view key, std::string_view what)
{
    std::vector<CTomlTable> tables;
    const toml::node* pNode = Node(key);
    if (!pNode)
        return tables;
    const toml::array* pArray = pNode->as_array();
    if (!pArray)
        FailAt(key, "must be tables: [[" + std::string(key) + "]]");
    for (const toml::node& node : *pArray) {
        if (!node.is_table())
            FailAt(key, "must be tables: [[" + std::string(key) + "]]");
        tables.emplace_back(*node.as_table(), m_strFile,
                            std::string(what) + " " + std::to_string(tables.size() + 1));
    }
    return tables;
}

void CTomlTable::Finish() const
{
    for (const auto& [key, node] : m_table)
        if (!m_known.contains(key.str()))
            FailIn(key.source(),
                   "there is no key \"" + std::string(key.str()) + "\" here; there are: " + Joined(m_known));
}
