// See AlarmBook.h.
#include "AlarmBook.h"

#include <algorithm>

CAlarmBook::CAlarmBook(const SProject& project) : m_project(project), m_passed(project.alarms.size())
{
    for (size_t i = 0; i < project.alarms.size(); ++i)
        m_rulesOf[Key(project.alarms[i].tag)].push_back(i);
}

CAlarmBook::EPassed CAlarmBook::Passed(const SAlarmRule& rule, double dValue, EPassed eBefore) noexcept
{
    const double dHighBand = eBefore == EPassed::High ? rule.dDeadBand : 0;
    const double dLowBand = eBefore == EPassed::Low ? rule.dDeadBand : 0;
    if (rule.dHigh && dValue > *rule.dHigh - dHighBand)
        return EPassed::High;
    if (rule.dLow && dValue < *rule.dLow + dLowBand)
        return EPassed::Low;
    return EPassed::No;
}

void CAlarmBook::Check(STagRef tag, double dValue, DWORD tUnix, const FnTell& fnTell)
{
    const auto found = m_rulesOf.find(Key(tag));
    if (found == m_rulesOf.end())
        return;
    for (const size_t nRule : found->second) {
        const SAlarmRule& rule = m_project.alarms[nRule];
        const EPassed ePassed = Passed(rule, dValue, m_passed[nRule]);
        if (ePassed == m_passed[nRule])
            continue;
        if (m_passed[nRule] != EPassed::No)
            End(nRule, dValue, tUnix, fnTell);
        m_passed[nRule] = ePassed;
        if (ePassed != EPassed::No)
            Raise(nRule, ePassed == EPassed::High ? *rule.dHigh : *rule.dLow, dValue, tUnix, fnTell);
    }
}

void CAlarmBook::Raise(size_t nRule, double dLimit, double dValue, DWORD tUnix, const FnTell& fnTell)
{
    const SAlarmRule& rule = m_project.alarms[nRule];
    S2RtAlarm2 record;
    record.almtm = tUnix;
    record.tid = rule.nTagText;
    record.type = rule.nType;
    record.grp = rule.nGroup;
    record.level = rule.nLevel;
    record.status = ALARM_ACTIVE;
    record.value = dValue;
    record.limit = dLimit;
    m_activeRules.push_back(nRule);
    m_active.push_back(record);
    fnTell({record, false});
}

void CAlarmBook::End(size_t nRule, double dValue, DWORD tUnix, const FnTell& fnTell)
{
    const auto found = std::find(m_activeRules.begin(), m_activeRules.end(), nRule);
    if (found == m_activeRules.end())
        return;
    const auto nIndex = found - m_activeRules.begin();
    S2RtAlarm2 record = m_active[static_cast<size_t>(nIndex)];
    m_activeRules.erase(found);
    m_active.erase(m_active.begin() + nIndex);
    record.evttm = tUnix;
    record.status = ALARM_ENDED;
    record.value = dValue;
    fnTell({record, true});
}
