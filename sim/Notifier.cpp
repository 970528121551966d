// See Notifier.h.
#include "Notifier.h"

#include "Log.h"
#include "Replies.h"

#include <algorithm>

CNotifier::CNotifier(const SProject& project, const CPlant& plant, const CTrace& trace)
    : m_project(project), m_plant(plant), m_trace(trace), m_subscribers(project.drivers.size())
{
    for (size_t i = 0; i < m_subscribers.size(); ++i)
        m_subscribers[i].resize(project.drivers[i].tags.size());
}

bool CNotifier::Subscribe(CClient& client, STagRef tag)
{
    if (!m_plant.Value(tag))
        return false;
    auto& subscribers = m_subscribers[tag.nDriver][tag.nTag];
    if (std::find(subscribers.begin(), subscribers.end(), &client) == subscribers.end()) {
        subscribers.push_back(&client);
        client.subscribed.push_back(tag);
    }
    return true;
}

void CNotifier::SubscribeAlarms(CClient& client)
{
    client.bAlarms = true;
}

void CNotifier::Forget(CClient& client)
{
    for (const STagRef tag : client.subscribed)
        std::erase(m_subscribers[tag.nDriver][tag.nTag], &client);
    client.subscribed.clear();
    client.bAlarms = false;
    std::erase(m_clients, &client);
}

void CNotifier::Push(const CClient& client, const Bytes& bytes, const FnMeaning& fnMeaning) const
{
    if (!client.pReceive)
        return;
    if (m_trace.IsOn())
        m_trace.Sent(client.strName + " push", bytes, fnMeaning);
    client.pReceive->Send(bytes, 0);
}

void CNotifier::OnTagChanged(STagRef tag, const XVariant& value)
{
    const auto& subscribers = m_subscribers[tag.nDriver][tag.nTag];
    if (subscribers.empty())
        return;
    const Bytes bytes = EncodeChange(tag, value);
    const FnMeaning fnMeaning = [&] { return DescribeChange(m_plant, tag); };
    for (const CClient* pClient : subscribers)
        Push(*pClient, bytes, fnMeaning);
}

void CNotifier::OnAlarm(const SAlarmNews& news)
{
    const Bytes bytes = EncodeAlarmNews(news);
    const FnMeaning fnMeaning = [&] { return DescribeAlarm(m_project, news); };
    for (const CClient* pClient : m_clients)
        if (pClient->bAlarms)
            Push(*pClient, bytes, fnMeaning);
}

void CNotifier::SendSysNotify()
{
    for (const CClient* pClient : m_clients) {
        for (const BYTE nSubType : m_project.server.sysNotify) {
            // A client cannot walk past the notification of a tag whose driver it has not asked for.
            if (SysNotifyNamesTag(nSubType) && pClient->subscribed.empty())
                continue;
            const STagRef tag = pClient->subscribed.empty() ? STagRef{} : pClient->subscribed.front();
            Push(*pClient, EncodeSysNotify(nSubType, tag),
                 [=] { return fmt::format("system notification of sub-type {}", nSubType); });
        }
    }
}
