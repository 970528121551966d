// The simulator as a whole: listens, keeps the sessions, and drives the plant by timers. One thread.
#pragma once

#include "ClientSock.h"
#include "Options.h"
#include "Session.h"

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

/// Takes connections at one address.
class CListener
{
public:
    using FnAccepted = std::function<void(asio::ip::tcp::socket)>;

    /// Throws std::system_error when it cannot listen there.
    CListener(asio::io_context& io, const asio::ip::tcp::endpoint& endpoint, FnAccepted fnAccepted);
    void Start() { Accept(); }
    void Close();
    asio::ip::tcp::endpoint Endpoint() const { return m_acceptor.local_endpoint(); }

private:
    void Accept();

    asio::ip::tcp::acceptor m_acceptor;
    asio::steady_timer m_pause;
    FnAccepted m_fnAccepted;
};

class CServer
{
public:
    /// Listens from now on. Both must outlive the server. Throws std::system_error when it cannot listen.
    CServer(const SProject& project, const SOptions& options);
    ~CServer();
    CServer(const CServer&) = delete;
    CServer& operator=(const CServer&) = delete;

    /// "127.0.0.1:8000", and where the relay centre listens if there is one.
    std::string Address() const;
    std::optional<std::string> RelayAddress() const;
    /// Serves until SIGTERM or SIGINT.
    void Run();

private:
    /// Clients take every server at this port for a relay centre and show it a server name.
    bool IsRelayPort() const { return m_listener.Endpoint().port() == CClientSock::RELAY_PORT; }
    void OnAccepted(asio::ip::tcp::socket socket, bool bRelay);
    void StartTimer(std::chrono::milliseconds period, const std::function<void()>& fnDo);
    void Tick(asio::steady_timer& timer, std::chrono::milliseconds period, const std::function<void()>& fnDo);
    void Stop(const char* szWhy);
    SInstant Now() const;

    const SProject& m_project;
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    CTrace m_trace;
    CPlant m_plant;
    CFileStore m_files;
    CClients m_clients;
    CNotifier m_notifier;
    CRelay m_relay;
    SServices m_services;
    // From here on what has operations under way, and so must go first.
    asio::io_context m_io{1};
    asio::signal_set m_signals;
    CListener m_listener;
    std::optional<CListener> m_relayListener;
    std::vector<std::unique_ptr<asio::steady_timer>> m_timers;
    std::map<CSession*, std::unique_ptr<CSession>> m_sessions;
    size_t m_nAccepted = 0;
    bool m_bStopping = false; // a timer that has run out already must not start again
};
