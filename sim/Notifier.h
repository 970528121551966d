// Tells clients what happens in the plant: changes to those that subscribed, alarms to those that registered
// for them.
#pragma once

#include "Clients.h"
#include "Plant.h"
#include "Trace.h"

class CNotifier : public IPlantListener
{
public:
    /// Everything given must outlive the notifier.
    CNotifier(const SProject& project, const CPlant& plant, const CTrace& trace);

    /// The client hears of each later change of the tag. Twice is once. False for a tag that does not exist.
    bool Subscribe(CClient& client, STagRef tag);
    void SubscribeAlarms(CClient& client);
    /// The client hears of nothing any more. Needed before it dies.
    void Forget(CClient& client);
    /// Sends every client the system notifications that the project mixes in.
    void SendSysNotify();
    void Add(CClient& client) { m_clients.push_back(&client); }

    void OnTagChanged(STagRef tag, const XVariant& value) override;
    void OnAlarm(const SAlarmNews& news) override;

private:
    using FnMeaning = CTrace::FnMeaning;

    void Push(const CClient& client, const Bytes& bytes, const FnMeaning& fnMeaning) const;

    const SProject& m_project;
    const CPlant& m_plant;
    const CTrace& m_trace;
    std::vector<std::vector<std::vector<CClient*>>> m_subscribers; // by driver, by tag
    std::vector<CClient*> m_clients;                               // with a receive connection
};
