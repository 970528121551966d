// The alarms of the plant: which are active, and what there is to tell when a value passes a limit.
#pragma once

#include "Project.h"
#include "RtAlarm.h"

#include <functional>
#include <unordered_map>

/// The server's status codes of alarms.
constexpr BYTE ALARM_ENDED = 0;
constexpr BYTE ALARM_ACTIVE = 1;

/// One thing to tell: an alarm was raised, or has ended (its event time is then set).
struct SAlarmNews
{
    S2RtAlarm2 record;
    bool bEnded = false;
};

class CAlarmBook
{
public:
    using FnTell = std::function<void(const SAlarmNews&)>;

    /// The project must outlive the book.
    explicit CAlarmBook(const SProject& project);

    /// Compares a tag's value with its limits.
    void Check(STagRef tag, double dValue, DWORD tUnix, const FnTell& fnTell);
    /// In the order in which they were raised.
    const std::vector<S2RtAlarm2>& Active() const noexcept { return m_active; }

private:
    enum class EPassed
    {
        No,
        High,
        Low,
    };

    static EPassed Passed(const SAlarmRule& rule, double dValue, EPassed eBefore) noexcept;
    void End(size_t nRule, double dValue, DWORD tUnix, const FnTell& fnTell);
    void Raise(size_t nRule, double dLimit, double dValue, DWORD tUnix, const FnTell& fnTell);
    static UINT Key(STagRef tag) noexcept { return static_cast<UINT>(tag.nDriver) << 16 | tag.nTag; }

    const SProject& m_project;
    std::unordered_map<UINT, std::vector<size_t>> m_rulesOf; // by tag
    std::vector<EPassed> m_passed;                           // by rule
    std::vector<size_t> m_activeRules;                       // beside m_active
    std::vector<S2RtAlarm2> m_active;
};
