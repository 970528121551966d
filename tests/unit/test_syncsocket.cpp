// Sockets: lengths, time-outs, signals, options, and closing beside a running call.
#include "SyncSocket.h"

#include "loopback.h"

#include <array>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;

int Option(const CSyncSocket& sock, int nLevel, int nName)
{
    int nValue = -1;
    socklen_t nLen = sizeof nValue;
    ::getsockopt(sock.GetHandle(), nLevel, nName, &nValue, &nLen);
    return nValue;
}

/// Milliseconds.
long TimeOption(const CSyncSocket& sock, int nName)
{
    timeval tv{};
    socklen_t nLen = sizeof tv;
    ::getsockopt(sock.GetHandle(), SOL_SOCKET, nName, &tv, &nLen);
    return tv.tv_sec * 1000 + tv.tv_usec / 1000;
}

sockaddr_in BoundTo(const CSyncSocket& sock)
{
    sockaddr_in addr{};
    socklen_t nLen = sizeof addr;
    ::getsockname(sock.GetHandle(), reinterpret_cast<sockaddr*>(&addr), &nLen);
    return addr;
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

UINT FreeAtEveryAddress()
{
    CSyncSocket probe;
    EXPECT_TRUE(probe.Create(0, SOCK_STREAM, "0.0.0.0", 0));
    return ntohs(BoundTo(probe).sin_port);
}

TEST(SyncSocket, CreateBindsWhereAPortOrAnAddressIsGiven)
{
    CSyncSocket chosen;
    ASSERT_TRUE(chosen.Create(0, SOCK_STREAM, "127.0.0.3", 1));
    const sockaddr_in first = BoundTo(chosen);
    EXPECT_EQ(first.sin_addr.s_addr, ::inet_addr("127.0.0.3"));
    EXPECT_NE(first.sin_port, 0);
    EXPECT_EQ(Option(chosen, SOL_SOCKET, SO_REUSEADDR), 1);

    CSyncSocket any;
    UINT nPort = 0;
    bool bDone = false;
    for (int i = 0; i < 20 && !bDone; ++i) { // another process may take the port meanwhile
        nPort = FreeAtEveryAddress();
        bDone = any.Create(nPort, SOCK_STREAM, nullptr, 0);
    }
    ASSERT_TRUE(bDone);
    EXPECT_EQ(BoundTo(any).sin_addr.s_addr, INADDR_ANY);
    EXPECT_EQ(ntohs(BoundTo(any).sin_port), nPort);
    EXPECT_EQ(Option(any, SOL_SOCKET, SO_REUSEADDR), 0);

    CSyncSocket unbound;
    ASSERT_TRUE(unbound.Create(0, SOCK_STREAM, nullptr, 1));
    EXPECT_EQ(BoundTo(unbound).sin_port, 0);
    EXPECT_EQ(Option(unbound, SOL_SOCKET, SO_REUSEADDR), 0) << "nothing to bind, nothing to reuse";
}

TEST(SyncSocket, CreateOfATypeThatDoesNotExistHoldsNothing)
{
    CSyncSocket sock;
    EXPECT_FALSE(sock.Create(0, 12345, nullptr, 0));
    EXPECT_EQ(sock.GetHandle(), -1);
    EXPECT_FALSE(sock.IsSocket());
}

TEST(SyncSocket, AddressesAreDottedOrLookedUpOrAny)
{
    const struct
    {
        const char* szHost;
        const char* szIp;
    } rows[] = {{"192.0.2.77", "192.0.2.77"}, {nullptr, "0.0.0.0"},
                {"0.0.0.0", "0.0.0.0"},       {"127.1", "127.0.0.1"},
                {"localhost", "127.0.0.1"},   {"no-such-host.invalid", "255.255.255.255"}};
    for (const auto& row : rows) {
        sockaddr_in addr;
        std::memset(&addr, 0x55, sizeof addr);
        CSyncSocket::CreateAddrIn(row.szHost, 0x12345, addr);
        EXPECT_EQ(addr.sin_family, AF_INET);
        EXPECT_EQ(addr.sin_port, htons(0x2345));
        EXPECT_STREQ(::inet_ntoa(addr.sin_addr), row.szIp);
        EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(addr.sin_zero), 8), std::string(8, '\0'));
    }
    sockaddr_in addr;
    CSyncSocket::CreateAddrIn(ULONG{::inet_addr("10.0.0.5")}, 3968, addr);
    EXPECT_STREQ(::inet_ntoa(addr.sin_addr), "10.0.0.5");
    EXPECT_EQ(addr.sin_port, htons(3968));
}

