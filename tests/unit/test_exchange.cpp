// Requests and their replies: what is sent, and that no reply is ever taken for that to another request.
#include "peer.h"

#include "disturbed_call.h"

namespace {

TEST(ReqSend, OfNothingSendsNothing)
{
    SRequests requests;
    EXPECT_EQ(requests.client.ReqSend("x", 0), 0);
    EXPECT_EQ(requests.client.ReqSend("x", -5), -5);
    EXPECT_EQ(requests.client.ReqSend("ab", 2), 2);
    requests.client.StopSock();
    Want(requests.server, "ab");
    WantEnd(requests.server);
    EXPECT_EQ(requests.client.ReqSend("ab", 2), -1);
}

TEST(ReqSend, StampsTheTimeOfTheLastRequest)
{
    SRequests requests;
    requests.client.m_reqSock.m_lastReqTime = 0;
    const time_t tBegin = std::time(nullptr);
    EXPECT_EQ(requests.client.ReqSend("ab", 2), 2);
    EXPECT_GE(requests.client.m_reqSock.m_lastReqTime, tBegin);
}

/// Bytes of which no stretch repeats another.
std::string Unmistakable(size_t nLen)
{
    std::string bytes;
    bytes.reserve(nLen + 8);
    for (uint32_t i = 0; bytes.size() < nLen; ++i)
        bytes.append(reinterpret_cast<const char*>(&i), sizeof i);
    bytes.resize(nLen);
    return bytes;
}

TEST(ReqSend, RepeatsTheWholeMessageAfterASendThatTookAPart)
{
    SRequests requests;
    ASSERT_TRUE(requests.client.m_reqSock.SetTimeOut(1000));
    const std::string message = Unmistakable(16 << 20);
    std::string got;
    std::thread reader([&] {
        for (int i = 0; i < 3000 && !requests.client.m_reqSock.HasTimedOut(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5)); // the first send gets a part away
        std::vector<char> part(65536);
        for (int n = 1; n > 0; got.append(part.data(), static_cast<size_t>(std::max(n, 0))))
            n = requests.server._Recv(part.data(), static_cast<int>(part.size()));
    });
    EXPECT_EQ(requests.client.ReqSend(message.data(), static_cast<int>(message.size())),
              static_cast<int>(message.size()));
    requests.client.StopSock();
    reader.join();
    ASSERT_GT(got.size(), message.size());
    const size_t nPart = got.size() - message.size();
    ASSERT_LT(nPart, message.size());
    EXPECT_TRUE(got == message.substr(0, nPart) + message)
        << "a part of " << nPart << " bytes, then all of it";
}

TEST(ReqSend, GivesTheFailingSendsResult)
{
    SRequests requests;
    requests.server.Close();
    int nSent = 1;
    for (int i = 0; i < 200 && nSent == 1; ++i) { // the reset takes a moment
        nSent = requests.client.ReqSend("x", 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(nSent, -1);
}

TEST(ReqRecvAll, ReadsALengthOrFails)
{
    SRequests requests;
    std::array<char, 8> buf{};
    EXPECT_TRUE(requests.client.ReqRecvAll(buf.data(), 0));
    EXPECT_FALSE(requests.client.ReqRecvAll(buf.data(), -1));
    std::thread server([&] {
        Send(requests.server, "abc");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        Send(requests.server, "defg");
        requests.server.ShutDown();
    });
    EXPECT_TRUE(requests.client.ReqRecvAll(buf.data(), 5));
    EXPECT_EQ(std::string_view(buf.data(), 5), "abcde");
    EXPECT_FALSE(requests.client.ReqRecvAll(buf.data(), 3)) << "only two bytes are left";
    server.join();
}

TEST(Exchange, ThrowsAwayWhatCameUnasked)
{
    SRequests requests;
    Send(requests.server, std::string(5000, 'x'));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    {
        CExchange exchange(requests.client);
        exchange.Succeed();
    }
    Send(requests.server, "answer");
    std::array<char, 6> buf{};
    EXPECT_TRUE(requests.client.ReqRecvAll(buf.data(), 6));
    EXPECT_EQ(std::string_view(buf.data(), 6), "answer");
}

TEST(Exchange, ThrowsAwayASurplusOfTheReplyBefore)
{
    SRequests requests;
    std::array<char, 6> buf{};
    {
        CExchange exchange(requests.client);
        Send(requests.server, "answer and more");
        EXPECT_TRUE(requests.client.ReqRecvAll(buf.data(), 6));
        exchange.Succeed();
    }
    {
        CExchange exchange(requests.client);
        EXPECT_EQ(requests.client.ReqSend("ask", 3), 3);
        Want(requests.server, "ask");
        Send(requests.server, "second");
        EXPECT_TRUE(requests.client.ReqRecvAll(buf.data(), 6));
        exchange.Succeed();
    }
    EXPECT_EQ(std::string_view(buf.data(), 6), "second");
}

/// Begins an exchange behind an unclean one and lets a byte come in while it waits for late ones. Says
/// whether it surely came in time: a busy machine may be late itself.
bool LateByteComesInTime(SRequests& requests)
{
    const auto begin = std::chrono::steady_clock::now();
    {
        const CExchange unclean(requests.client);
    }
    std::thread next([&] {
        CExchange exchange(requests.client);
        exchange.Succeed();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    Send(requests.server, "l");
    const bool bInTime = std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(50);
    next.join();
    return bInTime;
}

TEST(Exchange, WaitsOutTheRestOfOneThatEndedUnclean)
{
    SRequests requests;
    std::array<char, 3> buf{};
    for (int i = 0; i < 50 && !LateByteComesInTime(requests); ++i)
        ASSERT_LT(i, 49) << "no exchange has waited";
    Send(requests.server, "new");
    EXPECT_TRUE(requests.client.ReqRecvAll(buf.data(), 3));
    EXPECT_EQ(std::string_view(buf.data(), 3), "new");
}

TEST(Exchange, SignalsDoNotCutThatWaitShort)
{
    SRequests requests;
    bool bDisturbed = false;
    for (int i = 0; i < 20 && !bDisturbed; ++i) { // on a busy machine the signal may come too late
        {
            const CExchange unclean(requests.client);
        }
        std::chrono::steady_clock::duration took{};
        CDisturbedCall call([&] {
            const auto begin = std::chrono::steady_clock::now();
            {
                CExchange exchange(requests.client);
                exchange.Succeed();
            }
            took = std::chrono::steady_clock::now() - begin;
        });
        bDisturbed = call.Disturb(1);
        call.Join();
        ASSERT_GE(took, std::chrono::milliseconds(49)) << "ended by a signal";
    }
    EXPECT_TRUE(bDisturbed);
}

TEST(Exchange, BehindACleanOneWaitsForNothing)
{
    SRequests requests;
    int nWaited = 0;
    for (int i = 0; i < 50; ++i) {
        const auto begin = std::chrono::steady_clock::now();
        CExchange exchange(requests.client);
        exchange.Succeed();
        nWaited += std::chrono::steady_clock::now() - begin >= std::chrono::milliseconds(50);
    }
    EXPECT_LT(nWaited, 50);
}

TEST(Exchange, OnAConnectionThatThePeerHasClosedFailsAtOnce)
{
    SRequests requests;
    Send(requests.server, "stray");
    requests.server.Close();
    std::array<char, 1> buf{};
    {
        const CExchange exchange(requests.client);
        requests.client.ReqSend("ask", 3); // the first send may still be taken
        EXPECT_FALSE(requests.client.ReqRecvAll(buf.data(), 1));
    }
    EXPECT_FALSE(requests.client.m_reqSock.HasTimedOut());
    const CExchange exchange(requests.client);
    EXPECT_EQ(requests.client.ReqSend("ask", 3), -1);
}

TEST(Exchange, WithoutAConnectionFailsAndWaitsForNothing)
{
    CClientSock client;
    {
        const CExchange unclean(client);
        EXPECT_EQ(client.ReqSend("ask", 3), -1);
    }
    const CExchange exchange(client);
    std::array<char, 1> buf{};
    EXPECT_FALSE(client.ReqRecvAll(buf.data(), 1));
}

TEST(Exchange, EndsTheConnectionAfterATimeOut)
{
    SRequests requests;
    {
        const CExchange exchange(requests.client);
        char ch = 0;
        EXPECT_FALSE(requests.client.ReqRecvAll(&ch, 1));
    }
    EXPECT_FALSE(requests.client.m_reqSock.IsSocket());
    WantEnd(requests.server);
}

TEST(Exchange, EndsTheConnectionWhenARequestCannotBeSentInTime)
{
    SRequests requests;
    const std::string big(16 << 20, 'x');
    {
        const CExchange exchange(requests.client);
        EXPECT_LT(requests.client.m_reqSock._Send(big.data(), static_cast<int>(big.size())),
                  static_cast<int>(big.size()));
    }
    EXPECT_FALSE(requests.client.m_reqSock.IsSocket());
}

TEST(Exchange, ForgetsATimeOutWithItsConnection)
{
    SRequests requests;
    {
        const CExchange exchange(requests.client);
        std::array<char, 1> buf{};
        EXPECT_FALSE(requests.client.ReqRecvAll(buf.data(), 1));
    }
    CLoopback listener;
    ASSERT_TRUE(requests.client.m_reqSock.Create());
    ASSERT_TRUE(requests.client.m_reqSock._Connect("127.0.0.1", listener.Port()));
    {
        CExchange exchange(requests.client);
        exchange.Succeed();
    }
    EXPECT_TRUE(requests.client.m_reqSock.IsSocket());
}

TEST(Exchange, EndsTheConnectionOfAPeerThatNeverStopsTalking)
{
    SRequests requests;
    requests.server.SetTimeOut(5000);
    std::thread talker([&] {
        const std::string noise(65536, 'x');
        while (requests.server.SendAll(noise.data(), static_cast<int>(noise.size()))) {
        }
    });
    for (int i = 0; i < 500 && requests.client.m_reqSock.IsSocket(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10)); // the talker may have to begin yet
        CExchange exchange(requests.client);
        exchange.Succeed();
    }
    EXPECT_FALSE(requests.client.m_reqSock.IsSocket());
    requests.client.StopSock();
    talker.join();
}

TEST(Exchange, EndsTheConnectionOfAPeerThatTricklesWithoutEnd)
{
    SRequests requests;
    requests.server.SetTimeOut(5000);
    std::atomic<bool> bStop{false};
    std::thread talker([&] { // never silent for as long as an exchange waits
        while (!bStop && requests.server._Send("x", 1) == 1)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    });
    const auto begin = std::chrono::steady_clock::now();
    while (requests.client.m_reqSock.IsSocket() &&
           std::chrono::steady_clock::now() - begin < std::chrono::seconds(30)) {
        const CExchange exchange(requests.client);
    }
    EXPECT_FALSE(requests.client.m_reqSock.IsSocket());
    bStop = true;
    talker.join();
}

TEST(StopSock, MayRunOnSeveralThreadsAtOnce)
{
    for (int i = 0; i < 200; ++i) {
        SRequests requests;
        requests.client.m_reqSock.m_nCenterIp = 1;
        std::thread other([&] { requests.client.StopSock(); });
        requests.client.StopSock();
        other.join();
        EXPECT_FALSE(requests.client.m_reqSock.IsSocket());
        EXPECT_EQ(requests.client.m_reqSock.m_nCenterIp, 0U);
        WantEnd(requests.server);
    }
}

} // namespace
