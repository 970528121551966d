// Sockets: lengths, time-outs, signals, options, and closing beside a running call.
#include "SyncSocket.h"

#include "loopback.h"

#include <array>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

int Option(const CSyncSocket& sock, int nLevel, int nName)
{
    int nValue = -1;
    socklen_t nLen = sizeof nValue;
    ::getsockopt(sock.GetHandle(), nLevel, nName, &nValue, &nLen);
    return nValue;
}

TEST(SyncSocket, TransfersOfNothingSucceedWithoutASocket)
{
    CSyncSocket sock;
    EXPECT_TRUE(sock.SendAll(nullptr, 0));
    EXPECT_TRUE(sock.RecvAll(nullptr, 0));
    EXPECT_FALSE(sock.SendAll("x", -1));
    EXPECT_FALSE(sock.RecvAll(nullptr, -1));
    EXPECT_FALSE(sock.SendAll("x", 1));
}

TEST(SyncSocket, AWholeTransferFailsWhenThePeerClosesInTheMiddle)
{
    SPair pair;
    Send(pair.server, "abc");
    pair.server.Close();
    std::array<char, 4> buf{};
    EXPECT_FALSE(pair.client.RecvAll(buf.data(), 4));
    EXPECT_FALSE(pair.client.HasTimedOut());
}