TEST(SyncSocket, ConnectsToANumberOrAName)
{
    CLoopback listener;
    CSyncSocket byNumber;
    EXPECT_FALSE(byNumber._Connect(ULONG{htonl(INADDR_LOOPBACK)}, listener.Port())) << "not created";
    ASSERT_TRUE(byNumber.Create());
    EXPECT_TRUE(byNumber._Connect(ULONG{htonl(INADDR_LOOPBACK)}, listener.Port()));
    CSyncSocket byName;
    ASSERT_TRUE(byName.Create());
    EXPECT_TRUE(byName._Connect("localhost", listener.Port()));
    EXPECT_FALSE(::fcntl(byName.GetHandle(), F_GETFL) & O_NONBLOCK) << "transfers block again";
}

TEST(SyncSocket, ConnectThatIsRefusedLeavesTheSocketOpen)
{
    const UINT nPort = CLoopback(OwnAddress()).Port();
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create());
    sock.SetConnectTimeOut(5000);
    EXPECT_FALSE(sock._Connect(OwnAddress().c_str(), nPort));
    EXPECT_TRUE(sock.IsSocket());
    EXPECT_NE(::fcntl(sock.GetHandle(), F_GETFD), -1);
}

TEST(SyncSocket, AcceptGivesThePeersAddressOrNoSocketAtAll)
{
    CLoopback listener;
    CSyncSocket client;
    ASSERT_TRUE(client.Create());
    ASSERT_TRUE(client._Connect("127.0.0.1", listener.Port()));
    CSyncSocket accepting(::fcntl(listener.Handle(), F_DUPFD_CLOEXEC, 0));
    CSyncSocket server;
    sockaddr_in addr{};
    socklen_t nLen = sizeof addr;
    ASSERT_TRUE(accepting.Accept(server, reinterpret_cast<sockaddr*>(&addr), &nLen));
    EXPECT_EQ(addr.sin_port, BoundTo(client).sin_port);
    EXPECT_EQ(nLen, sizeof addr);
    CSyncSocket none;
    EXPECT_FALSE(none.Accept(server, nullptr, nullptr));
    EXPECT_EQ(server.GetHandle(), -1) << "what it held before is gone";
    WantEnd(client);
}

TEST(SyncSocket, DatagramsGoToAnAddressAndTellTheirs)
{
    CSyncSocket to;
    ASSERT_TRUE(to.Create(0, SOCK_DGRAM, "127.0.0.1", 0));
    CSyncSocket from;
    ASSERT_TRUE(from.Create(0, SOCK_DGRAM, "127.0.0.1", 0));
    ASSERT_TRUE(to.SetTimeOut(5000));
    EXPECT_EQ(from._SendTo("abc", 3, ntohs(BoundTo(to).sin_port), "127.0.0.1", 0), 3);
    sockaddr_in addr;
    std::memset(&addr, 0x55, sizeof addr);
    std::array<char, 8> buf{};
    EXPECT_EQ(to._RecvFrom(buf.data(), 8, addr, 0), 3);
    EXPECT_EQ(addr.sin_port, BoundTo(from).sin_port);
    EXPECT_EQ(to._RecvFrom(buf.data(), 8, addr, MSG_DONTWAIT), -1);
    EXPECT_EQ(addr.sin_port, 0) << "cleared first";
    CSyncSocket none;
    EXPECT_EQ(none._SendTo("abc", 3, 1, "127.0.0.1"), -1);
    EXPECT_EQ(none._RecvFrom(buf.data(), 8, addr), -1);
}

