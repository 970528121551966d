// Sockets beside signals and beside other threads: calls that are resumed, time-outs that hold, descriptors
// that are closed once.
#include "SyncSocket.h"

#include "disturbed_call.h"
#include "loopback.h"

#include <array>
#include <fcntl.h>
#include <optional>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int TIME_OUT = 400; // ms
const std::string BIG(8 << 20, 'x');

/// How long a call takes that signals interrupt until it returns.
Clock::duration Disturbed(const std::function<void()>& fnCall)
{
    const auto begin = Clock::now();
    auto end = begin;
    CDisturbedCall call([&] {
        fnCall();
        end = Clock::now();
    });
    while (call.Disturb(10) && Clock::now() - begin < seconds(20)) {
    }
    call.Join();
    return end - begin;
}

/// Ten times as long as it may: far from what a busy machine adds, and each signal that began the wait anew
/// would make it endless.
void ExpectTimeOut(Clock::duration took)
{
    EXPECT_GE(took, milliseconds(TIME_OUT - 10));
    EXPECT_LT(took, milliseconds(10 * TIME_OUT)) << "each signal began the wait anew";
}

/// A listener whose backlog is full: whoever connects now waits for an answer.
struct SSilentHost
{
    SSilentHost()
    {
        EXPECT_TRUE(listener.Create(0, SOCK_STREAM, "127.0.0.1", 1));
        EXPECT_TRUE(listener.Listen(0));
        sockaddr_in addr{};
        socklen_t nLen = sizeof addr;
        ::getsockname(listener.GetHandle(), reinterpret_cast<sockaddr*>(&addr), &nLen);
        nPort = ntohs(addr.sin_port);
        for (CSyncSocket& filler : fillers) {
            EXPECT_TRUE(filler.Create());
            filler.SetConnectTimeOut(100);
            if (!filler._Connect("127.0.0.1", nPort))
                return;
        }
        ADD_FAILURE() << "the backlog does not fill";
    }
    CSyncSocket listener;
    std::array<CSyncSocket, 16> fillers;
    UINT nPort = 0;
};

TEST(Signals, DoNotEndAReceiveNorStretchItsTimeOut)
{
    SPair pair;
    ASSERT_TRUE(pair.client.SetTimeOut(10000));
    std::array<char, 4> buf{};
    bool bDone = false;
    CDisturbedCall whole([&] { bDone = pair.client.RecvAll(buf.data(), 4); });
    EXPECT_TRUE(whole.Disturb(10));
    Send(pair.server, "ab");
    EXPECT_TRUE(whole.Disturb(10));
    Send(pair.server, "cd");
    whole.Join();
    EXPECT_TRUE(bDone);

    ASSERT_TRUE(pair.client.SetTimeOut(TIME_OUT));
    int nResult = 0;
    ExpectTimeOut(Disturbed([&] { nResult = pair.client._Recv(buf.data(), 4); }));
    EXPECT_EQ(nResult, -1);
    EXPECT_TRUE(pair.client.HasTimedOut());
}

TEST(Signals, DoNotStretchAWholeReceive)
{
    SPair pair;
    ASSERT_TRUE(pair.client.SetTimeOut(TIME_OUT));
    Send(pair.server, "abc");
    std::array<char, 4> buf{};
    bool bDone = true;
    ExpectTimeOut(Disturbed([&] { bDone = pair.client.RecvAll(buf.data(), 4); }));
    EXPECT_FALSE(bDone);
    EXPECT_TRUE(pair.client.HasTimedOut());
}

TEST(Signals, DoNotEndAWaitingReceiveNorStretchIt)
{
    SPair pair;
    char ch = 0;
    int nResult = 0;
    ExpectTimeOut(Disturbed([&] { nResult = pair.client.RecvTimeOut(&ch, 1, TIME_OUT); }));
    EXPECT_EQ(nResult, CSyncSocket::RECV_EXPIRED);
    EXPECT_FALSE(pair.client.HasTimedOut()) << "the connection's own time-out has not passed";

    CDisturbedCall call([&] { nResult = pair.client.RecvTimeOut(&ch, 1, 10000); });
    EXPECT_TRUE(call.Disturb(10));
    Send(pair.server, "x");
    call.Join();
    EXPECT_EQ(nResult, 1);
}

TEST(Signals, DoNotCutASendShort)
{
    SPair pair;
    int nSent = 0;
    CDisturbedCall call([&] { nSent = pair.client._Send(BIG.data(), static_cast<int>(BIG.size())); });
    EXPECT_TRUE(call.Disturb(10)) << "the buffers must be full while the peer does not read";
    std::string got(BIG.size(), '\0');
    EXPECT_TRUE(pair.server.RecvAll(got.data(), static_cast<int>(got.size())));
    call.Join();
    EXPECT_EQ(nSent, static_cast<int>(BIG.size()));
    EXPECT_TRUE(got == BIG);
}

