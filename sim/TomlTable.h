// One table of a project file: typed access to its keys, with complaints that name file and line. A key that
// nobody asked for is a complaint too, so that a misspelt one does not go unnoticed.
#pragma once

#include "ProjectLoader.h"

#include <set>

// The library asserts that a key begins with a character of keys before it has looked, and says what is wrong
// where it looks: without its assertions a project file with [%] is refused, with them it ends the program.
#define TOML_ASSERT(expr) static_cast<void>(0)
#pragma push_macro("NDEBUG") // with it, compilers are told to rely on the same
#undef NDEBUG
#include <toml++/toml.h>
#pragma pop_macro("NDEBUG")

class CTomlTable
{
public:
    /// The table must outlive this object. strWhat: what it describes, for complaints.
    CTomlTable(const toml::table& table, std::string strFile, std::string strWhat);

    [[noreturn]] void Fail(const std::string& strMessage) const;
    [[noreturn]] void FailAt(std::string_view key, const std::string& strMessage) const;

    bool Has(std::string_view key) const { return m_table.contains(key); }
    /// The node, which counts as asked for; null when there is none.
    const toml::node* Node(std::string_view key);

    std::optional<std::string> Text(std::string_view key);
    std::string NeedText(std::string_view key);
    /// Text that a client gets as GB2312, of at most nMax bytes.
    std::optional<std::string> Gb(std::string_view key, size_t nMax);
    std::string NeedGb(std::string_view key, size_t nMax);
    bool Bool(std::string_view key, bool bDefault);
    int64_t Int(std::string_view key, int64_t nDefault, int64_t nMin, int64_t nMax);
    std::optional<double> Number(std::string_view key);
    double NeedNumber(std::string_view key);
    /// One of the words; the first when the key is missing.
    size_t Choice(std::string_view key, const std::vector<std::string_view>& words);
    std::optional<std::vector<std::string>> GbList(std::string_view key, size_t nMax);

    /// A table below this one, if it is there.
    std::optional<CTomlTable> Table(std::string_view key, std::string strWhat);
    /// The tables of [[key]].
    std::vector<CTomlTable> Tables(std::string_view key, std::string_view what);

    /// Complains of keys that nobody asked for.
    void Finish() const;

    const std::string& File() const noexcept { return m_strFile; }
    const std::string& What() const noexcept { return m_strWhat; }
    /// From here on the table is called by this name.
    void Rename(std::string strWhat) { m_strWhat = std::move(strWhat); }
    std::string ToGb(std::string_view key, const std::string& strUtf8, size_t nMax) const;

private:
    template <class T> std::optional<T> Value(std::string_view key, const char* szKind);
    [[noreturn]] void FailIn(const toml::source_region& where, const std::string& strMessage) const;

    const toml::table& m_table;
    std::string m_strFile;
    std::string m_strWhat;
    std::set<std::string, std::less<>> m_known;
};

/// The GB2312 form of UTF-8 text, or nothing when there is none.
std::optional<std::string> Utf8ToGb(const std::string& strUtf8);