TEST(SyncSocket, CreateThatCannotBindHoldsNothing)
{
    const CLoopback taken;
    CSyncSocket sock;
    EXPECT_FALSE(sock.Create(taken.Port(), SOCK_STREAM, "127.0.0.1", 0));
    EXPECT_EQ(sock.GetHandle(), -1);
}

TEST(SyncSocket, EverySocketSendsAtOnceProbesASilentPeerAndIsClosedOnExec)
{
    SPair pair; // one end created, the other accepted
    for (const CSyncSocket* pSock :
         {static_cast<const CSyncSocket*>(&pair.client), &std::as_const(pair.server)}) {
        EXPECT_EQ(Option(*pSock, IPPROTO_TCP, TCP_NODELAY), 1);
        EXPECT_EQ(Option(*pSock, SOL_SOCKET, SO_KEEPALIVE), 1);
        EXPECT_EQ(Option(*pSock, IPPROTO_TCP, TCP_KEEPIDLE), 30);
        EXPECT_EQ(Option(*pSock, IPPROTO_TCP, TCP_KEEPINTVL), 10);
        EXPECT_EQ(Option(*pSock, IPPROTO_TCP, TCP_KEEPCNT), 6);
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

TEST(SyncSocket, ATimeOutThatIsTooLongForTheClockIsNone)
{
    for (const long nMs : {LONG_MAX, LONG_MAX - 1, LONG_MAX / 2, LONG_MAX / 1000, LONG_MAX / 1'000'000 + 1,
                           LONG_MAX / 1'000'000, LONG_MAX / 2'000'000, (1L << 40) - 1}) {
        SCOPED_TRACE(nMs);
        const CLoopback listener;
        for (const char* szHost : {"127.0.0.1", "localhost"}) {
            CSyncSocket sock;
            ASSERT_TRUE(sock.Create());
            sock.SetConnectTimeOut(nMs);
            EXPECT_TRUE(sock._Connect(szHost, listener.Port())) << szHost;
        }
        SPair pair;
        ASSERT_TRUE(pair.client.SetTimeOut(nMs));
        pair.client.SetLimit(nMs, 2);
        std::array<char, 3> buf{};
        Send(pair.server, "abcdef");
        EXPECT_EQ(pair.client._Recv(buf.data(), 1), 1);
        EXPECT_TRUE(pair.client.RecvAll(buf.data(), 2));
        EXPECT_EQ(pair.client.RecvTimeOut(buf.data(), 3, nMs), 3);
        EXPECT_EQ(std::string_view(buf.data(), 3), "def");
        EXPECT_TRUE(pair.client.SendAll("x", 1));
        EXPECT_TRUE(pair.client.SendTimeOut("y", 1, nMs));
        Want(pair.server, "xy");
        std::thread late([&pair] {
            std::this_thread::sleep_for(milliseconds(20));
            Send(pair.server, "ghi");
        });
        EXPECT_EQ(pair.client.WaitRecv(&pair.server, nMs), CSyncSocket::EWake::Ready);
        EXPECT_TRUE(pair.client.RecvAll(buf.data(), 3)) << "waits for what comes late";
        late.join();
        EXPECT_FALSE(pair.client.HasTimedOut());
    }
}

TEST(SyncSocket, TimeOutsAreSetForBothDirectionsOrOne)
{
    SPair pair;
    ASSERT_TRUE(pair.client.SetRecvTimeOut(2000));
    EXPECT_EQ(TimeOption(pair.client, SO_RCVTIMEO), 2000);
    EXPECT_EQ(TimeOption(pair.client, SO_SNDTIMEO), 0);
    ASSERT_TRUE(pair.client.SetSendTimeOut(3500));
    EXPECT_EQ(TimeOption(pair.client, SO_RCVTIMEO), 2000);
    EXPECT_EQ(TimeOption(pair.client, SO_SNDTIMEO), 3500);
    ASSERT_TRUE(pair.client.SetTimeOut(8000));
    EXPECT_EQ(TimeOption(pair.client, SO_RCVTIMEO), 8000);
    EXPECT_EQ(TimeOption(pair.client, SO_SNDTIMEO), 8000);
    long nMs = 0;
    ASSERT_TRUE(pair.client.GetRecvTimeOut(nMs));
    EXPECT_EQ(nMs, 8000);
    EXPECT_FALSE(pair.client.SetTimeOut(-5)) << "what the system refuses";
    EXPECT_EQ(TimeOption(pair.client, SO_SNDTIMEO), 8000);
}

TEST(SyncSocket, WaitingSendSendsAllOrFails)
{
    SPair pair;
    EXPECT_TRUE(pair.client.SendTimeOut("abc", 3, 5000));
    Want(pair.server, "abc");
    const std::string big(16 << 20, 'x');
    ASSERT_TRUE(pair.client.SetTimeOut(100));
    EXPECT_FALSE(pair.client.SendTimeOut(big.data(), big.size(), 5000)) << "a part is not all";
    EXPECT_FALSE(pair.client.SendTimeOut("x", 1, 50)) << "no room";
    CSyncSocket none;
    EXPECT_FALSE(none.SendTimeOut("x", 1, 50));
}

/// Counts what goes through its virtual operations.
class CCountingSocket : public CSyncSocket
{
public:
    using CSyncSocket::CSyncSocket;
    int _Send(const void* pBuf, int nLen, int nFlags) override
    {
        ++nSends;
        return CSyncSocket::_Send(pBuf, nLen, nFlags);
    }
    int _Recv(void* pBuf, int nLen, int nFlags) override
    {
        ++nRecvs;
        return CSyncSocket::_Recv(pBuf, nLen, nFlags);
    }
    bool IsSocket() const noexcept override { return bSocket && CSyncSocket::IsSocket(); }

    int nSends = 0;
    int nRecvs = 0;
    bool bSocket = true;
};

TEST(SyncSocket, WaitingTransfersAreVirtualAndWholeOnesAreNot)
{
    SPair pair;
    CCountingSocket sock(::fcntl(pair.client.GetHandle(), F_DUPFD_CLOEXEC, 0));
    Send(pair.server, "abcd");
    std::array<char, 2> buf{};
    EXPECT_TRUE(sock.SendAll("x", 1));
    EXPECT_TRUE(sock.RecvAll(buf.data(), 2));
    EXPECT_EQ(sock.nSends + sock.nRecvs, 0);
    EXPECT_TRUE(sock.SendTimeOut("y", 1, 5000));
    EXPECT_EQ(sock.RecvTimeOut(buf.data(), 2, 5000), 2);
    EXPECT_EQ(sock.nSends, 1);
    EXPECT_EQ(sock.nRecvs, 1);
    Want(pair.server, "xy");
}

TEST(SyncSocket, CloseAsksTheVirtualTest)
{
    SPair pair;
    const int hCopy = ::fcntl(pair.client.GetHandle(), F_DUPFD_CLOEXEC, 0);
    CCountingSocket sock(hCopy);
    sock.bSocket = false;
    sock.Close();
    EXPECT_EQ(sock.GetHandle(), -1);
    EXPECT_EQ(::close(hCopy), 0) << "it must have been left open";
}

TEST(SyncSocket, ReceivesOfNegativeLengthsFail)
{
    SPair pair;
    char ch = 0;
    EXPECT_EQ(pair.client._Recv(&ch, -1), -1);
    EXPECT_EQ(pair.client._Send("x", -1), -1);
    CSyncSocket none;
    EXPECT_EQ(none._Recv(&ch, 1), -1);
    EXPECT_EQ(none.RecvTimeOut(&ch, 1, 20), CSyncSocket::RECV_EXPIRED);
    EXPECT_FALSE(none.RecvAll(&ch, 1));
    EXPECT_FALSE(none.ShutDown());
    EXPECT_FALSE(none.Listen());
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
