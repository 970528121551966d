// The simulated plant: the live values of all tags, their motion, and the alarms that follow from them.
// Knows no socket and no clock: whoever drives it says what time it is and hears of each change.
#pragma once

#include "AlarmBook.h"
#include "Project.h"

#include <string_view>
#include <unordered_map>

/// Hears of what happens in the plant, while it happens.
class IPlantListener
{
public:
    virtual ~IPlantListener() = default;
    virtual void OnTagChanged(STagRef tag, const XVariant& value) = 0;
    virtual void OnAlarm(const SAlarmNews& news) = 0;
};

/// A moment, in the two ways in which the plant needs it.
struct SInstant
{
    double dElapsed = 0; // seconds since the start
    DWORD tUnix = 0;     // seconds since 1970-01-01 UTC
};

enum class EWrite
{
    Done,
    NoSuchTag,
    Constant, // the tag never changes
    NoValue,  // its type, or the written one, has none
};

class CPlant
{
public:
    /// The project must outlive the plant.
    CPlant(const SProject& project, uint64_t nSeed, SInstant start);
    void SetListener(IPlantListener* pListener) noexcept { m_pListener = pListener; }

    bool HasDriver(WORD nDriver) const noexcept { return nDriver < m_drivers.size(); }
    /// The position, or nothing.
    std::optional<WORD> FindTag(WORD nDriver, std::string_view name) const;
    /// Null where there is no such tag.
    const XVariant* Value(STagRef tag) const noexcept;
    /// The tag's name in GB2312; empty where there is no such tag.
    std::string_view TagName(STagRef tag) const noexcept;
    const std::string& DriverName(WORD nDriver) const { return m_project.drivers.at(nDriver).strName; }
    const CAlarmBook& Alarms() const noexcept { return m_alarms; }

    /// The value becomes one of the tag's own type.
    EWrite Write(STagRef tag, const XVariant& value, SInstant now);

    /// The different periods of moving tags; whoever drives the plant calls Step for each.
    std::vector<UINT> Periods() const;
    /// Moves the tags of this period on.
    void Step(UINT nPeriodMs, SInstant now);

private:
    struct STag
    {
        XVariant value;
        SMotionState state;
    };
    struct SDriver
    {
        std::vector<STag> tags;
        std::unordered_map<std::string_view, WORD> positions; // keys lie in the project
    };

    const STagDef& Def(STagRef tag) const { return m_project.drivers[tag.nDriver].tags[tag.nTag]; }
    void Set(STagRef tag, XVariant value, DWORD tUnix);

    const SProject& m_project;
    std::vector<SDriver> m_drivers;
    std::unordered_map<UINT, std::vector<STagRef>> m_moving; // by period
    CAlarmBook m_alarms;
    RandomSource m_random;
    IPlantListener* m_pListener = nullptr;
};
