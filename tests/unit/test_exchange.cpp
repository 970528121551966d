// Requests and their replies: what is sent, and that no reply is ever taken for that to another request.
#include "peer.h"

#include "WaitHook.h"

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

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

/// Neither connection of the client is left.
void WantEnded(SRequests& requests)
{
    EXPECT_FALSE(requests.client.m_reqSock.IsSocket());
    EXPECT_FALSE(requests.client.m_rcvSock.IsSocket());
}

TEST(Exchange, OfAWholeReplyLeavesTheConnectionOpen)
{
    SRequests requests;
    for (const char* szReply : {"first", "later"}) {
        CExchange exchange(requests.client);
        ASSERT_TRUE(exchange.IsOpen());
        EXPECT_EQ(requests.client.ReqSend("ask", 3), 3);
        Want(requests.server, "ask");
        Send(requests.server, szReply);
        std::array<char, 5> buf{};
        EXPECT_TRUE(requests.client.ReqRecvAll(buf.data(), 5));
        EXPECT_EQ(std::string_view(buf.data(), 5), szReply);
        exchange.Succeed();
    }
    EXPECT_TRUE(requests.client.m_reqSock.IsSocket());
}

TEST(Exchange, EndsTheConnectionWhenSomethingCameUnasked)
{
    SRequests requests;
    CLoopback listener;
    CSyncSocket pushed;
    ASSERT_TRUE(requests.client.m_rcvSock.Create());
    ASSERT_TRUE(requests.client.m_rcvSock._Connect("127.0.0.1", listener.Port()));
    listener.Accept(pushed);
    Send(requests.server, "x");
    while (requests.client.m_reqSock.IsQuiet())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    {
        const CExchange exchange(requests.client);
        EXPECT_FALSE(exchange.IsOpen());
    }
    WantEnded(requests);
    WantEnd(pushed);
}

TEST(Exchange, EndsTheConnectionWhenAReplyHadASurplus)
{
    SRequests requests;
    {
        CExchange exchange(requests.client);
        Send(requests.server, "answer and more");
        std::array<char, 6> buf{};
        EXPECT_TRUE(requests.client.ReqRecvAll(buf.data(), 6));
        exchange.Succeed();
    }
    EXPECT_TRUE(requests.client.m_reqSock.IsSocket()) << "that reply was whole";
    const CExchange exchange(requests.client);
    EXPECT_FALSE(exchange.IsOpen());
}

TEST(Exchange, TakesTheTailOfAReplyThatHasNoKnownEnd)
{
    SRequests requests;
    for (const bool bTooMuch : {false, true}) {
        {
            CExchange exchange(requests.client);
            ASSERT_TRUE(exchange.IsOpen());
            exchange.Succeed(4);
        }
        Send(requests.server, bTooMuch ? "tail!" : "tail");
        while (requests.client.m_reqSock.IsQuiet())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // five bytes may come as two pieces
        CExchange exchange(requests.client);
        EXPECT_EQ(exchange.IsOpen(), !bTooMuch);
        exchange.Succeed();
    }
}

TEST(Exchange, ThatDidNotReadItsReplyEndsTheConnection)
{
    SRequests requests;
    {
        const CExchange exchange(requests.client);
        EXPECT_EQ(requests.client.ReqSend("ask", 3), 3);
    }
    WantEnded(requests);
    Want(requests.server, "ask");
    WantEnd(requests.server);
}

TEST(Exchange, OnAConnectionThatThePeerHasClosedIsNotOpen)
{
    SRequests requests;
    requests.server.Close();
    while (requests.client.m_reqSock.IsQuiet())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    {
        const CExchange exchange(requests.client);
        EXPECT_FALSE(exchange.IsOpen());
    }
    WantEnded(requests);
}

TEST(Exchange, WithoutAConnectionIsNotOpen)
{
    CClientSock client;
    const CExchange exchange(client);
    EXPECT_FALSE(exchange.IsOpen());
}

TEST(Exchange, EndsTheConnectionAfterATimeOut)
{
    SRequests requests;
    requests.client.m_reqSock.SetTimeOut(200);
    {
        const CExchange exchange(requests.client);
        char ch = 0;
        EXPECT_FALSE(requests.client.ReqRecvAll(&ch, 1));
    }
    WantEnded(requests);
    WantEnd(requests.server);
}

TEST(Exchange, EndsTheConnectionWhenARequestCannotBeSentInTime)
{
    SRequests requests;
    requests.client.m_reqSock.SetTimeOut(200);
    const std::string big(16 << 20, 'x');
    {
        const CExchange exchange(requests.client);
        EXPECT_LT(requests.client.m_reqSock._Send(big.data(), static_cast<int>(big.size())),
                  static_cast<int>(big.size()));
    }
    WantEnded(requests);
}

