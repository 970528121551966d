// Addresses, the handshake byte by byte, exchanges that end unclean, and the project tree.
#include "ClientSock.h"

#include "loopback.h"

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

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

TEST(IsMirrorName, RefusesWhatWouldLeaveTheMirror)
{
    for (const char* szName : {".", "..", "/", "a/b", "../x", "..\xFF", ".\xFF", "\xFF"})
        EXPECT_FALSE(CClientSock::IsMirrorName(szName)) << szName;
    for (const char* szName : {"demo", "...", "a.b", "\xCA\xBE\xB7\xB6"})
        EXPECT_TRUE(CClientSock::IsMirrorName(szName)) << szName;
}

TEST(GetGatewayMac, IsZeros)
{
    std::array<BYTE, SNRegReq::MAC_SIZE> mac{1, 2, 3, 4, 5, 6};
    CClientSock::GetGatewayMac(0x01020304, mac);
    EXPECT_EQ(mac, (std::array<BYTE, SNRegReq::MAC_SIZE>{}));
}

/// A request of the handshake: its command byte, and its record unscrambled.
std::string WantScrambled(CSyncSocket& sock, char chCmd, size_t nPlain)
{
    Want(sock, std::string_view(&chCmd, 1));
    const size_t nLen = nPlain / 3 * 4 + (nPlain % 3 ? nPlain % 3 + 1 : 0);
    std::vector<BYTE> scrambled(nLen);
    EXPECT_TRUE(sock.RecvAll(scrambled.data(), static_cast<int>(nLen)));
    std::string plain(nPlain, '\0');
    EXPECT_EQ(DecryptPacket(static_cast<UINT>(nLen), scrambled.data(), static_cast<UINT>(nPlain),
                            reinterpret_cast<BYTE*>(plain.data())),
              nPlain);
    return plain;
}

void SendScrambled(CSyncSocket& sock, const std::string& plain)
{
    std::vector<BYTE> out(plain.size() / 3 * 4 + 4);
    const UINT nLen =
        EncryptPacket(static_cast<UINT>(plain.size()), reinterpret_cast<const BYTE*>(plain.data()),
                      static_cast<UINT>(out.size()), out.data());
    Send(sock, std::string_view(reinterpret_cast<const char*>(out.data()), nLen));
}

std::string HostName()
{
    std::array<char, 237> name{};
    ::gethostname(name.data(), 236);
    return name.data();
}

