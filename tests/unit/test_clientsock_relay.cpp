// The handshake through a relay centre, and where a centre redirects it to.
#include "peer.h"

#include "HostName.h"

#include <poll.h>

namespace {

TEST(ConnectDB, GoesThroughTheRelayCentreWithBothConnections)
{
    CLoopback relay(OwnAddress(), CClientSock::RELAY_PORT); // the wire fixes the port
    relay.Run([](CLoopback& self) {
        SServed served;
        Serve(self, served, Ack(), 23 + 5);
        EXPECT_EQ(served.strOpen.substr(16), std::string(6, '\0') + "plant" + '\0');
        EXPECT_EQ(served.strRegister, served.strOpen.substr(0, 16) + HostName() + std::string("\0\1\1", 3));
        served.WantEnds();
    });
    CClientSock client;
    EXPECT_EQ(Connect(client, "P2P(" + OwnAddress() + "):plant").nResult, 0);
    EXPECT_FALSE(client.m_bLan);
    EXPECT_FALSE(client.m_bLocalDB);
    EXPECT_EQ(client.m_reqSock.m_nCenterIp, ::inet_addr(OwnAddress().c_str()));
    EXPECT_EQ(client.m_rcvSock.m_nCenterIp, ::inet_addr(OwnAddress().c_str()));
    long nMs = 0;
    EXPECT_TRUE(client.m_reqSock.GetRecvTimeOut(nMs));
    EXPECT_EQ(nMs, 13000);
    client.StopSock();
    EXPECT_EQ(client.m_reqSock.m_nCenterIp, 0U);
    EXPECT_EQ(client.m_rcvSock.m_nCenterIp, 0U);
}

TEST(ConnectDB, SendsTheLongestServerNameThatFits)
{
    const std::string strName(SNRegReq::MAX_SERVER_NAME, 'n');
    CLoopback relay(OwnAddress(), CClientSock::RELAY_PORT);
    relay.Run([&strName](CLoopback& self) {
        SServed served;
        Serve(self, served, Ack(), 23 + strName.size());
        EXPECT_EQ(served.strOpen.substr(16), std::string(6, '\0') + strName + '\0');
        served.WantEnds();
    });
    CClientSock client;
    EXPECT_EQ(Connect(client, ThroughOwnRelay(strName)).nResult, 0);
}

TEST(ConnectDB, AsksNoResolverForARelayWhoseCentreIsNoAddress)
{
    const FnLookUp fnBefore = g_fnLookUp;
    g_fnLookUp = [](LPCSTR szHost) -> std::optional<in_addr> {
        ADD_FAILURE() << "looked up " << szHost;
        return std::nullopt;
    };
    for (const char* szHost : {"p2p():name", "p2p()):name", "p2p(centre):name"}) {
        CClientSock client;
        EXPECT_EQ(Connect(client, szHost).nResult, 1) << szHost;
    }
    g_fnLookUp = fnBefore;
}

TEST(ConnectDB, FollowsTheRelaysRedirectWithANewDirectConnection)
{
    CLoopback direct;
    direct.Run([](CLoopback& self) {
        SServed served;
        Serve(self, served, Ack());
        served.WantEnds();
    });
    CLoopback relay(OwnAddress(), CClientSock::RELAY_PORT);
    relay.Run([&direct](CLoopback& self) {
        CSyncSocket req;
        self.Accept(req);
        const std::string open = WantScrambled(req, '7', 23 + 5);
        EXPECT_EQ(open.substr(16), std::string(6, '\0') + "plant" + '\0');
        Send(req, Redirect(direct.Port(), "LaN"));
        WantEnd(req);
    });
    CClientSock client;
    testing::internal::CaptureStdout();
    const SHandshake done = Connect(client, ThroughOwnRelay("plant"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Is same lan ...\n");
    EXPECT_EQ(done.nResult, 0);
    EXPECT_EQ(done.strPrjName, "demo");
    EXPECT_TRUE(client.m_bLan);
    EXPECT_EQ(client.m_reqSock.m_nCenterIp, 0U);
    EXPECT_EQ(client.m_rcvSock.m_nCenterIp, 0U);
    long nMs = 0;
    EXPECT_TRUE(client.m_reqSock.GetRecvTimeOut(nMs));
    EXPECT_EQ(nMs, 8000) << "a direct connection now";
}

TEST(ConnectDB, TakesADirectAddressWithTheRelaysPortForARelay)
{
    CLoopback direct;
    direct.Run([](CLoopback& self) {
        SServed served;
        Serve(self, served, Ack());
    });
    CLoopback relay(OwnAddress(), CClientSock::RELAY_PORT);
    relay.Run([&direct](CLoopback& self) {
        CSyncSocket req;
        self.Accept(req);
        const std::string open = WantScrambled(req, '7', 23);
        EXPECT_EQ(open.substr(16), std::string(7, '\0')) << "an address of zeros and an empty name";
        Send(req, Redirect(direct.Port()) + "behind it");
        WantEnd(req);
    });
    CClientSock client;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect(client, OwnAddress() + ":3968").nResult, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Is same lan ...\n");
    EXPECT_TRUE(client.m_bLan);
}

TEST(ConnectDB, AwaitsTheRestOfARedirect)
{
    CLoopback relay(OwnAddress(), CClientSock::RELAY_PORT);
    const std::string strWhole = Redirect(1);
    for (const std::string& strReply : {strWhole.substr(0, 9), std::string("7lan"), std::string("7L")}) {
        relay.Run([&strReply](CLoopback& self) {
            SServed served;
            self.Accept(served.req);
            served.strOpen = WantScrambled(served.req, '7', 24);
            Send(served.req, strReply);
            served.req.ShutDown();
        });
        CClientSock client;
        EXPECT_EQ(Connect(client, ThroughOwnRelay("s")).nResult, CONNECT_FAILED) << strReply;
        EXPECT_FALSE(client.m_bLan);
        client.StopSock();
        relay.Join();
    }
}

TEST(ConnectDB, RegistersWhereAReplyNamesNoLan)
{
    CLoopback relay(OwnAddress(), CClientSock::RELAY_PORT);
    for (const std::string& strReply : {std::string("7"), std::string("7xan"), Redirect(1, "wan")}) {
        relay.Run([&strReply](CLoopback& self) {
            SServed served;
            Serve(self, served, Ack(), 24, strReply);
            served.WantEnds();
        });
        CClientSock client;
        EXPECT_EQ(Connect(client, ThroughOwnRelay("s")).nResult, 0);
        EXPECT_FALSE(client.m_bLan);
        client.StopSock();
        relay.Join();
    }
}

TEST(ConnectDB, TakesNoRedirectFromAServerOnAnotherPort)
{
    CLoopback server;
    server.Run([](CLoopback& self) {
        SServed served;
        Serve(self, served, Ack(), 16, Redirect(1));
        served.WantEnds();
    });
    CClientSock client;
    EXPECT_EQ(Connect(client, server.Host()).nResult, 0);
    EXPECT_FALSE(client.m_bLan);
}

/// Redirects its clients to itself as often as it is told, then to another address.
class CRedirector
{
public:
    CRedirector(int nToItself, UINT nThenPort) : m_relay(OwnAddress(), CClientSock::RELAY_PORT)
    {
        m_relay.Run([this, nToItself, nThenPort](CLoopback& self) {
            for (int i = 0; i <= nToItself; ++i) {
                CSyncSocket req;
                self.Accept(req);
                WantScrambled(req, '7', i == 0 ? 24 : 23); // a redirect names no server
                ++m_nOpened;
                std::string reply = Redirect(i < nToItself ? CClientSock::RELAY_PORT : nThenPort);
                if (i < nToItself) {
                    const in_addr_t nIp = ::inet_addr(OwnAddress().c_str());
                    std::memcpy(&reply[4], &nIp, sizeof nIp);
                }
                Send(req, reply);
                WantEnd(req);
            }
        });
    }
    int Opened()
    {
        m_relay.Join();
        return m_nOpened;
    }

private:
    CLoopback m_relay;
    int m_nOpened = 0;
};

TEST(ConnectDB, FollowsEightRedirects)
{
    CLoopback direct;
    direct.Run([](CLoopback& self) {
        SServed served;
        Serve(self, served, Ack());
        served.WantEnds();
    });
    CRedirector relay(7, direct.Port());
    CClientSock client;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect(client, ThroughOwnRelay("s")).nResult, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout().size(), 8 * std::string("Is same lan ...\n").size());
    EXPECT_EQ(relay.Opened(), 8);
}

TEST(ConnectDB, FollowsNoNinthRedirect)
{
    CLoopback never;
    CRedirector relay(8, never.Port());
    CClientSock client;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect(client, ThroughOwnRelay("s")).nResult, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout().size(), 8 * std::string("Is same lan ...\n").size());
    client.StopSock(); // the last one stays open until then
    EXPECT_EQ(relay.Opened(), 9);
    pollfd entry{never.Handle(), POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, 0), 0) << "somebody has followed it";
}

} // namespace