/// A peer that sends a byte again and again, each in less than a time-out, for as long as the client lives.
class CTrickle
{
public:
    explicit CTrickle(CSyncSocket& sock)
        : m_thread([this, &sock] {
              while (!m_bStop && sock._Send("x", 1) == 1)
                  std::this_thread::sleep_for(std::chrono::milliseconds(20));
          })
    {
    }
    ~CTrickle()
    {
        m_bStop = true;
        m_thread.join();
    }
    CTrickle(const CTrickle&) = delete;
    CTrickle& operator=(const CTrickle&) = delete;

private:
    std::atomic<bool> m_bStop{false};
    std::thread m_thread;
};

TEST(Exchange, AWholeReplyHasToComeWithinTwiceTheTimeOut)
{
    SRequests requests;
    requests.client.m_reqSock.SetTimeOut(200);
    const auto begin = std::chrono::steady_clock::now();
    std::vector<char> buf(100'000);
    std::optional<CTrickle> trickle;
    {
        const CExchange exchange(requests.client);
        ASSERT_TRUE(exchange.IsOpen());
        trickle.emplace(requests.server);
        EXPECT_FALSE(requests.client.ReqRecvAll(buf.data(), static_cast<int>(buf.size())));
    }
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(400)) << "it was to go on while bytes come";
    EXPECT_LT(took, std::chrono::seconds(20));
    WantEnded(requests);
}

TEST(Exchange, APeerThatNeverPausesIsBoundToo)
{
    SRequests requests;
    requests.client.m_reqSock.SetTimeOut(200);
    requests.server.SetTimeOut(5000);
    std::optional<std::thread> talker;
    {
        const CExchange exchange(requests.client);
        ASSERT_TRUE(exchange.IsOpen());
        talker.emplace([&] {
            const std::string noise(65536, 'x');
            while (requests.server.SendAll(noise.data(), static_cast<int>(noise.size()))) {
            }
        });
        std::array<char, 1024> buf{};
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (requests.client.ReqRecvAll(buf.data(), buf.size()))
            ASSERT_LT(std::chrono::steady_clock::now(), until);
    }
    WantEnded(requests);
    talker->join();
}

/// The hook that this thread's waits ask: what it says, and how often it was asked.
std::atomic<int> g_nAsked{0};
std::atomic<bool> g_bGoOn{true};

bool Ask()
{
    ++g_nAsked;
    return g_bGoOn;
}

TEST(Exchange, AWaitAsksItsHookAndEndsWhenThatSaysSo)
{
    SRequests requests;
    requests.client.m_reqSock.SetTimeOut(30'000);
    g_nAsked = 0;
    g_bGoOn = true;
    const CWaitHookScope scope({Ask, nullptr});
    std::thread ender([] {
        while (g_nAsked < 3)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        g_bGoOn = false;
    });
    const auto begin = std::chrono::steady_clock::now();
    {
        const CExchange exchange(requests.client);
        char ch = 0;
        EXPECT_FALSE(requests.client.ReqRecvAll(&ch, 1));
    }
    ender.join();
    EXPECT_GE(g_nAsked, 4);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
    WantEnded(requests);
}

TEST(Exchange, ASecondOneOfTheSameThreadIsNotOpenAndHarmsNothing)
{
    SRequests requests;
    CExchange exchange(requests.client);
    EXPECT_TRUE(requests.client.IsExchanging());
    {
        const CExchange handler(requests.client);
        EXPECT_FALSE(handler.IsOpen());
    }
    EXPECT_TRUE(requests.client.IsExchanging());
    Send(requests.server, "answer");
    std::array<char, 6> buf{};
    EXPECT_TRUE(requests.client.ReqRecvAll(buf.data(), 6));
    exchange.Succeed();
}

TEST(Exchange, AnotherThreadWaitsForTheEndOfTheOneUnderWay)
{
    SRequests requests;
    std::atomic<bool> bSecond{false};
    auto first = std::make_unique<CExchange>(requests.client);
    std::thread other([&] {
        const CWaitHookScope scope(
            {nullptr, [] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }});
        CExchange exchange(requests.client);
        EXPECT_TRUE(exchange.IsOpen());
        exchange.Succeed();
        bSecond = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(bSecond);
    first->Succeed();
    first.reset();
    other.join();
    EXPECT_TRUE(bSecond);
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
