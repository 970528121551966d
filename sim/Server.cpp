// See Server.h.
#include "Server.h"

#include "Log.h"

#include <asio/ip/address.hpp>

#include <csignal>

using asio::ip::tcp;

namespace {

constexpr std::chrono::milliseconds ACCEPT_PAUSE{100};

tcp::endpoint EndpointOf(const std::string& strHost, WORD nPort)
{
    return {asio::ip::make_address_v4(strHost), nPort};
}

std::string Text(const tcp::endpoint& endpoint)
{
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

} // namespace

CListener::CListener(asio::io_context& io, const tcp::endpoint& endpoint, FnAccepted fnAccepted)
    : m_acceptor(io), m_pause(io), m_fnAccepted(std::move(fnAccepted))
{
    m_acceptor.open(endpoint.protocol());
    m_acceptor.set_option(tcp::acceptor::reuse_address(true));
    m_acceptor.bind(endpoint);
    m_acceptor.listen(1024);
}

void CListener::Accept()
{
    m_acceptor.async_accept([this](const asio::error_code& error, tcp::socket socket) {
        if (error == asio::error::operation_aborted || !m_acceptor.is_open())
            return;
        if (!error) {
            m_fnAccepted(std::move(socket));
            return Accept();
        }
        // Out of descriptors, for one: some will be free again.
        spdlog::error("cannot accept a connection: {}", error.message());
        m_pause.expires_after(ACCEPT_PAUSE);
        m_pause.async_wait([this](const asio::error_code& closed) {
            if (!closed)
                Accept();
        });
    });
}

void CListener::Close()
{
    asio::error_code ignored; // it is of no use any more either way
    m_acceptor.close(ignored);
    m_pause.cancel();
}

CServer::CServer(const SProject& project, const SOptions& options)
    : m_project(project), m_trace(options.bTrace, options.nTraceBytes),
      m_plant(project, options.nSeed, Now()), m_files(project), m_notifier(project, m_plant, m_trace),
      m_relay(project),
      m_services{project, m_plant, m_files, m_clients, m_notifier, m_trace, [this] { return Now(); }},
      m_signals(m_io, SIGTERM, SIGINT),
      m_listener(m_io, EndpointOf(options.strHost, options.nPort),
                 [this](tcp::socket socket) { OnAccepted(std::move(socket), IsRelayPort()); })
{
    m_plant.SetListener(&m_notifier);
    m_relay.SetOwn(m_listener.Endpoint());
    if (options.nRelayPort)
        m_relayListener.emplace(m_io, EndpointOf(options.strRelayHost, *options.nRelayPort),
                                [this](tcp::socket socket) { OnAccepted(std::move(socket), true); });
}

CServer::~CServer()
{
    m_sessions.clear();
}

std::string CServer::Address() const
{
    return Text(m_listener.Endpoint());
}

std::optional<std::string> CServer::RelayAddress() const
{
    return m_relayListener ? std::optional(Text(m_relayListener->Endpoint())) : std::nullopt;
}

SInstant CServer::Now() const
{
    const auto elapsed = std::chrono::steady_clock::now() - m_start;
    return {std::chrono::duration<double>(elapsed).count(),
            static_cast<DWORD>(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()))};
}

void CServer::Run()
{
    m_signals.async_wait([this](const asio::error_code& error, int nSignal) {
        if (!error)
            Stop(nSignal == SIGTERM ? "SIGTERM" : "SIGINT");
    });
    for (const UINT nPeriod : m_plant.Periods())
        StartTimer(std::chrono::milliseconds(nPeriod), [this, nPeriod] { m_plant.Step(nPeriod, Now()); });
    if (!m_project.server.sysNotify.empty())
        StartTimer(std::chrono::milliseconds(m_project.server.nSysNotifyMs),
                   [this] { m_notifier.SendSysNotify(); });
    m_listener.Start();
    if (m_relayListener)
        m_relayListener->Start();
    m_io.run();
}

void CServer::StartTimer(std::chrono::milliseconds period, const std::function<void()>& fnDo)
{
    auto& pTimer = m_timers.emplace_back(std::make_unique<asio::steady_timer>(m_io));
    pTimer->expires_after(period);
    Tick(*pTimer, period, fnDo);
}

void CServer::Tick(asio::steady_timer& timer, std::chrono::milliseconds period,
                   const std::function<void()>& fnDo)
{
    timer.async_wait([this, &timer, period, fnDo](const asio::error_code& error) {
        if (error || m_bStopping)
            return;
        fnDo();
        // Steps that a busy machine has missed are left out, not made up for.
        const auto next = timer.expiry() + period;
        timer.expires_at(std::max(next, std::chrono::steady_clock::now()));
        Tick(timer, period, fnDo);
    });
}

void CServer::OnAccepted(tcp::socket socket, bool bRelay)
{
    asio::error_code gone;
    const auto peer = socket.remote_endpoint(gone);
    if (gone)
        return;
    const std::string strName = fmt::format("#{}", ++m_nAccepted);
    const size_t nMax = m_project.server.nMaxConnections;
    if (nMax > 0 && m_sessions.size() >= nMax) {
        spdlog::warn("{}: from {} turned away: {} connections are open", strName, Text(peer),
                     m_sessions.size());
        return;
    }
    spdlog::info("{}: connection from {}{}", strName, Text(peer), bRelay ? " at the relay centre" : "");
    auto pSession = std::make_unique<CSession>(std::move(socket), m_services, m_relay, bRelay, strName,
                                               [this](CSession& ended) { m_sessions.erase(&ended); });
    CSession& session = *pSession;
    m_sessions.emplace(&session, std::move(pSession));
    session.Start();
}

void CServer::Stop(const char* szWhy)
{
    spdlog::info("{}: ending, {} connections are open", szWhy, m_sessions.size());
    m_bStopping = true;
    m_listener.Close();
    if (m_relayListener)
        m_relayListener->Close();
    for (const auto& pTimer : m_timers)
        pTimer->cancel();
    m_sessions.clear();
}