TEST(SyncSocket, CreateMakesAnUnboundSocketAndKeepsAnExistingOne)
{
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create(0, SOCK_STREAM, nullptr, 0));
    const SOCKET hSocket = sock.GetHandle();
    EXPECT_TRUE(sock.Create(1, SOCK_DGRAM, "nonsense", 1));
    EXPECT_EQ(sock.GetHandle(), hSocket);
    EXPECT_EQ(Option(sock, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
}

TEST(SyncSocket, CreateThatCannotBindHoldsNothing)
{
    const CLoopback taken;
    CSyncSocket sock;
    EXPECT_FALSE(sock.Create(taken.Port(), SOCK_STREAM, "127.0.0.1", 0));
    EXPECT_EQ(sock.GetHandle(), -1);
}

TEST(SyncSocket, EverySocketSendsAtOnceAndIsClosedOnExec)
{
    SPair pair; // one end created, the other accepted
    for (const CSyncSocket* pSock :
         {static_cast<const CSyncSocket*>(&pair.client), &std::as_const(pair.server)}) {
        EXPECT_EQ(Option(*pSock, IPPROTO_TCP, TCP_NODELAY), 1);
        EXPECT_TRUE(::fcntl(pSock->GetHandle(), F_GETFD) & FD_CLOEXEC);
    }
}

TEST(SyncSocket, SendingToAPeerThatIsGoneRaisesNoSignal)
{
    SPair pair;
    pair.server.Close();
    int nSent = 1;
    for (int i = 0; i < 100 && nSent > 0; ++i) { // the reset takes a moment
        nSent = pair.client._Send("x", 1);
        std::this_thread::sleep_for(milliseconds(1));
    }
    EXPECT_EQ(nSent, -1); // SIGPIPE would have ended this process
    EXPECT_FALSE(pair.client.SendAll("x", 1));
}

TEST(SyncSocket, ACentreAddressOverridesTheHost)
{
    CLoopback centre("127.0.0.1");
    CScnSocket sock;
    ASSERT_TRUE(sock.Create());
    sock.m_nCenterIp = ::inet_addr("127.0.0.1");
    EXPECT_TRUE(sock._Connect("192.0.2.1", centre.Port()));
}

TEST(SyncSocket, TimeOutZeroChangesNothing)
{
    SPair pair;
    long nMs = -1;
    ASSERT_TRUE(pair.client.SetTimeOut(1234));
    EXPECT_TRUE(pair.client.SetTimeOut(0));
    ASSERT_TRUE(pair.client.GetRecvTimeOut(nMs));
    EXPECT_NEAR(static_cast<double>(nMs), 1234, 10); // the kernel rounds to its ticks
    CSyncSocket none;
    EXPECT_FALSE(none.SetTimeOut(5));
    EXPECT_FALSE(none.GetRecvTimeOut(nMs));
}

TEST(SyncSocket, WaitingReceiveTellsExpiryCloseAndErrorApart)
{
    SPair pair;
    char ch = 0;
    EXPECT_EQ(pair.client.RecvTimeOut(&ch, 1, 20), CSyncSocket::RECV_EXPIRED);
    Send(pair.server, "x");
    EXPECT_EQ(pair.client.RecvTimeOut(&ch, 1, 5000), 1);
    pair.server.Close();
    EXPECT_EQ(pair.client.RecvTimeOut(&ch, 1, 5000), 0);

    SPair reset;
    Send(reset.client, "unread"); // closing with unread bytes resets the connection
    std::this_thread::sleep_for(milliseconds(20));
    reset.server.Close();
    EXPECT_EQ(reset.client.RecvTimeOut(&ch, 1, 5000), -1);
}

TEST(SyncSocket, DescriptorZeroIsNoSocketButIsClosedInTheEnd)
{
    const int hKeep = ::dup(0);
    ::close(0);
    ASSERT_EQ(::open("/dev/null", O_RDONLY), 0);
    {
        CSyncSocket closed(0);
        EXPECT_FALSE(closed.IsSocket());
        closed.Close();
        EXPECT_EQ(closed.GetHandle(), -1);
        EXPECT_NE(::fcntl(0, F_GETFD), -1) << "Close must leave descriptor 0 alone";
    }
    EXPECT_NE(::fcntl(0, F_GETFD), -1);
    {
        const CSyncSocket destroyed(0);
    }
    EXPECT_EQ(::fcntl(0, F_GETFD), -1) << "the destructor must close it";
    ::dup2(hKeep, 0);
    ::close(hKeep);
}

TEST(SyncSocket, CreateMakesASocketAlsoWithoutStandardInput)
{
    const int hKeep = ::dup(0);
    ::close(0); // the next number that the system gives is 0
    {
        CSyncSocket sock;
        EXPECT_TRUE(sock.Create());
        EXPECT_TRUE(sock.IsSocket());
        EXPECT_TRUE(::fcntl(sock.GetHandle(), F_GETFD) & FD_CLOEXEC);
        EXPECT_EQ(::fcntl(0, F_GETFD), -1) << "a second number for it";
    }
    ::dup2(hKeep, 0);
    ::close(hKeep);
}

TEST(SyncSocket, OnlyRequestsStampTheTime)
{
    SPair pair;
    pair.client.m_lastReqTime = 0;
    Send(pair.client, "x");
    EXPECT_EQ(pair.client.m_lastReqTime, 0);
    EXPECT_TRUE(pair.client.SendTimeOut("yz", 2, 1000));
    EXPECT_NE(pair.client.m_lastReqTime, 0);
    Want(pair.server, "xyz");
}

TEST(SyncSocket, AReceiveEndsByItsTimeOutAndSaysSo)
{
    SPair pair;
    char ch = 0;
    ASSERT_TRUE(pair.client.SetTimeOut(50));
    EXPECT_EQ(pair.client._Recv(&ch, 1, MSG_DONTWAIT), -1);
    EXPECT_FALSE(pair.client.HasTimedOut()) << "not waiting is no time-out";
    EXPECT_EQ(pair.client._Recv(&ch, 1), -1);
    EXPECT_TRUE(pair.client.HasTimedOut());
}

TEST(SyncSocket, AForkedCopyIsClosedWithoutAWordToThePeer)
{
    SPair pair;
    const int hCopy = ::dup(pair.client.GetHandle()); // what the parent goes on with
    pair.client.CloseForked();
    pair.client.CloseForked();
    ASSERT_EQ(::send(hCopy, "on", 2, 0), 2);
    Want(pair.server, "on");
    ::close(hCopy);
    WantEnd(pair.server);
}

} // namespace
