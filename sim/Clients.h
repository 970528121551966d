// Which two connections are one client.
//
// A client shows the same identifier on both, but clients that start in the same second make the same one.
// So of several with one identifier only one at a time is let through its open request; the others' replies
// wait until it has registered. A client waits for that reply before it registers, so the pairs are right.
#pragma once

#include "Channel.h"
#include "Handshake.h"

#include <functional>
#include <map>

/// What the two connections of one client share.
struct CClient
{
    ClientId id{};
    std::string strName; // for the log
    bool bLoggedIn = false;
    DWORD nRights = 0;
    std::weak_ptr<CChannel> pRequest;
    std::shared_ptr<CChannel> pReceive; // null until registered and after its end
    std::vector<STagRef> subscribed;
    bool bAlarms = false;
};

class CClients
{
public:
    using FnGo = std::function<void()>;

    /// Calls fnGo when the client may be told that it is open: now, or later.
    void Open(const std::shared_ptr<CClient>& pClient, FnGo fnGo);
    /// Lets a client through that has waited long enough for another one's registration.
    void StopWaiting(const std::shared_ptr<CClient>& pClient);
    /// The open client that registers with this identifier, or null. Each is given once.
    std::shared_ptr<CClient> Register(const ClientId& id);
    /// The client's request connection has ended.
    void Forget(const std::shared_ptr<CClient>& pClient);

private:
    struct SWaiting
    {
        std::shared_ptr<CClient> pClient;
        FnGo fnGo;
    };
    /// All of one identifier that have not registered yet.
    struct SLine
    {
        std::vector<std::shared_ptr<CClient>> open; // let through, the latest last
        std::deque<SWaiting> waiting;
    };

    void LetThrough(SLine& line);
    void Tidy(const ClientId& id);

    std::map<ClientId, SLine> m_lines;
};
