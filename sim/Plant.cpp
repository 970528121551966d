// See Plant.h. Every change of a value goes through Set, which is the one place that tells of it.
#include "Plant.h"

#include <algorithm>

CPlant::CPlant(const SProject& project, uint64_t nSeed, SInstant start)
    : m_project(project), m_alarms(project), m_random(nSeed)
{
    m_drivers.resize(project.drivers.size());
    for (size_t d = 0; d < project.drivers.size(); ++d) {
        const auto& defs = project.drivers[d].tags;
        SDriver& driver = m_drivers[d];
        driver.tags.resize(defs.size());
        driver.positions.reserve(defs.size());
        for (size_t t = 0; t < defs.size(); ++t) {
            driver.tags[t].value = defs[t].initial;
            driver.tags[t].state.dExact = defs[t].initial.ToDouble();
            driver.positions.emplace(defs[t].strName, static_cast<WORD>(t));
            if (MovesByItself(defs[t].motion))
                m_moving[defs[t].nPeriodMs].push_back({static_cast<WORD>(d), static_cast<WORD>(t)});
        }
    }
    for (const SAlarmRule& rule : project.alarms)
        m_alarms.Check(rule.tag, Value(rule.tag)->ToDouble(), start.tUnix, [](const SAlarmNews&) {});
}

std::optional<WORD> CPlant::FindTag(WORD nDriver, std::string_view name) const
{
    if (!HasDriver(nDriver))
        return std::nullopt;
    const auto& positions = m_drivers[nDriver].positions;
    const auto found = positions.find(name);
    return found == positions.end() ? std::nullopt : std::optional(found->second);
}

const XVariant* CPlant::Value(STagRef tag) const noexcept
{
    const bool bThere = tag.nDriver < m_drivers.size() && tag.nTag < m_drivers[tag.nDriver].tags.size();
    return bThere ? &m_drivers[tag.nDriver].tags[tag.nTag].value : nullptr;
}

std::string_view CPlant::TagName(STagRef tag) const noexcept
{
    return Value(tag) ? std::string_view(Def(tag).strName) : std::string_view();
}

EWrite CPlant::Write(STagRef tag, const XVariant& value, SInstant now)
{
    const XVariant* pCurrent = Value(tag);
    if (!pCurrent)
        return EWrite::NoSuchTag;
    if (std::holds_alternative<SConstantMotion>(Def(tag).motion))
        return EWrite::Constant;
    XVariant converted(value);
    if (pCurrent->BufferSize(false) == 0 || value.BufferSize(false) == 0 ||
        converted.ChangeType(pCurrent->vt) != 0)
        return EWrite::NoValue;
    Set(tag, std::move(converted), now.tUnix);
    return EWrite::Done;
}

std::vector<UINT> CPlant::Periods() const
{
    std::vector<UINT> periods;
    periods.reserve(m_moving.size());
    for (const auto& [nPeriod, tags] : m_moving)
        periods.push_back(nPeriod);
    std::sort(periods.begin(), periods.end());
    return periods;
}

void CPlant::Step(UINT nPeriodMs, SInstant now)
{
    const auto found = m_moving.find(nPeriodMs);
    if (found == m_moving.end())
        return;
    for (const STagRef tag : found->second) {
        const TagMotion& motion = Def(tag).motion;
        const auto* pFollow = std::get_if<SFollowMotion>(&motion);
        const XVariant* pFollowed = pFollow ? Value({tag.nDriver, pFollow->nTag}) : nullptr;
        STag& state = m_drivers[tag.nDriver].tags[tag.nTag];
        Set(tag, StepMotion(motion, state.state, state.value, now.dElapsed, pFollowed, m_random), now.tUnix);
    }
}

void CPlant::Set(STagRef tag, XVariant value, DWORD tUnix)
{
    XVariant& current = m_drivers[tag.nDriver].tags[tag.nTag].value;
    if (current == value)
        return;
    current = std::move(value);
    if (m_pListener)
        m_pListener->OnTagChanged(tag, current);
    m_alarms.Check(tag, current.ToDouble(), tUnix, [this](const SAlarmNews& news) {
        if (m_pListener)
            m_pListener->OnAlarm(news);
    });
}
