// See Session.h.
#include "Session.h"

#include "Log.h"
#include "NetCmd.h"

namespace {

constexpr std::chrono::seconds GREETING_TIME{10};
constexpr std::chrono::seconds TURN_TIME{1};
constexpr std::chrono::seconds LEAVING_TIME{10};
// A client may send on while it is answered; behind this much it has to wait.
constexpr size_t MAX_UNREAD = 64 << 10;

} // namespace

CSession::CSession(asio::ip::tcp::socket socket, const SServices& services, CRelay& relay, bool bRelay,
                   std::string strName, FnEnded fnEnded)
    : m_services(services), m_relay(relay), m_bRelay(bRelay), m_strName(std::move(strName)),
      m_fnEnded(std::move(fnEnded)),
      m_pChannel(std::make_shared<CChannel>(std::move(socket), services.project.server)),
      m_timer(m_pChannel->Socket().get_executor())
{
}

CSession::~CSession()
{
    m_pChannel->Detach();
    m_pChannel->Close("the server ends");
    if (m_pPipe)
        m_pPipe->Close();
    if (!m_pClient)
        return;
    m_services.clients.Forget(m_pClient);
    if (m_pClient->pReceive == m_pChannel)
        m_pClient->pReceive.reset();
    if (!m_pClient->pReceive) // else its subscriptions live on
        m_services.notifier.Forget(*m_pClient);
}

void CSession::Start()
{
    CloseAfter(GREETING_TIME, "it did not say who it is");
    m_pChannel->Start(*this);
}

void CSession::CloseAfter(std::chrono::seconds time, const char* szWhy)
{
    m_timer.expires_after(time);
    m_timer.async_wait([pChannel = m_pChannel, szWhy](const asio::error_code& error) {
        if (!error)
            pChannel->Close(szWhy);
    });
}

void CSession::OnBytes(std::span<const BYTE> bytes)
{
    if (m_eState == EState::Receive || m_eState == EState::Dismissed) {
        spdlog::debug("{}: {} bytes ignored", m_strName, bytes.size());
        return;
    }
    if (m_eState == EState::Piped) {
        m_pPipe->Forward(bytes);
        return;
    }
    m_in.insert(m_in.end(), bytes.begin(), bytes.end());
    Pump();
}

void CSession::OnDrained()
{
    if (m_eState == EState::Piped)
        m_pPipe->OnNearDrained();
    else
        Pump();
}

void CSession::OnClosed(const std::string& strWhy)
{
    const bool bDropped = m_pChannel->HasOverflowed();
    spdlog::log(bDropped ? spdlog::level::warn : spdlog::level::info, "{}: ended: {}", m_strName, strWhy);
    if (const auto pRequest = bDropped && m_pClient ? m_pClient->pRequest.lock() : nullptr)
        pRequest->Close("its receive connection was ended");
    const FnEnded fnEnded = std::move(m_fnEnded); // it may destroy this session
    fnEnded(*this);
}

void CSession::Pump()
{
    size_t nDone = 0;
    if (m_eState == EState::Greeting)
        nDone = Greet();
    if (m_eState == EState::Requests)
        nDone += m_conversation->Process(std::span<const BYTE>(m_in).subspan(nDone));
    if (m_eState == EState::Piped) {
        m_pPipe->Forward(std::span<const BYTE>(m_in).subspan(nDone));
        nDone = m_in.size();
    }
    m_in.erase(m_in.begin(), m_in.begin() + static_cast<std::ptrdiff_t>(nDone));
    if (m_in.size() > MAX_UNREAD)
        m_pChannel->PauseReading();
    else
        m_pChannel->ResumeReading();
}

size_t CSession::Greet()
{
    if (m_in.empty())
        return 0;
    if (m_in[0] == CMD_OPEN)
        return GreetOpen();
    if (m_in[0] == CMD_REGISTER)
        return GreetRegister();
    m_services.trace.Received(m_strName, m_in, [] { return std::string("neither open nor register"); });
    m_pChannel->Close("it began with neither an open nor a register request");
    return 0;
}

size_t CSession::GreetOpen()
{
    const SFrame frame = FrameOpen(m_in, m_bRelay);
    if (frame.eState == EFrame::Bad)
        m_pChannel->Close(frame.szWhy);
    if (frame.eState != EFrame::Whole)
        return 0;
    const auto whole = std::span<const BYTE>(m_in).first(frame.nLen);
    const SOpenRequest request = ParseOpen(whole, m_bRelay);
    m_services.trace.Received(m_strName, whole, [&] {
        return fmt::format("open, identifier {:02X}{}", fmt::join(request.id, ""),
                           m_bRelay ? ", server " + ShowUtf8(request.strServer) : std::string());
    });
    Open(request);
    return frame.nLen;
}

