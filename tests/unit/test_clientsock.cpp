// Addresses, and the handshake byte by byte. Relay centres and redirects: test_clientsock_relay.cpp.
#include "peer.h"

#include "HostName.h"
#include "WireReader.h"
#include "disturbed_call.h"

namespace {

SServerAddr Parsed(const char* szHost)
{
    SServerAddr addr;
    EXPECT_EQ(CClientSock::ParseHost(szHost, addr), 0) << szHost;
    return addr;
}

TEST(ParseHost, DirectAddressesHaveAPortOrEighty)
{
    const struct
    {
        const char* szText;
        const char* szHost;
        WORD nPort;
    } rows[] = {{"plant", "plant", 80},
                {"plant:0", "plant", 80},
                {"plant:8080", "plant", 8080},
                {":8080", ":8080", 80},
                {"plant:", "plant", 80},
                {"plant:65616", "plant", 80},
                {"plant:70000", "plant", 4464},
                {"a:b:81", "a:b", 81},
                {"", "", 80},
                {"p2", "p2", 80},
                {"plant:9x", "plant", 9}};
    for (const auto& row : rows) {
        const SServerAddr addr = Parsed(row.szText);
        EXPECT_EQ(addr.strHost, row.szHost) << row.szText;
        EXPECT_EQ(addr.nPort, row.nPort) << row.szText;
        EXPECT_TRUE(addr.strCenter.empty());
        EXPECT_EQ(addr.nTimeOut, 8000);
    }
}

TEST(ParseHost, RelayAddressesNameACentreAndAServer)
{
    SServerAddr addr = Parsed("p2p(10.0.0.5):name");
    EXPECT_EQ(addr.strCenter, "10.0.0.5");
    EXPECT_EQ(addr.strServer, "name");
    EXPECT_EQ(addr.nPort, 3968);
    EXPECT_EQ(addr.nTimeOut, 13000);
    addr = Parsed("P2P:name:with:colons");
    EXPECT_EQ(addr.strCenter.size(), 14U); // the built-in centre
    EXPECT_EQ(addr.strServer, "name:with:colons");
    EXPECT_EQ(Parsed("p2p(10.0.0.5))):n").strCenter, "10.0.0.5");
}

TEST(ParseHost, RelayAddressesThatCannotBeAreRefused)
{
    SServerAddr addr;
    EXPECT_EQ(CClientSock::ParseHost("p2p", addr), static_cast<int>(0x80070057));
    EXPECT_EQ(CClientSock::ParseHost("p2pname", addr), static_cast<int>(0x80070057));
    for (const size_t nLen : {250U, 255U, 256U, 2000U})
        EXPECT_EQ(CClientSock::ParseHost(("p2p:" + std::string(nLen, 'n')).c_str(), addr),
                  static_cast<int>(0x80004005))
            << nLen;
    EXPECT_EQ(CClientSock::ParseHost(("p2p:" + std::string(249, 'n')).c_str(), addr), 0);
}

TEST(GetGatewayMac, IsZeros)
{
    std::array<BYTE, SNRegReq::MAC_SIZE> mac{1, 2, 3, 4, 5, 6};
    CClientSock::GetGatewayMac(0x01020304, mac);
    EXPECT_EQ(mac, (std::array<BYTE, SNRegReq::MAC_SIZE>{}));
}

TEST(ConnectDB, OpensAndRegistersByteForByte)
{
    CLoopback server;
    server.Run([](CLoopback& self) {
        SServed served;
        Serve(self, served, Ack(16));
        EXPECT_EQ(served.strRegister, served.strOpen + HostName() + std::string("\0\1\1", 3));
        served.WantEnds();
    });
    CClientSock client;
    client.m_reqSock.m_nCenterIp = client.m_rcvSock.m_nCenterIp =
        ::inet_addr("192.0.2.1"); // of an earlier relay
    const SHandshake done = Connect(client, server.Host());
    EXPECT_EQ(done.nResult, 0);
    EXPECT_EQ(done.strPrjName, "demo");
    EXPECT_EQ(done.strTitle, "title");
    long nMs = 0;
    EXPECT_TRUE(client.m_reqSock.GetRecvTimeOut(nMs));
    EXPECT_EQ(nMs, 8000);
    EXPECT_TRUE(client.m_rcvSock.GetRecvTimeOut(nMs));
    EXPECT_GT(nMs, 0x7FFFFFFF - 1000);
    EXPECT_FALSE(client.m_bLocalDB);
    EXPECT_FALSE(client.m_bLan);
    client.StopSock();
}

TEST(ConnectDB, ShowsTheMomentAsItsIdentifier)
{
    std::string strOpen;
    CLoopback server;
    server.Run([&strOpen](CLoopback& self) {
        SServed served;
        Serve(self, served, Ack());
        strOpen = served.strOpen;
    });
    const time_t tBegin = std::time(nullptr);
    CClientSock client;
    EXPECT_EQ(Connect(client, server.Host()).nResult, 0);
    const time_t tEnd = std::time(nullptr);
    server.Join();
    CWireReader reader(std::span(reinterpret_cast<const BYTE*>(strOpen.data()), strOpen.size()));
    const DWORD nData1 = reader.Get<DWORD>();
    EXPECT_GE(nData1, static_cast<DWORD>(tBegin));
    EXPECT_LE(nData1, static_cast<DWORD>(tEnd));
    reader.Skip(4);
    EXPECT_EQ(reader.Get<uint64_t>(), nData1);
}

TEST(ConnectDB, PassesTheLoginFlagOn)
{
    CLoopback server;
    server.Run([](CLoopback& self) {
        SServed served;
        Serve(self, served, Ack());
        EXPECT_EQ(served.strRegister.substr(16), HostName() + std::string("\0\0\1", 3));
    });
    CClientSock client;
    EXPECT_EQ(Connect(client, server.Host(), false).nResult, 0);
}

TEST(ConnectDB, HandsTheRecordOverAsItCame)
{
    std::string strAck = Ack();
    for (size_t i = 1; i < 59; ++i)
        strAck[i] = static_cast<char>(0x80 + i);
    CLoopback server;
    server.Run([&strAck](CLoopback& self) {
        SServed served;
        Serve(self, served, strAck);
    });
    CClientSock client;
    const SHandshake done = Connect(client, server.Host());
    EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(&done.ack), sizeof done.ack),
              strAck.substr(1, 59));
    const auto field = [&strAck](size_t nOffset) { return std::string_view(strAck).substr(1 + nOffset, 4); };
    // By value: the record is packed, its numbers lie at odd addresses.
    const auto bytes = [](DWORD n) { return std::string(reinterpret_cast<const char*>(&n), sizeof n); };
    EXPECT_EQ(bytes(done.ack.fif_time), field(42));
    EXPECT_EQ(bytes(done.ack.fif_size), field(46));
    EXPECT_EQ(bytes(done.ack.dif_time), field(50));
    EXPECT_EQ(bytes(done.ack.dif_size), field(54));
    EXPECT_EQ(done.ack.prjName[0], 'd') << "the name's first character is the record's last byte";
}

