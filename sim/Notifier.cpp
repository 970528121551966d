// See Notifier.h.
#include "Notifier.h"

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

void CNotifier::Push(CClient& client, const Bytes& bytes, const std::string& strMeaning) const
{
    if (!client.pReceive)
        return;
    m_trace.Sent(client.strName + " push", bytes, [&] { return strMeaning; });
    client.pReceive->Send(bytes, 0);
}

void CNotifier::OnTagChanged(STagRef tag, const XVariant& value)
{
    const auto& subscribers = m_subscribers[tag.nDriver][tag.nTag];
    if (subscribers.empty())
        return;
    const Bytes bytes = EncodeChange(tag, value);
    const std::string strMeaning = m_trace.IsOn() ? DescribeChange(m_plant, tag) : std::string();
    for (CClient* pClient : subscribers)
        Push(*pClient, bytes, strMeaning);
}

void CNotifier::OnAlarm(const SAlarmNews& news)
{
    const Bytes bytes = EncodeAlarmNews(news);
    const std::string strMeaning = m_trace.IsOn() ? DescribeAlarm(m_project, news) : std::string();
    for (CClient* pClient : m_clients)
        if (pClient->bAlarms)
            Push(*pClient, bytes, strMeaning);
}

void CNotifier::SendSysNotify()
{
    for (CClient* pClient : m_clients) {
        for (const BYTE nSubType : m_project.server.sysNotify) {
            // A client cannot walk past the notification of a tag whose driver it has not asked for.
            if (SysNotifyNamesTag(nSubType) && pClient->subscribed.empty())
                continue;
            const STagRef tag = pClient->subscribed.empty() ? STagRef{} : pClient->subscribed.front();
            Push(*pClient, EncodeSysNotify(nSubType, tag),
                 "system notification, sub-type " + std::to_string(nSubType));
        }
    }
}
