// The alarms that come in while a registration for them is under way: the server pushes from its answer on,
// but the text lists are still to be fetched and the active alarms to be delivered. Guarded by its owner's
// lock.
#pragma once

#include "RtAlarm.h"

#include <utility>
#include <vector>

class CHeldAlarms
{
public:
    /// No honest plant raises more in that time; what does is not let take all memory.
    static constexpr size_t MOST = 100'000;

    /// A registration begins; a callback of one may begin another.
    void Begin() { ++m_nRegistrations; }
    void End()
    {
        if (--m_nRegistrations == 0)
            m_alarms.clear();
    }
    void Add(const S2RtAlarm2& alarm)
    {
        if (m_nRegistrations > 0 && m_alarms.size() < MOST)
            m_alarms.push_back(alarm);
    }
    size_t Count() const { return m_alarms.size(); }
    /// What has come in since the last time, in its order.
    std::vector<S2RtAlarm2> Take() { return std::exchange(m_alarms, {}); }

private:
    int m_nRegistrations = 0; // under way
    std::vector<S2RtAlarm2> m_alarms;
};