TEST(Signals, DoNotStretchTheTimeOutOfASend)
{
    SPair pair;
    ASSERT_TRUE(pair.client.SetTimeOut(TIME_OUT));
    int nSent = 0;
    ExpectTimeOut(Disturbed([&] { nSent = pair.client._Send(BIG.data(), static_cast<int>(BIG.size())); }));
    EXPECT_GT(nSent, 0) << "what went into the buffers";
    EXPECT_LT(nSent, static_cast<int>(BIG.size()));
    EXPECT_TRUE(pair.client.HasTimedOut());

    bool bDone = true;
    ExpectTimeOut(Disturbed([&] { bDone = pair.client.SendAll(BIG.data(), static_cast<int>(BIG.size())); }));
    EXPECT_FALSE(bDone);
    ExpectTimeOut(Disturbed([&] { bDone = pair.client.SendTimeOut("x", 1, TIME_OUT); }));
    EXPECT_FALSE(bDone);
}

TEST(Signals, DoNotStretchConnecting)
{
    SSilentHost host;
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create());
    sock.SetConnectTimeOut(TIME_OUT);
    bool bDone = true;
    ExpectTimeOut(Disturbed([&] { bDone = sock._Connect("127.0.0.1", host.nPort); }));
    EXPECT_FALSE(bDone);
    EXPECT_NE(sock.GetHandle(), -1) << "the caller closes it";
}

TEST(Signals, DoNotStretchAccepting)
{
    CLoopback listener;
    CSyncSocket accepting(::fcntl(listener.Handle(), F_DUPFD_CLOEXEC, 0));
    ASSERT_TRUE(accepting.SetTimeOut(TIME_OUT));
    CSyncSocket sock;
    bool bDone = true;
    ExpectTimeOut(Disturbed([&] { bDone = accepting.Accept(sock, nullptr, nullptr); }));
    EXPECT_FALSE(bDone);
    EXPECT_EQ(sock.GetHandle(), -1);
}

TEST(Signals, DoNotEndAReceiveOfDatagrams)
{
    CSyncSocket to;
    ASSERT_TRUE(to.Create(0, SOCK_DGRAM, "127.0.0.1", 0));
    sockaddr_in addr{};
    socklen_t nLen = sizeof addr;
    ::getsockname(to.GetHandle(), reinterpret_cast<sockaddr*>(&addr), &nLen);
    const UINT nPort = ntohs(addr.sin_port);
    CSyncSocket from;
    ASSERT_TRUE(from.Create(0, SOCK_DGRAM, nullptr, 0));
    std::array<char, 8> buf{};
    int nGot = 0;
    CDisturbedCall call([&] { nGot = to._RecvFrom(buf.data(), 8, addr); });
    EXPECT_TRUE(call.Disturb(10));
    EXPECT_EQ(from._SendTo("abc", 3, nPort, "127.0.0.1"), 3);
    call.Join();
    EXPECT_EQ(nGot, 3);
}

TEST(Signals, DoNotGiveASocketTheTimeOutOfTheOneBefore)
{
    SPair pair;
    ASSERT_TRUE(pair.client.SetTimeOut(30));
    pair.client.Close();
    CLoopback listener;
    ASSERT_TRUE(pair.client.Create());
    ASSERT_TRUE(pair.client._Connect("127.0.0.1", listener.Port()));
    listener.Accept(pair.server);
    char ch = 0;
    int nResult = 0;
    CDisturbedCall call([&] { nResult = pair.client._Recv(&ch, 1); });
    EXPECT_TRUE(call.Disturb(20)) << "a new socket waits without a limit";
    Send(pair.server, "x");
    call.Join();
    EXPECT_EQ(nResult, 1);
}

TEST(Signals, DoNotTakeItsTimeOutFromADescriptorThatIsAdopted)
{
    SPair pair;
    ASSERT_TRUE(pair.client.SetTimeOut(TIME_OUT));
    CSyncSocket adopted(::fcntl(pair.client.GetHandle(), F_DUPFD_CLOEXEC, 0));
    char ch = 0;
    int nResult = 0;
    ExpectTimeOut(Disturbed([&] { nResult = adopted._Recv(&ch, 1); }));
    EXPECT_EQ(nResult, -1);
}

TEST(Connecting, ToAHostThatNeverAnswersEndsInTime)
{
    SSilentHost host;
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create());
    sock.SetConnectTimeOut(300);
    const auto begin = Clock::now();
    EXPECT_FALSE(sock._Connect("127.0.0.1", host.nPort));
    EXPECT_GE(Clock::now() - begin, milliseconds(300));
    EXPECT_LT(Clock::now() - begin, seconds(5));
}

TEST(Connecting, EndsWhenAnotherThreadShutsTheSocketDown)
{
    SSilentHost host;
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create());
    sock.SetConnectTimeOut(20000);
    bool bDone = true;
    const auto begin = Clock::now();
    std::thread connecting([&] { bDone = sock._Connect("127.0.0.1", host.nPort); });
    std::this_thread::sleep_for(milliseconds(50)); // it waits by now
    sock.ShutDown();
    sock.Close();
    connecting.join();
    EXPECT_FALSE(bDone);
    EXPECT_LT(Clock::now() - begin, seconds(10));
}

