// See Conversation.h.
#include "Conversation.h"

#include "Log.h"
#include "Replies.h"

namespace {

constexpr size_t TRANSFER_PIECE = 64 << 10;

/// Null for a write that was done.
const char* WhyIgnored(EWrite eWrite)
{
    switch (eWrite) {
    case EWrite::Done:
        return nullptr;
    case EWrite::NoSuchTag:
        return "no such tag";
    case EWrite::Constant:
        return "it is constant";
    case EWrite::NoValue:
        break;
    }
    return "no value";
}

} // namespace

CConversation::CConversation(const SServices& services, CChannel& channel, CClient& client)
    : m_services(services), m_channel(channel), m_client(client)
{
}

size_t CConversation::Process(std::span<const BYTE> bytes)
{
    size_t nDone = 0;
    while (!m_channel.IsClosed() && m_channel.IsDrained()) {
        const auto rest = bytes.subspan(nDone);
        if (m_transfer && !m_transfer->AwaitsAck()) {
            ContinueTransfer();
            continue;
        }
        if (rest.empty())
            break;
        const size_t nOne = m_transfer ? ProcessAck(rest) : ProcessOne(rest);
        if (nOne == 0)
            break;
        nDone += nOne;
    }
    return nDone;
}

size_t CConversation::ProcessOne(std::span<const BYTE> bytes)
{
    const SFrame frame =
        FrameRequest(bytes, m_bLookedUp, [this](WORD n) { return m_services.plant.HasDriver(n); });
    if (frame.eState == EFrame::Bad) {
        m_services.trace.Received(m_client.strName, bytes, [&] { return std::string(frame.szWhy); });
        m_channel.Close(frame.szWhy);
    }
    if (frame.eState != EFrame::Whole)
        return 0;
    const auto whole = bytes.first(frame.nLen);
    const Request request = ParseRequest(whole, m_bLookedUp);
    m_services.trace.Received(m_client.strName, whole, [&] { return Describe(m_services.plant, request); });
    m_bLookedUp = std::holds_alternative<SLookupRequest>(request);
    if (m_services.project.server.nReplyDelayMs > 0)
        m_channel.Hold(std::chrono::milliseconds(m_services.project.server.nReplyDelayMs));
    Handle(request);
    return frame.nLen;
}

void CConversation::Handle(const Request& request)
{
    // The project paths are asked for before the login.
    const bool bFree =
        std::holds_alternative<SLoginRequest>(request) || std::holds_alternative<SPathsRequest>(request);
    if (m_client.bLoggedIn || bFree) {
        std::visit([this](const auto& one) { On(one); }, request);
        return;
    }
    spdlog::warn("{}: a request before the login is refused", m_client.strName);
    if (!std::holds_alternative<SWriteRequest>(request)) // which has no reply
        Reply(EncodeRefusal(), [] { return std::string("refused: no login"); });
}

void CConversation::Reply(const Bytes& bytes, const CTrace::FnMeaning& fnMeaning, size_t nWhole)
{
    m_services.trace.Sent(m_client.strName, bytes, fnMeaning);
    m_channel.Send(bytes, nWhole);
}

void CConversation::On(const SPathsRequest&)
{
    Reply(EncodePaths(m_services.project.paths), [] { return std::string("project paths"); });
}

void CConversation::On(const SLoginRequest& request)
{
    const auto& users = m_services.project.users;
    m_client.bLoggedIn = users.empty();
    m_client.nRights = users.empty() ? ~DWORD{0} : 0;
    for (const SUser& user : users) {
        if (user.strName == request.strUser && user.strPassword == request.strPassword) {
            m_client.bLoggedIn = true;
            m_client.nRights = user.nRights;
        }
    }
    const std::string strUser = ShowUtf8(request.strUser);
    if (!m_client.bLoggedIn) {
        spdlog::info("{}: login of {} refused", m_client.strName, strUser);
        Reply(EncodeRefusal(), [] { return std::string("refused"); });
        return;
    }
    spdlog::info("{}: logged in as {}, rights 0x{:02X}", m_client.strName, strUser, m_client.nRights);
    Reply(EncodeLogin(m_client.nRights),
          [this] { return fmt::format("accepted, rights 0x{:02X}", m_client.nRights); });
}

