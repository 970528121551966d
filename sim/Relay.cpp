// See Relay.h.
#include "Relay.h"

#include "Log.h"

#include <asio/connect.hpp>

#include <algorithm>

using asio::ip::tcp;

CPipe::CPipe(std::shared_ptr<CChannel> pNear, const SServerDef& def, Bytes first, FnEnded fnEnded)
    : m_pNear(std::move(pNear)), m_def(def), m_fnEnded(std::move(fnEnded)),
      m_resolver(m_pNear->Socket().get_executor()), m_connecting(m_pNear->Socket().get_executor()),
      m_early(std::move(first))
{
}

CPipe::~CPipe()
{
    if (m_pFar)
        m_pFar->Detach();
    m_fnEnded();
}

void CPipe::Connect(const std::string& strHost, WORD nPort)
{
    const auto fail = [](CPipe& pipe, const asio::error_code& error) {
        if (!pipe.m_bClosed)
            pipe.m_pNear->Close("the server behind the relay centre: " + error.message());
    };
    m_resolver.async_resolve(tcp::v4(), strHost, std::to_string(nPort),
                             [self = shared_from_this(), fail](const asio::error_code& error,
                                                               const tcp::resolver::results_type& found) {
                                 if (error || self->m_bClosed)
                                     return fail(*self, error);
                                 asio::async_connect(
                                     self->m_connecting, found,
                                     [self, fail](const asio::error_code& failed, const tcp::endpoint&) {
                                         if (failed || self->m_bClosed)
                                             return fail(*self, failed);
                                         self->Attach(std::move(self->m_connecting));
                                     });
                             });
}

void CPipe::Attach(tcp::socket socket)
{
    m_pFar = std::make_shared<CChannel>(std::move(socket), m_def);
    m_pFar->Start(*this);
    m_pFar->Send(m_early);
    Bytes().swap(m_early);
}

void CPipe::Forward(std::span<const BYTE> bytes)
{
    if (!m_pFar) {
        m_early.insert(m_early.end(), bytes.begin(), bytes.end());
        if (m_early.size() > m_def.nSendLimit)
            m_pNear->Close("too much to say before the server behind the relay centre was reached");
        return;
    }
    m_pFar->Send(bytes);
    if (!m_pFar->IsDrained())
        m_pNear->PauseReading();
}

void CPipe::OnNearDrained()
{
    if (m_pFar)
        m_pFar->ResumeReading();
}

void CPipe::Close()
{
    m_bClosed = true;
    m_resolver.cancel();
    asio::error_code ignored; // a socket that was never opened is closed as well
    m_connecting.close(ignored);
    if (m_pFar) {
        m_pFar->Detach();
        m_pFar->Close("the client ended");
    }
}

void CPipe::OnBytes(std::span<const BYTE> bytes)
{
    m_pNear->Send(bytes);
    if (!m_pNear->IsDrained())
        m_pFar->PauseReading();
}

void CPipe::OnDrained()
{
    m_pNear->ResumeReading();
}

void CPipe::OnClosed(const std::string& strWhy)
{
    m_pNear->Close("the server behind the relay centre: " + strWhy);
}

const SRelayDef* CRelay::Find(const std::string& strName) const
{
    static const SRelayDef SELF;
    if (strName.empty())
        return &SELF;
    const auto found = std::find_if(m_project.relays.begin(), m_project.relays.end(),
                                    [&](const SRelayDef& one) { return one.strName == strName; });
    return found == m_project.relays.end() ? nullptr : &*found;
}

CRelay::SRedirect CRelay::RedirectOf(const SRelayDef& server, const tcp::socket& near) const
{
    SRedirect redirect;
    if (!server.strHost.empty()) {
        redirect.address = asio::ip::make_address_v4(server.strHost).to_bytes();
        redirect.nPort = server.nPort;
        return redirect;
    }
    // This simulator: where it listens, or, when it does so on every address, where the client reached it.
    asio::error_code gone;
    const auto own = m_own.address().is_unspecified() ? near.local_endpoint(gone).address() : m_own.address();
    if (own.is_v4())
        redirect.address = own.to_v4().to_bytes();
    redirect.nPort = m_own.port();
    return redirect;
}

std::shared_ptr<CPipe> CRelay::Pipe(const SRelayDef& server, const ClientId& id,
                                    std::shared_ptr<CChannel> pNear, Bytes first)
{
    SPiped& piped = m_piped[id];
    piped.pServer = &server;
    ++piped.nCount;
    auto pPipe = std::make_shared<CPipe>(std::move(pNear), m_project.server, std::move(first), [this, id] {
        const auto found = m_piped.find(id);
        if (--found->second.nCount == 0)
            m_piped.erase(found);
    });
    pPipe->Connect(server.strHost, server.nPort);
    return pPipe;
}

const SRelayDef* CRelay::FindPiped(const ClientId& id) const
{
    const auto found = m_piped.find(id);
    return found == m_piped.end() ? nullptr : found->second.pServer;
}