/// The registration reply: bFlag, the file's time and size in big-endian, and the two texts.
std::string Ack(char chFlag = 0, char chEcho = '8')
{
    std::string plain(59, '\0');
    plain[0] = chEcho;
    plain[1 + 21] = chFlag;
    std::memcpy(&plain[1 + 50], "\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    plain.append(std::string("demo\0title\0", 11));
    return plain;
}

struct SHandshake
{
    int nResult = -1;
    CString strPrjName;
    CString strTitle;
    SNAckRegReq ack{};
};

SHandshake Connect(CClientSock& client, const std::string& strHost)
{
    SHandshake done;
    done.nResult = client.ConnectDB(strHost.c_str(), done.strPrjName, done.strTitle, done.ack, true);
    return done;
}

TEST(ConnectDB, OpensAndRegistersByteForByte)
{
    CLoopback server;
    server.Run([](CLoopback& self) {
        CSyncSocket req;
        self.Accept(req);
        const std::string open = WantScrambled(req, '7', 16);
        Send(req, "7");
        CSyncSocket rcv;
        self.Accept(rcv);
        const std::string strName = HostName();
        const std::string reg = WantScrambled(rcv, '8', strName.size() + 19);
        EXPECT_EQ(reg, open + strName + std::string("\0\1\1", 3));
        SendScrambled(rcv, Ack(16));
        WantEnd(req);
        WantEnd(rcv);
    });
    CClientSock client;
    const SHandshake done = Connect(client, server.Host());
    EXPECT_EQ(done.nResult, 0);
    EXPECT_EQ(done.strPrjName, "demo");
    EXPECT_EQ(done.strTitle, "title");
    EXPECT_EQ(done.ack.bFlag, 6) << "16 arrives as 6";
    EXPECT_EQ(std::memcmp(&done.ack.dif_time, "\x01\x02\x03\x04\x05\x06\x07\x08", 8), 0);
    long nMs = 0;
    EXPECT_TRUE(client.m_reqSock.GetRecvTimeOut(nMs));
    EXPECT_EQ(nMs, 8000);
    EXPECT_TRUE(client.m_rcvSock.GetRecvTimeOut(nMs));
    EXPECT_GT(nMs, 0x7FFFFFFF - 1000);
    EXPECT_FALSE(client.m_bLocalDB);
    client.StopSock();
}

TEST(ConnectDB, AnyOtherFlagArrivesUnchanged)
{
    for (const char chFlag : {'\0', '\6', '\x11'}) {
        CLoopback server;
        server.Run([chFlag](CLoopback& self) {
            CSyncSocket req;
            self.Accept(req);
            WantScrambled(req, '7', 16);
            Send(req, "7 and more");
            CSyncSocket rcv;
            self.Accept(rcv);
            WantScrambled(rcv, '8', HostName().size() + 19);
            SendScrambled(rcv, Ack(chFlag));
        });
        CClientSock client;
        EXPECT_EQ(Connect(client, server.Host()).ack.bFlag, chFlag);
    }
}

TEST(ConnectDB, TellsRefusalsOfTheOpenRequestFromOtherReplies)
{
    const struct
    {
        std::string strReply;
        int nResult;
    } rows[] = {{"0", CONNECT_REFUSED}, {"07", CONNECT_REFUSED}, {"x", 1}, {"8", 1}, {"", 1}};
    for (const auto& row : rows) {
        CLoopback server;
        server.Run([&row](CLoopback& self) {
            CSyncSocket req;
            self.Accept(req);
            WantScrambled(req, '7', 16);
            Send(req, row.strReply);
        });
        CClientSock client;
        EXPECT_EQ(Connect(client, server.Host()).nResult, row.nResult) << row.strReply;
    }
}

TEST(ConnectDB, TellsRefusalsOfTheRegisterRequestFromOtherReplies)
{
    const struct
    {
        std::string strPlain;
        int nResult;
    } rows[] = {{"0", 1244}, {"8", 1}, {"00", 1}, {Ack().substr(0, 59), 1}, {Ack(0, '9'), 1}};
    for (const auto& row : rows) {
        CLoopback server;
        server.Run([&row](CLoopback& self) {
            CSyncSocket req;
            self.Accept(req);
            WantScrambled(req, '7', 16);
            Send(req, "7");
            CSyncSocket rcv;
            self.Accept(rcv);
            WantScrambled(rcv, '8', HostName().size() + 19);
            SendScrambled(rcv, row.strPlain);
        });
        CClientSock client;
        EXPECT_EQ(Connect(client, server.Host()).nResult, row.nResult) << row.strPlain.size();
    }
}

/// A redirect to an address: "7lan", the address and the port, both in network order.
std::string Redirect(UINT nPort, const char* szWord = "lan")
{
    std::string reply = std::string("7") + szWord + std::string("\x7F\0\0\1", 4);
    reply.push_back(static_cast<char>(nPort >> 8));
    reply.push_back(static_cast<char>(nPort));
    return reply;
}

TEST(ConnectDB, FollowsTheRelaysRedirectWithANewDirectConnection)
{
    CLoopback direct;
    direct.Run([](CLoopback& self) {
        CSyncSocket req;
        self.Accept(req);
        WantScrambled(req, '7', 16);
        Send(req, "7");
        CSyncSocket rcv;
        self.Accept(rcv);
        WantScrambled(rcv, '8', HostName().size() + 19);
        SendScrambled(rcv, Ack());
    });
    CLoopback relay("127.77.1.1", CClientSock::RELAY_PORT); // the wire fixes the port
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
    const SHandshake done = Connect(client, "p2p(127.77.1.1):plant");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Is same lan ...\n");
    EXPECT_EQ(done.nResult, 0);
    EXPECT_TRUE(client.m_bLan);
    EXPECT_EQ(client.m_reqSock.m_nCenterIp, 0U);
}

TEST(ConnectDB, FollowsEightRedirectsAndNoMore)
{
    CLoopback relay("127.77.1.2", CClientSock::RELAY_PORT);
    int nOpened = 0;
    relay.Run([&nOpened](CLoopback& self) {
        for (int i = 0; i < 9; ++i) {
            CSyncSocket req;
            self.Accept(req);
            WantScrambled(req, '7', i == 0 ? 24 : 23); // a direct address with this port sends an empty name
            ++nOpened;
            std::string reply = Redirect(CClientSock::RELAY_PORT);
            std::memcpy(&reply[4], "\x7F\x4D\x01\x02", 4);
            Send(req, reply);
            WantEnd(req);
        }
    });
    CClientSock client;
    testing::internal::CaptureStdout();
    EXPECT_EQ(Connect(client, "p2p(127.77.1.2):s").nResult, 1);
    const std::string strPrinted = testing::internal::GetCapturedStdout();
    client.StopSock(); // the last one stays open until then
    relay.Join();
    EXPECT_EQ(nOpened, 9);
    EXPECT_EQ(strPrinted.size(), 8 * std::string("Is same lan ...\n").size());
}

/// A client whose request socket leads to a far end that the test holds.
struct SRequests
{
    SRequests()
    {
        CLoopback listener;
        EXPECT_TRUE(client.m_reqSock.Create());
        EXPECT_TRUE(client.m_reqSock._Connect("127.0.0.1", listener.Port()));
        listener.Accept(server);
        client.m_reqSock.SetTimeOut(200);
    }
    CClientSock client;
    CSyncSocket server;
};

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

TEST(Exchange, WaitsOutTheRestOfOneThatEndedUnclean)
{
    SRequests requests;
    {
        const CExchange unclean(requests.client);
    }
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
        Send(requests.server, "late");
    });
    {
        CExchange exchange(requests.client);
        exchange.Succeed();
    }
    late.join();
    Send(requests.server, "new");
    std::array<char, 3> buf{};
    EXPECT_TRUE(requests.client.ReqRecvAll(buf.data(), 3));
    EXPECT_EQ(std::string_view(buf.data(), 3), "new");
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

