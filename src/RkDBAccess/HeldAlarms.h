// The alarms that come in while a registration for them is under way: the server pushes from its answer on,
// but the text lists are still to be fetched and the active alarms to be delivered. Guarded by its owner's
// lock.
//
// The registering call delivers what is held, and meanwhile more comes in. So the bound is one for a whole
// registration: with one for the alarms held at a time, a flood would keep the call for as long as it lasts.
#pragma once

#include "RtAlarm.h"

#include <utility>
#include <vector>

class CHeldAlarms
{
public:
    /// Alarms of one registration. No honest plant raises more in that time; what does is neither let take
    /// all memory nor all time.
    static constexpr size_t MOST = 100'000;

    /// A registration begins; a callback of one may begin another.
    void Begin() { ++m_nRegistrations; }
    void End()
    {
        if (--m_nRegistrations == 0)
            *this = {};
    }
    void Add(const S2RtAlarm2& alarm)
    {
        if (m_nRegistrations == 0)
            return;
        if (m_nTaken + m_alarms.size() < MOST)
            m_alarms.push_back(alarm);
        else
            ++m_nSkipped;
    }
    size_t Count() const { return m_alarms.size(); }
    /// What has come in since the last time, in its order.
    std::vector<S2RtAlarm2> Take()
    {
        m_nTaken += m_alarms.size();
        return std::exchange(m_alarms, {});
    }
    /// How many came in beyond the bound since the last time.
    size_t TakeSkipped() { return std::exchange(m_nSkipped, 0); }

private:
    int m_nRegistrations = 0; // under way
    size_t m_nTaken = 0;
    size_t m_nSkipped = 0;
    std::vector<S2RtAlarm2> m_alarms;
};
