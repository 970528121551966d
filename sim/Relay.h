// The relay centre: which server a name leads to, and the pipes to servers behind it.
#pragma once

#include "Channel.h"
#include "Handshake.h"

#include <functional>
#include <map>

/// Passes one client's connection on to a server: what the client says goes there, what it answers comes
/// back.
class CPipe : public std::enable_shared_from_this<CPipe>, private CChannel::IUser
{
public:
    using FnEnded = std::function<void()>;

    /// first: what the server is told before anything of the client's.
    CPipe(std::shared_ptr<CChannel> pNear, const SServerDef& def, Bytes first, FnEnded fnEnded);
    ~CPipe() override;
    CPipe(const CPipe&) = delete;
    CPipe& operator=(const CPipe&) = delete;

    void Connect(const std::string& strHost, WORD nPort);
    void Forward(std::span<const BYTE> bytes);
    void OnNearDrained();
    /// Ends the far side; the near one is its owner's.
    void Close();

private:
    void Attach(asio::ip::tcp::socket socket);
    void OnBytes(std::span<const BYTE> bytes) override;
    void OnDrained() override;
    void OnClosed(const std::string& strWhy) override;

    std::shared_ptr<CChannel> m_pNear;
    const SServerDef& m_def;
    FnEnded m_fnEnded;
    asio::ip::tcp::resolver m_resolver;
    asio::ip::tcp::socket m_connecting;
    std::shared_ptr<CChannel> m_pFar; // null until connected
    Bytes m_early;                    // said before the server was reached
    bool m_bClosed = false;
};

class CRelay
{
public:
    /// The project must outlive the relay.
    explicit CRelay(const SProject& project) : m_project(project) {}
    /// Where this simulator itself listens, for names that are redirected to it.
    void SetOwn(const asio::ip::tcp::endpoint& endpoint) { m_own = endpoint; }

    /// Null for an unknown name. The empty name is this simulator.
    const SRelayDef* Find(const std::string& strName) const;
    struct SRedirect
    {
        std::array<BYTE, 4> address{};
        WORD nPort = 0;
    };
    /// near: the client's connection to this centre.
    SRedirect RedirectOf(const SRelayDef& server, const asio::ip::tcp::socket& near) const;

    /// Passes a connection on; later ones with the same identifier go the same way.
    std::shared_ptr<CPipe> Pipe(const SRelayDef& server, const ClientId& id, std::shared_ptr<CChannel> pNear,
                                Bytes first);
    /// The server that a connection with this identifier is piped to, or null.
    const SRelayDef* FindPiped(const ClientId& id) const;

private:
    const SProject& m_project;
    asio::ip::tcp::endpoint m_own;
    struct SPiped
    {
        const SRelayDef* pServer = nullptr;
        size_t nCount = 0; // of connections
    };
    std::map<ClientId, SPiped> m_piped;
};