size_t CSession::GreetRegister()
{
    const SFrame frame = FrameRegister(m_in);
    if (frame.eState == EFrame::Bad)
        m_pChannel->Close(frame.szWhy);
    if (frame.eState != EFrame::Whole)
        return 0;
    const auto whole = std::span<const BYTE>(m_in).first(frame.nLen);
    const SRegisterRequest request = ParseRegister(whole);
    m_services.trace.Received(m_strName, whole, [&] {
        return fmt::format("register, identifier {:02X}, host {}, login flag {}", fmt::join(request.id, ""),
                           ShowUtf8(request.strHost), request.bLogin);
    });
    Register(request, whole);
    return frame.nLen;
}

void CSession::Open(const SOpenRequest& request)
{
    if (m_services.project.server.eRefuse == ERefuse::Open)
        return Dismiss(EncodeRefusal(), "refused: the project refuses open requests");
    if (m_bRelay) {
        const SRelayDef* pServer = m_relay.Find(request.strServer);
        if (!pServer)
            return Dismiss(EncodeRefusal(),
                           "refused: no server " + ShowUtf8(request.strServer) + " behind this relay centre");
        if (pServer->bRedirect) {
            const auto [address, nPort] = m_relay.RedirectOf(*pServer, m_pChannel->Socket());
            return Dismiss(EncodeRedirect(address, nPort), "redirected to its own network");
        }
        if (!pServer->strHost.empty()) {
            m_eState = EState::Piped;
            m_timer.cancel();
            m_pPipe = m_relay.Pipe(*pServer, request.id, m_pChannel, EncodeOpen(request.id));
            return;
        }
    }
    m_pClient = std::make_shared<CClient>();
    m_pClient->id = request.id;
    m_pClient->strName = m_strName;
    m_pClient->pRequest = m_pChannel;
    m_eState = EState::Waiting;
    m_timer.expires_after(TURN_TIME);
    m_timer.async_wait([this, pClient = std::weak_ptr(m_pClient)](const asio::error_code& error) {
        if (const auto pSame = error ? nullptr : pClient.lock())
            m_services.clients.StopWaiting(pSame);
    });
    m_services.clients.Open(m_pClient, [this] { Go(); });
}

void CSession::Go()
{
    m_timer.cancel();
    m_eState = EState::Requests;
    m_conversation.emplace(m_services, *m_pChannel, *m_pClient);
    spdlog::info("{}: open", m_strName);
    Send(EncodeOpened(), "open");
}

void CSession::Register(const SRegisterRequest& request, std::span<const BYTE> whole)
{
    if (m_services.project.server.eRefuse == ERefuse::Register)
        return Dismiss(EncodeRegisterRefusal(), "refused: the project refuses register requests");
    if (const SRelayDef* pServer = m_bRelay ? m_relay.FindPiped(request.id) : nullptr) {
        m_eState = EState::Piped;
        m_timer.cancel();
        m_pPipe = m_relay.Pipe(*pServer, request.id, m_pChannel, Bytes(whole.begin(), whole.end()));
        return;
    }
    m_pClient = m_services.clients.Register(request.id);
    if (!m_pClient)
        return Dismiss(EncodeRegisterRefusal(), "refused: it has no open request connection");
    m_timer.cancel();
    m_eState = EState::Receive;
    m_pClient->pReceive = m_pChannel;
    m_services.notifier.Add(*m_pClient);
    spdlog::info("{}: receive connection of {}, host {}", m_strName, m_pClient->strName,
                 ShowUtf8(request.strHost));
    m_strName = m_pClient->strName + " push";
    const SRegisterReply reply = MakeRegisterReply();
    Send(EncodeRegistered(reply), fmt::format("registered, project {}, driver directory of {} bytes, time {}",
                                              Show(reply.strProject), reply.difSize, reply.difTime));
}

SRegisterReply CSession::MakeRegisterReply() const
{
    const SServedFile& directory = m_services.files.Directory();
    SRegisterReply reply;
    reply.bFlag = m_services.project.server.bRegisterFlag;
    reply.difTime = directory.tTime;
    reply.difSize = static_cast<DWORD>(directory.Body().size());
    reply.strProject = m_services.project.strName;
    reply.strTitle = m_services.project.strTitle;
    return reply;
}

void CSession::Dismiss(const Bytes& bytes, const std::string& strWhy)
{
    m_eState = EState::Dismissed;
    spdlog::info("{}: {}", m_strName, strWhy);
    Send(bytes, strWhy);
    CloseAfter(LEAVING_TIME, "it did not leave");
}

void CSession::Send(const Bytes& bytes, const std::string& strMeaning)
{
    m_services.trace.Sent(m_strName, bytes, [&] { return strMeaning; });
    m_pChannel->Send(bytes);
}