TEST(GetPrjPath, TakesFourTextsAndNothingFromAnotherReply)
{
    SRequests requests;
    std::thread server([&] {
        Want(requests.server, "3");
        Send(requests.server, std::string("3/p/\0/e/\0/a/\0/h/\0", 17));
        Want(requests.server, "3");
        Send(requests.server, std::string("4/x/\0/x/\0/x/\0/x/\0", 17));
    });
    CString strPrj;
    CString strEvent;
    CString strAlarm;
    CString strHist;
    EXPECT_TRUE(requests.client.GetPrjPath(strPrj, strEvent, strAlarm, strHist));
    EXPECT_FALSE(requests.client.GetPrjPath(strPrj, strEvent, strAlarm, strHist));
    EXPECT_EQ(strPrj + strEvent + strAlarm + strHist, "/p//e//a//h/");
    server.join();
}

TEST(AfterConnect, AsksAServerOfThisMachineAndSaysWhenItHasNoPaths)
{
    SRequests requests;
    std::thread server([&] {
        Want(requests.server, "3");
        Send(requests.server, "0");
    });
    requests.client.m_bLocalDB = true;
    CString strErr;
    EXPECT_FALSE(requests.client.AfterConnect("host", "demo", strErr));
    EXPECT_EQ(strErr, "\xCE\xDE\xB7\xA8\xBB\xF1\xC8\xA1\xB9\xA4\xB3\xCC\xC2\xB7\xBE\xB6");
    server.join();
}

TEST(AfterConnect, BuildsTheMirrorOnceAndKeepsWhatIsInIt)
{
    const std::string strHost = "unit:test:" + std::to_string(::getpid());
    const fs::path root = std::string(RKDB_MIRROR_ROOT) + "unit_test_" + std::to_string(::getpid());
    CClientSock client;
    client.m_bLocalDB = false;
    CString strErr;
    const mode_t nUmask = ::umask(0);
    ASSERT_TRUE(client.AfterConnect(strHost.c_str(), "\xCA\xBE\xB7\xB6", strErr)); // 示范
    ::umask(nUmask);
    EXPECT_EQ(client.m_strPrjPath, root.string() + "/\xCA\xBE\xB7\xB6/");
    const fs::path project = root / "示范";
    for (const char* szDir : {"Window", "3DWnd", "Report", "CtmGph", "ScnDrv", "DBDrv", "Media", "SysCfg",
                              "RecData", "ExtData", "RecData/Event", "RecData/Alarm2"})
        EXPECT_EQ(fs::status(project / szDir).permissions(), fs::perms::owner_all) << szDir;
    std::ofstream(project / "Media/kept") << "x";
    EXPECT_TRUE(client.AfterConnect(strHost.c_str(), "\xCA\xBE\xB7\xB6", strErr));
    EXPECT_TRUE(fs::exists(project / "Media/kept"));
    fs::remove_all(root);
}

} // namespace
