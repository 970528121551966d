// The request connection of one client, once it is open: takes bytes, answers requests one after the other.
//
// A request is not looked at before the reply to the one before has gone out, so a client that does not read
// its replies stalls itself and nobody else.
#pragma once

#include "Notifier.h"
#include "Transfer.h"

/// What the connections of all clients work on. Everything outlives every connection.
struct SServices
{
    const SProject& project;
    CPlant& plant;
    const CFileStore& files;
    CClients& clients;
    CNotifier& notifier;
    const CTrace& trace;
    std::function<SInstant()> fnNow;
};

class CConversation
{
public:
    CConversation(const SServices& services, CChannel& channel, CClient& client);

    /// Answers what the bytes hold, and returns how many of them it is done with. Called again with the rest
    /// and more, and when the channel has drained.
    size_t Process(std::span<const BYTE> bytes);

private:
    size_t ProcessOne(std::span<const BYTE> bytes);
    size_t ProcessAck(std::span<const BYTE> bytes);
    void ContinueTransfer();
    void Handle(const Request& request);

    void On(const SPathsRequest&);
    void On(const SDownloadRequest& request);
    void On(const SLoginRequest& request);
    void On(const SLookupRequest& request);
    void On(const SReleaseRequest&);
    void On(const SReadRequest& request);
    void On(const SAdviseRequest& request);
    void On(const SWriteRequest& request);
    void On(const SAlarmsRequest&);

    std::vector<const XVariant*> Values(const std::vector<STagRef>& tags) const;
    void ReplyBlock(const Bytes& block, size_t nHead);
    void Reply(const Bytes& bytes, const CTrace::FnMeaning& fnMeaning, size_t nWhole = CChannel::WHOLE);

    const SServices& m_services;
    CChannel& m_channel;
    CClient& m_client;
    std::optional<CTransfer> m_transfer;
    bool m_bLookedUp = false; // the request before was a look-up, which may go on
};