void CConversation::On(const SLookupRequest& request)
{
    std::vector<WORD> positions;
    positions.reserve(request.names.size());
    for (const auto& [nDriver, strName] : request.names)
        positions.push_back(m_services.plant.FindTag(nDriver, strName).value_or(NO_POSITION));
    Reply(EncodePositions(positions, request.bContinued),
          [&] { return fmt::format("positions {}", fmt::join(positions, ", ")); });
}

void CConversation::On(const SReleaseRequest&)
{
    Reply(EncodeReleased(), [] { return std::string("released"); });
}

std::vector<const XVariant*> CConversation::Values(const std::vector<STagRef>& tags) const
{
    std::vector<const XVariant*> values;
    values.reserve(tags.size());
    for (const STagRef tag : tags)
        values.push_back(m_services.plant.Value(tag));
    return values;
}

void CConversation::On(const SReadRequest& request)
{
    for (const Bytes& block : EncodeRead(Values(request.tags), m_services.project.server.nBlockSize))
        ReplyBlock(block, READ_BLOCK_HEAD);
}

void CConversation::ReplyBlock(const Bytes& block, size_t nHead)
{
    Reply(
        block, [&] { return DescribeValues(std::span<const BYTE>(block).subspan(nHead)); }, nHead);
}

void CConversation::On(const SAdviseRequest& request)
{
    for (const Bytes& block : EncodeAdvised(Values(request.tags), m_services.project.server.nBlockSize))
        ReplyBlock(block, ADVISE_BLOCK_HEAD);
    for (const STagRef tag : request.tags)
        m_services.notifier.Subscribe(m_client, tag);
    // A change says nothing of its type. It must not overtake the reply, which does, on the other connection.
    if (m_client.pReceive)
        m_client.pReceive->Hold(std::chrono::milliseconds(m_services.project.server.nSubscribeHoldMs));
}

void CConversation::On(const SWriteRequest& request)
{
    if (!(m_client.nRights & SUser::RIGHT_WRITE)) {
        spdlog::warn("{}: a write without the right to write is ignored", m_client.strName);
        return;
    }
    const SInstant now = m_services.fnNow();
    for (const SWriteRequest::SValue& one : request.values)
        if (const char* szWhy = WhyIgnored(m_services.plant.Write(one.tag, one.value, now)))
            spdlog::warn("{}: write to {} ignored: {}", m_client.strName, ShowTag(m_services.plant, one.tag),
                         szWhy);
}

void CConversation::On(const SAlarmsRequest&)
{
    const auto& active = m_services.plant.Alarms().Active();
    m_services.notifier.SubscribeAlarms(m_client);
    Reply(
        EncodeAlarms(active), [&] { return fmt::format("{} active alarms", active.size()); }, ALARMS_HEAD);
}

void CConversation::On(const SDownloadRequest& request)
{
    m_transfer.emplace(request, m_services.files.Find(request.strName));
    const Bytes header = EncodeFileHeader(m_transfer->Header());
    m_services.trace.Sent(m_client.strName, header, [this] { return Describe(m_transfer->Header()); });
    m_channel.Send(m_transfer->Next(TRANSFER_PIECE), header.size());
    if (m_transfer->IsDone())
        m_transfer.reset();
}

void CConversation::ContinueTransfer()
{
    m_channel.Send(m_transfer->Next(TRANSFER_PIECE), 0);
    if (m_transfer->IsDone())
        m_transfer.reset();
}

size_t CConversation::ProcessAck(std::span<const BYTE> bytes)
{
    const SFrame frame = m_transfer->TakeAck(bytes);
    if (frame.eState == EFrame::Bad) {
        m_services.trace.Received(m_client.strName, bytes, [&] { return std::string(frame.szWhy); });
        m_channel.Close(frame.szWhy);
        return 0;
    }
    if (frame.eState == EFrame::Whole)
        m_services.trace.Received(m_client.strName, bytes.first(frame.nLen),
                                  [] { return std::string("window received"); });
    return frame.nLen;
}
