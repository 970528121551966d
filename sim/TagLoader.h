// The part of a project file that describes the tags of one driver: their types, values and motions.
#pragma once

#include "TomlTable.h"

#include <unordered_map>

class CTagLoader
{
public:
    /// Both must outlive the loader. nPeriodMs: of tags that say nothing else.
    CTagLoader(SDriverDef& driver, UINT nPeriodMs) : m_driver(driver), m_nPeriodMs(nPeriodMs) {}

    /// One [[driver.tag]], which may describe many tags.
    void Load(CTomlTable& table);
    /// Call when the driver has all its tags: finds those that others follow.
    void ResolveFollowers();
    const std::unordered_map<std::string, WORD>& Positions() const noexcept { return m_positions; }

private:
    struct SFollower
    {
        WORD nTag;
        std::string strOf;
        CTomlTable table;
    };

    void Add(CTomlTable& table, STagDef tag);
    static XVariant LoadValue(CTomlTable& table, std::string_view key, const toml::node* pNode, VARTYPE vt);
    TagMotion LoadMotion(CTomlTable& table, const STagDef& tag);
    static SCycleMotion LoadCycle(CTomlTable& table, VARTYPE vt);

    SDriverDef& m_driver;
    UINT m_nPeriodMs;
    std::unordered_map<std::string, WORD> m_positions;
    std::vector<SFollower> m_followers;
    std::string m_strFollows; // of the motion that was loaded last
};