TEST(ConnectDB, StoresSixForTheFlagSixteenAndEveryOtherAsItIs)
{
    for (const auto& [chFlag, chStored] : {std::pair{'\x10', '\6'},
                                           {'\0', '\0'},
                                           {'\6', '\6'},
                                           {'\x0F', '\x0F'},
                                           {'\x11', '\x11'},
                                           {'\xFF', '\xFF'}}) {
        CLoopback server;
        server.Run([chFlag = chFlag](CLoopback& self) {
            SServed served;
            Serve(self, served, Ack(chFlag), 16, "7 and more");
            served.WantEnds();
        });
        CClientSock client;
        EXPECT_EQ(Connect(client, server.Host()).ack.bFlag, static_cast<BYTE>(chStored));
    }
}

TEST(ConnectDB, AwaitsTheEndsOfBothTexts)
{
    const std::string strHead = Ack().substr(0, 59);
    for (const std::string& strTexts :
         {std::string("n"), std::string(1, '\0'), std::string("name\0", 5),
          std::string("name\0title without an end", 25), std::string(600, 'n')}) {
        CLoopback server;
        server.Run([&](CLoopback& self) {
            SServed served;
            Serve(self, served, strHead + strTexts); // and ends the connection
        });
        CClientSock client;
        EXPECT_EQ(Connect(client, server.Host()).nResult, CONNECT_FAILED) << strTexts;
        server.Join();
    }
}

