// See Clients.h.
#include "Clients.h"

#include <algorithm>

void CClients::Open(const std::shared_ptr<CClient>& pClient, FnGo fnGo)
{
    SLine& line = m_lines[pClient->id];
    line.waiting.push_back({pClient, std::move(fnGo)});
    if (line.open.empty())
        LetThrough(line);
}

void CClients::LetThrough(SLine& line)
{
    SWaiting next = std::move(line.waiting.front());
    line.waiting.pop_front();
    line.open.push_back(std::move(next.pClient));
    next.fnGo();
}

void CClients::StopWaiting(const std::shared_ptr<CClient>& pClient)
{
    const auto found = m_lines.find(pClient->id);
    if (found == m_lines.end())
        return;
    auto& waiting = found->second.waiting;
    const auto place = std::find_if(waiting.begin(), waiting.end(),
                                    [&](const SWaiting& one) { return one.pClient == pClient; });
    if (place == waiting.end())
        return;
    std::rotate(waiting.begin(), place, place + 1);
    LetThrough(found->second);
}

std::shared_ptr<CClient> CClients::Register(const ClientId& id)
{
    const auto found = m_lines.find(id);
    if (found == m_lines.end() || found->second.open.empty())
        return nullptr;
    // An earlier one that is still here has let its time pass.
    auto pClient = std::move(found->second.open.back());
    found->second.open.pop_back();
    Tidy(id);
    return pClient;
}

void CClients::Forget(const std::shared_ptr<CClient>& pClient)
{
    const auto found = m_lines.find(pClient->id);
    if (found == m_lines.end())
        return;
    std::erase(found->second.open, pClient);
    std::erase_if(found->second.waiting, [&](const SWaiting& one) { return one.pClient == pClient; });
    Tidy(pClient->id);
}

void CClients::Tidy(const ClientId& id)
{
    const auto found = m_lines.find(id);
    SLine& line = found->second;
    if (line.open.empty() && !line.waiting.empty())
        LetThrough(line);
    else if (line.open.empty())
        m_lines.erase(found);
}