TEST(ClosingBesideARunningCall, ClosesTheNumberAfterIt)
{
    SPair pair;
    const SOCKET hSocket = pair.client.GetHandle();
    int nResult = 99;
    std::thread reader([&] {
        char ch = 0;
        nResult = pair.client._Recv(&ch, 1);
    });
    std::this_thread::sleep_for(milliseconds(50)); // it waits inside recv now
    pair.client.ShutDown();
    pair.client.Close();
    EXPECT_EQ(pair.client.GetHandle(), -1);
    reader.join();
    EXPECT_EQ(nResult, 0);
    EXPECT_EQ(::fcntl(hSocket, F_GETFD), -1) << "the last call to leave closes the number";
    pair.client.Close();
    EXPECT_EQ(pair.client._Send("x", 1), -1);
}

TEST(ClosingBesideARunningCall, KeepsTheNumberFromBeingReused)
{
    SPair pair;
    const SOCKET hSocket = pair.client.GetHandle();
    ASSERT_TRUE(pair.client.SetTimeOut(300));
    std::thread reader([&] {
        char ch = 0;
        pair.client._Recv(&ch, 1);
    });
    std::this_thread::sleep_for(milliseconds(50));
    pair.client.Close(); // without waking the reader
    const int hOther = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_NE(hOther, hSocket);
    ::close(hOther);
    reader.join();
}

/// Descriptors that take every number which is free, below and above any other.
class CManyFiles
{
public:
    CManyFiles()
    {
        for (int i = 0; i < 64; ++i)
            m_files.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    ~CManyFiles()
    {
        for (const int hFile : m_files)
            EXPECT_EQ(::close(hFile), 0) << "somebody else has closed " << hFile;
    }
    bool Has(int hFile) const { return std::find(m_files.begin(), m_files.end(), hFile) != m_files.end(); }

private:
    std::vector<int> m_files;
};

TEST(ClosingBesideARunningCall, NeitherReusesNorClosesTheNumberTwice)
{
    for (int i = 0; i < 20; ++i) {
        SPair pair;
        const SOCKET hSocket = pair.client.GetHandle();
        int nResult = 99;
        std::atomic<bool> bBegun{false};
        std::thread reader([&] {
            char ch = 0;
            bBegun = true;
            nResult = pair.client._Recv(&ch, 1);
        });
        while (!bBegun)
            std::this_thread::yield();
        std::this_thread::sleep_for(milliseconds(10)); // it waits inside by now
        pair.client.Close();                           // without waking it
        {
            const CManyFiles others;
            EXPECT_FALSE(others.Has(hSocket));
            Send(pair.server, "x"); // the reader gets what was sent to its own connection
            reader.join();
            EXPECT_EQ(nResult, 1);
            EXPECT_EQ(::fcntl(hSocket, F_GETFD), -1) << "the reader was the last to leave";
            pair.client.Close();
        }
    }
}

TEST(ClosingBesideARunningCall, WakesEveryKindOfCall)
{
    std::array<char, 4> buf{};
    const std::function<bool(CSyncSocket&)> calls[] = {
        [&](CSyncSocket& sock) { return sock._Recv(buf.data(), 4) > 0; },
        [&](CSyncSocket& sock) { return sock.RecvAll(buf.data(), 4); },
        [&](CSyncSocket& sock) { return sock.RecvTimeOut(buf.data(), 4, 20000) > 0; },
        [&](CSyncSocket& sock) {
            return sock._Send(BIG.data(), static_cast<int>(BIG.size())) == static_cast<int>(BIG.size());
        },
        [&](CSyncSocket& sock) { return sock.SendAll(BIG.data(), static_cast<int>(BIG.size())); },
    };
    for (const auto& fnCall : calls) {
        SPair pair;
        ASSERT_TRUE(pair.client.SetTimeOut(20000));
        const auto begin = Clock::now();
        bool bDone = true;
        std::thread caller([&] { bDone = fnCall(pair.client); });
        std::this_thread::sleep_for(milliseconds(50));
        pair.client.ShutDown();
        pair.client.Close();
        const CManyFiles others;
        caller.join();
        EXPECT_FALSE(bDone);
        EXPECT_LT(Clock::now() - begin, seconds(10));
        EXPECT_FALSE(pair.client.HasTimedOut());
    }
}

TEST(ClosingBesideARunningCall, IsDoneOnceByManyThreads)
{
    for (int i = 0; i < 100; ++i) {
        SPair pair;
        std::optional<CManyFiles> others;
        std::vector<std::thread> closers;
        for (int n = 0; n < 4; ++n)
            closers.emplace_back([&] {
                pair.client.ShutDown();
                pair.client.Close();
            });
        others.emplace(); // takes the number as soon as it is free
        for (std::thread& closer : closers)
            closer.join();
        WantEnd(pair.server);
    }
}

} // namespace