TEST(ConnectDB, ReadsARegisterReplyThatIsSplitAnywhere)
{
    const std::string wire = Scrambled(Ack());
    for (size_t nSplit = 1; nSplit < wire.size(); ++nSplit) {
        CLoopback server;
        server.Run([&](CLoopback& self) {
            SServed served;
            ServeUpToRegister(self, served);
            Send(served.rcv, wire.substr(0, nSplit));
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
            Send(served.rcv, wire.substr(nSplit));
            WantEnd(served.rcv);
        });
        CClientSock client;
        const SHandshake done = Connect(client, server.Host());
        EXPECT_EQ(done.nResult, 0) << nSplit;
        EXPECT_EQ(done.strPrjName, "demo") << nSplit;
        const DWORD nDifSize = done.ack.dif_size; // not aligned in the record
        EXPECT_EQ(nDifSize, 0x08070605U) << nSplit;
        client.StopSock();
        server.Join();
    }
}

TEST(ConnectDB, TakesTheTextsWhateverFollows)
{
    const std::string strHead = Ack().substr(0, 59);
    const struct
    {
        std::string strTexts;
        std::string strName;
        std::string strTitle;
    } rows[] = {
        {std::string(2, '\0'), "", ""}, // the shortest reply
        {std::string("\0title\0", 7), "", "title"},
        {std::string("name\0\0", 6), "name", ""},
        {std::string("name\0title\0more\0", 16), "name", "title"},
        {std::string(200, 'n') + '\0' + std::string(120, 't') + '\0', std::string(200, 'n'),
         std::string(120, 't')},
        {std::string("name\0title\0", 11) + std::string(500, 'x'), "name", "title"}, // fills the buffer
    };
    for (const auto& row : rows) {
        CLoopback server;
        server.Run([&](CLoopback& self) {
            SServed served;
            Serve(self, served, strHead + row.strTexts);
        });
        CClientSock client;
        const SHandshake done = Connect(client, server.Host());
        EXPECT_EQ(done.nResult, 0);
        EXPECT_EQ(done.strPrjName, row.strName);
        EXPECT_EQ(done.strTitle, row.strTitle);
    }
}

TEST(ConnectDB, TellsRefusalsOfTheOpenRequestFromOtherReplies)
{
    const struct
    {
        std::string strReply;
        int nResult;
    } rows[] = {{"0", CONNECT_REFUSED},   {"07", CONNECT_REFUSED}, {"x", 1}, {"8", 1}, {"", 1},
                {std::string(1, '\0'), 1}};
    for (const auto& row : rows) {
        CLoopback server;
        server.Run([&row](CLoopback& self) {
            CSyncSocket req;
            self.Accept(req);
            WantScrambled(req, '7', 16);
            if (row.strReply.empty())
                return; // closes
            Send(req, row.strReply);
            WantEnd(req);
        });
        CClientSock client;
        EXPECT_EQ(Connect(client, server.Host()).nResult, row.nResult) << row.strReply;
    }
    EXPECT_EQ(CONNECT_REFUSED, static_cast<int>(0x80004005));
    EXPECT_EQ(CONNECT_BAD_ADDRESS, static_cast<int>(0x80070057));
}

TEST(ConnectDB, TellsRefusalsOfTheRegisterRequestFromOtherReplies)
{
    const struct
    {
        std::string strPlain;
        int nResult;
    } rows[] = {{"0", 1244},      {"8", 1},        {"00", 1}, {Ack().substr(0, 59), 1},
                {Ack(0, '9'), 1}, {Ack(0, '0'), 1}};
    for (const auto& row : rows) {
        CClientSock client;
        CLoopback server;
        server.Run([&](CLoopback& self) {
            SServed served;
            ServeUpToRegister(self, served);
            client.m_rcvSock.SetRecvTimeOut(500); // of its own it awaits the rest of a text for 8 s
            Send(served.rcv, Scrambled(row.strPlain));
            served.WantEnds();
        });
        EXPECT_EQ(Connect(client, server.Host()).nResult, row.nResult) << row.strPlain.size();
        client.StopSock();
    }
}

