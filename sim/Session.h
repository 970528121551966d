// One connection from its first byte to its end. The first byte says which of a client's two it is: the
// request connection or the receive connection.
#pragma once

#include "Conversation.h"
#include "Relay.h"

class CSession : private CChannel::IUser
{
public:
    using FnEnded = std::function<void(CSession&)>;

    /// bRelay: came in at the relay centre's port. fnEnded is called once, when the connection has ended, and
    /// may destroy the session. The services and the relay outlive the session.
    CSession(asio::ip::tcp::socket socket, const SServices& services, CRelay& relay, bool bRelay,
             std::string strName, FnEnded fnEnded);
    ~CSession() override;
    CSession(const CSession&) = delete;
    CSession& operator=(const CSession&) = delete;

    void Start();
    void Close(std::string strWhy) { m_pChannel->Close(std::move(strWhy)); }

private:
    enum class EState
    {
        Greeting,  // awaits an open or a register request
        Waiting,   // opened, awaits its turn among clients of one identifier
        Requests,  // a request connection
        Receive,   // a receive connection: everything a client says there is ignored
        Piped,     // passed on to a server behind this relay centre
        Dismissed, // refused or sent elsewhere; awaits that the client closes
    };

    void OnBytes(std::span<const BYTE> bytes) override;
    void OnDrained() override;
    void OnClosed(const std::string& strWhy) override;

    void Pump();
    size_t Greet();
    size_t GreetOpen();
    size_t GreetRegister();
    void Open(const SOpenRequest& request);
    void Register(const SRegisterRequest& request, std::span<const BYTE> whole);
    void Go();
    void Dismiss(const Bytes& bytes, const std::string& strWhy);
    void CloseAfter(std::chrono::seconds time, const char* szWhy);
    void Send(const Bytes& bytes, const std::string& strMeaning);
    SRegisterReply MakeRegisterReply() const;

    const SServices& m_services;
    CRelay& m_relay;
    const bool m_bRelay;
    std::string m_strName;
    FnEnded m_fnEnded;
    std::shared_ptr<CChannel> m_pChannel;
    asio::steady_timer m_timer;
    EState m_eState = EState::Greeting;
    Bytes m_in; // not yet done with
    std::shared_ptr<CClient> m_pClient;
    std::optional<CConversation> m_conversation;
    std::shared_ptr<CPipe> m_pPipe;
};