TEST(ConnectDB, FailsWhenTheRegisterReplyCannotBeUnscrambledOrNeverComes)
{
    for (const std::string strRaw : {"", "0", "12345"}) { // 1 and 5: lengths that no scrambling has
        CLoopback server;
        server.Run([&strRaw](CLoopback& self) {
            SServed served;
            ServeUpToRegister(self, served);
            Send(served.rcv, strRaw);
        });
        CClientSock client;
        EXPECT_EQ(Connect(client, server.Host()).nResult, 1) << strRaw;
    }
}

TEST(ConnectDB, FailsWhereNobodyListens)
{
    const std::string strHost = CLoopback(OwnAddress()).Host();
    CClientSock client;
    EXPECT_EQ(Connect(client, strHost).nResult, 1);
    EXPECT_EQ(Connect(client, "p2p").nResult, CONNECT_BAD_ADDRESS);
    EXPECT_FALSE(client.m_bLocalDB);
    EXPECT_EQ(Connect(client, "p2p:" + std::string(250, 'n')).nResult, CONNECT_REFUSED);
}

TEST(ConnectDB, FailsWhenTheSecondConnectionFindsNobody)
{
    CLoopback server(OwnAddress());
    server.Run([](CLoopback& self) {
        CSyncSocket req;
        self.Accept(req);
        WantScrambled(req, '7', 16);
        self.StopListening();
        Send(req, "7");
        WantEnd(req);
    });
    CClientSock client;
    EXPECT_EQ(Connect(client, server.Host()).nResult, 1);
    client.StopSock();
}

TEST(ConnectDB, ThatFailsLeavesItsSocketsOpenUntilTheNextOrStopSock)
{
    CLoopback server;
    server.Run([](CLoopback& self) {
        SServed first;
        Serve(self, first, "0");
        SServed second;
        self.Accept(second.req); // the second attempt has closed the first one's sockets by now
        first.WantEnds();
        WantScrambled(second.req, '7', 16);
        Send(second.req, "0");
        WantEnd(second.req);
    });
    CClientSock client;
    EXPECT_EQ(Connect(client, server.Host()).nResult, 1244);
    EXPECT_TRUE(client.m_reqSock.IsSocket());
    EXPECT_TRUE(client.m_rcvSock.IsSocket());
    EXPECT_EQ(Connect(client, server.Host()).nResult, CONNECT_REFUSED);
    EXPECT_TRUE(client.m_reqSock.IsSocket());
    EXPECT_FALSE(client.m_rcvSock.IsSocket());
    client.StopSock();
    EXPECT_FALSE(client.m_reqSock.IsSocket());
}

TEST(ConnectDB, GivesUpAServerThatNeverAnswersAfterEightSecondsWhateverSignalsCome)
{
    CLoopback server;
    server.Run([](CLoopback& self) {
        CSyncSocket req;
        self.Accept(req);
        WantScrambled(req, '7', 16);
        std::this_thread::sleep_for(std::chrono::seconds(9)); // past any receive time-out of the far end
        WantEnd(req);
    });
    CClientSock client;
    const auto begin = std::chrono::steady_clock::now();
    int nResult = 0;
    CDisturbedCall call([&] { nResult = Connect(client, server.Host()).nResult; });
    while (call.Disturb(10) && std::chrono::steady_clock::now() - begin < std::chrono::seconds(30)) {
    }
    call.Join();
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(nResult, 1);
    EXPECT_GE(took, std::chrono::milliseconds(7900));
    EXPECT_LT(took, std::chrono::seconds(12)) << "each signal began the wait anew";
    EXPECT_TRUE(client.m_reqSock.HasTimedOut());
    client.StopSock();
}

} // namespace
