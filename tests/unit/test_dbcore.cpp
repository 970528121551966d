// Connecting and what can go wrong in it, the driver directory, and the small requests.
#include "core_fixture.h"

#include <filesystem>
#include <fstream>

namespace {

const Bytes DIRECTORY = DrvRecord("A", 0, 5) + DrvRecord("B", 1, 10);

class Connect : public CDBCoreTest
{
protected:
    void TearDown() override
    {
        DeleteCore();
        m_server.req.Close();
        m_server.rcv.Close();
        CDBCoreTest::TearDown();
    }
    /// Connects while the server plays its part.
    EConnect Try(const std::function<void()>& play, LPCSTR szUser = "user", LPCSTR szPassword = "secret")
    {
        const CPlay server(play);
        return Core()._Connect(CString(m_server.Host()), szUser, szPassword);
    }
    void ExpectClosed()
    {
        EXPECT_FALSE(Core().IsConnected());
        EXPECT_EQ(Core().m_reqSock.GetHandle(), -1);
        EXPECT_EQ(Core().m_rcvSock.GetHandle(), -1);
        EXPECT_EQ(CDBCore::CountThreads(), 0);
    }
    void Welcome(DWORD nRights = CDBCore::WRITE_RIGHT)
    {
        ASSERT_EQ(Try([&] { m_server.Welcome(DIRECTORY, nRights); }), EConnect::Connected);
        ASSERT_TRUE(WaitUntil([] { return CDBCore::CountThreads() == 1; }));
    }

    CServer m_server;
};

TEST_F(Connect, OpensLogsInLoadsTheDriversAndStartsToReceive)
{
    Welcome(0xFFFF0008);
    EXPECT_TRUE(Core().IsConnected());
    EXPECT_EQ(Core().m_nRights, 0xFFFF0008);
    EXPECT_EQ(CountDirectory(), 2U);
    EXPECT_EQ(CountSlots(), 2U);
    EXPECT_FALSE(HasDriverAt(0) || HasDriverAt(1)) << "drivers are made when they are asked for";
    EXPECT_EQ(std::string(Core().m_strPrjPath), m_server.Mirror());
    m_req = std::move(m_server.req);
    CDBDriver* pB = Core()._GetDriver("B");
    ASSERT_TRUE(pB);
    Subscribe(*pB, {{"t", 9, Typed(VT_I4, U32(0))}});
    m_server.rcv.Send(Change(1, 9, U32(42)));
    EXPECT_TRUE(WaitUntil([&] { return Read(*pB, "t") == "42"; }));
}

TEST_F(Connect, AnUnreachableHostFails)
{
    EXPECT_EQ(Core()._Connect(CString("127.0.0.1:1"), "user", "secret"), EConnect::Failed);
    EXPECT_EQ(Core()._Connect(CString("p2p"), "user", "secret"), EConnect::Failed);
    EXPECT_EQ(Core()._Connect(CString(""), "user", "secret"), EConnect::Failed);
    ExpectClosed();
}

TEST_F(Connect, ARefusedHandshakeFails)
{
    EXPECT_EQ(Try([&] { m_server.Refuse(); }), EConnect::Failed);
    ExpectClosed();
}

TEST_F(Connect, ProjectNamesThatLeadNowhereAreAProtocolErrorBeforeAnyFolderIsMade)
{
    for (const char* szName : {"", ".", "..", "a/b", "/", "../../tmp/x"}) {
        EXPECT_EQ(Try([&] { m_server.Handshake(szName); }), EConnect::Protocol) << szName;
        ExpectClosed();
        m_server.req.WantEnd();
        EXPECT_FALSE(std::filesystem::exists(m_server.Mirror(""))) << szName;
    }
}

TEST_F(Connect, ARefusedLoginIsToldApartFromARubbishOne)
{
    const auto login = [&](const Bytes& reply) {
        return Try([&, reply] {
            m_server.Handshake();
            m_server.req.Want(U8('9') + Text("user") + Text("secret"));
            m_server.req.Send(reply);
            if (reply.empty())
                m_server.req.Close();
        });
    };
    EXPECT_EQ(login(U8('0')), EConnect::LoginRefused);
    ExpectClosed();
    EXPECT_EQ(login(U8('0') + U32(0) + U32(8)), EConnect::LoginRefused);
    EXPECT_EQ(login(U8('8') + U32(0) + U32(8)), EConnect::Protocol);
    EXPECT_EQ(login(U8(0)), EConnect::Protocol);
    EXPECT_EQ(login({}), EConnect::Failed) << "no reply at all";
    ExpectClosed();
    EXPECT_EQ(Core().m_nRights, 0U);
}

TEST_F(Connect, TheLongestLoginFillsItsRequestAndOneByteMoreSendsNothing)
{
    const std::string strUser(200, 'u');
    const std::string strPassword(53, 'p'); // 200 + 53 + 3 = 256
    EXPECT_EQ(Try(
                  [&] {
                      m_server.Handshake();
                      m_server.req.Want(U8('9') + Text(strUser) + Text(strPassword));
                      m_server.req.Send(U8('0'));
                  },
                  strUser.c_str(), strPassword.c_str()),
              EConnect::LoginRefused);
    for (const auto& [strU, strP] :
         {std::pair(strUser, strPassword + "p"), std::pair(std::string(255, 'u'), std::string()),
          std::pair(std::string(100000, 'u'), std::string("p"))}) {
        EXPECT_EQ(Try([&] { m_server.Handshake(); }, strU.c_str(), strP.c_str()), EConnect::Failed);
        m_server.req.WantEnd();
        ExpectClosed();
    }
}

TEST_F(Connect, UserAndPasswordArePassedOnByteForByte)
{
    EXPECT_EQ(Try(
                  [&] {
                      m_server.Handshake();
                      m_server.req.Want(U8('9') + Text("\xE6\xB0\xB4") + Text(""));
                      m_server.req.Send(U8('0'));
                  },
                  "\xE6\xB0\xB4", ""),
              EConnect::LoginRefused);
}

TEST_F(Connect, ADirectoryThatDoesNotComeFails)
{
    EXPECT_EQ(Try([&] {
                  m_server.Handshake();
                  m_server.Login();
                  m_server.req.TakeUntil("\r\n\r\n");
                  m_server.req.Close();
              }),
              EConnect::Failed);
    ExpectClosed();
}

TEST_F(Connect, ACurrentCopyOfTheDirectoryIsNotFetchedAgain)
{
    Welcome();
    ASSERT_TRUE(Core()._Disconnect());
    EXPECT_EQ(Try([&] {
                  m_server.Handshake("unitcore", 1700000000, static_cast<UINT>(DIRECTORY.size()));
                  m_server.Login();
              }),
              EConnect::Connected);
    EXPECT_TRUE(m_server.req.IsSilent());
    EXPECT_EQ(CountDirectory(), 2U);
    ASSERT_TRUE(Core()._Disconnect());
    EXPECT_EQ(Try([&] {
                  m_server.Handshake("unitcore", 1700000000, static_cast<UINT>(DIRECTORY.size()) + 1);
                  m_server.Login();
                  m_server.Download("RecData/drvinfo.dat", DIRECTORY + DrvRecord("C", 2, 1), 1700000000);
              }),
              EConnect::Connected)
        << "another size";
    EXPECT_EQ(CountDirectory(), 3U);
}

TEST_F(Connect, ASecondConnectEndsTheFirstConnection)
{
    Welcome();
    const CDriverRef old(Core()._GetDriver("A"));
    CFarEnd oldReq = std::move(m_server.req);
    CFarEnd oldRcv = std::move(m_server.rcv);
    EXPECT_EQ(Try([&] {
                  oldReq.WantEnd();
                  oldRcv.WantEnd();
                  m_server.Handshake("unitcore", 1700000000, static_cast<UINT>(DIRECTORY.size()));
                  m_server.Login(0);
              }),
              EConnect::Connected);
    EXPECT_TRUE(WaitUntil([] { return CDBCore::CountThreads() == 1; }));
    EXPECT_EQ(Core().m_nRights, 0U);
    EXPECT_NE(Core()._GetDriver("A"), old.Get());
    EXPECT_EQ(Read(*old.Get(), "anything"), "None");
    EXPECT_TRUE(m_server.req.IsSilent());
}

TEST_F(Connect, AfterALossTheSameCoreConnectsAgain)
{
    Welcome();
    m_server.rcv.Close();
    ASSERT_TRUE(WaitForThreads());
    ExpectClosed();
    EXPECT_EQ(Try([&] {
                  m_server.Handshake("unitcore", 1700000000, static_cast<UINT>(DIRECTORY.size()));
                  m_server.Login();
              }),
              EConnect::Connected);
    EXPECT_TRUE(Core()._GetDriver("A"));
}

TEST_F(Connect, ACallbackMayConnectAgain)
{
    Welcome();
    m_req = std::move(m_server.req);
    CFarEnd oldRcv = std::move(m_server.rcv);
    CDBDriver* pA = Core()._GetDriver("A");
    Subscribe(*pA, {{"t", 1, Typed(VT_I4, U32(0))}});
    std::atomic<int> nCalls{0};
    const CPyRef fn = MakeCallable([&](PyObject*) {
        EXPECT_EQ(Try([&] {
                      m_req.WantEnd();
                      m_server.Handshake("unitcore", 1700000000, static_cast<UINT>(DIRECTORY.size()));
                      m_server.Login();
                  }),
                  EConnect::Connected);
        ++nCalls;
        return None();
    });
    ASSERT_TRUE(pA->SetTagNotify(fn.get()));
    oldRcv.Send(Change(0, 1, U32(5)) * 10);
    EXPECT_TRUE(WaitWhileOthersRun([&] { return nCalls == 1 && CDBCore::CountThreads() == 1; }));
    EXPECT_TRUE(Core().IsConnected());
    m_req = std::move(m_server.req);
    pA = Core()._GetDriver("A");
    Subscribe(*pA, {{"t", 1, Typed(VT_I4, U32(0))}});
    m_server.rcv.Send(Change(0, 1, U32(6)));
    EXPECT_TRUE(WaitWhileOthersRun([&] { return Read(*pA, "t") == "6"; }));
    EXPECT_EQ(nCalls, 1) << "the old registration went with its connection";
}

TEST_F(Connect, AFailedSecondConnectLeavesNothingOfTheFirst)
{
    Welcome();
    CFarEnd oldReq = std::move(m_server.req);
    EXPECT_EQ(Try([&] {
                  oldReq.WantEnd();
                  m_server.Refuse();
              }),
              EConnect::Failed);
    ExpectClosed();
    EXPECT_EQ(Core()._GetDriver("A"), nullptr);
}

TEST_F(Connect, DisconnectOnAnIdleCoreDoesNothing)
{
    EXPECT_TRUE(Core()._Disconnect());
    EXPECT_TRUE(Core()._Disconnect());
    EXPECT_FALSE(Core().IsConnected());
}

using Directory = CDBCoreTest;

TEST_F(Directory, DriversAreMadeOnceAndNamedExactly)
{
    AddDriver("A", 0, 5);
    AddDriver("\xB9\xF8\xC2\xAF", 1, 3);
    EXPECT_EQ(Core()._GetDriver("a"), nullptr);
    EXPECT_EQ(Core()._GetDriver(""), nullptr);
    CDBDriver* pDriver = Core()._GetDriver("A");
    ASSERT_TRUE(pDriver);
    EXPECT_EQ(pDriver->m_drvId, 0);
    EXPECT_EQ(pDriver->m_strDriver, "A");
    EXPECT_EQ(pDriver->GetTagCount(), 5U);
    EXPECT_TRUE(HasDriverAt(0));
    EXPECT_FALSE(HasDriverAt(1));
    pDriver->SetTagCount(2);
    EXPECT_EQ(Core()._GetDriver("A"), pDriver);
    EXPECT_EQ(pDriver->GetTagCount(), 2U) << "it was not sized a second time";
    EXPECT_TRUE(_DBGetDriver(&Core(), "\xE9\x94\x85\xE7\x82\x89")) << "the flat function takes UTF-8";
}

TEST_F(Directory, AnIdBeyondTheSlotTableHasNoDriver)
{
    AddDriver("A", 0, 5);
    AddDriver("B", 2, 5);
    AddDriver("C", 65535, 5);
    SetSlots(2);
    EXPECT_TRUE(Core()._GetDriver("A"));
    EXPECT_EQ(Core()._GetDriver("B"), nullptr);
    EXPECT_EQ(Core()._GetDriver("C"), nullptr);
    SetSlots(3);
    EXPECT_TRUE(Core()._GetDriver("B"));
}

class ProjectFile : public CDriverTest
{
protected:
    void SetUp() override
    {
        CDriverTest::SetUp();
        UseProjectDir({"RecData", "Media", "Window"});
    }
    int Get(const char* szFile, const std::string& strRequest, std::string_view reply)
    {
        const CPlay play([&] {
            EXPECT_EQ(m_req.TakeUntil("\r\n\r\n"), strRequest + "Hello:Yes\r\n\r\n");
            m_req.Send(Raw(reply));
            if (reply.empty())
                m_req.Close();
        });
        return Core().GetPrjFile(szFile, m_files);
    }
    /// A local copy of ten bytes with this time.
    void Put(const char* szFile, time_t nTime)
    {
        std::ofstream(ProjectDir() / szFile) << "0123456789";
        std::filesystem::last_write_time(
            ProjectDir() / szFile,
            std::filesystem::file_time_type::clock::from_sys(std::chrono::system_clock::from_time_t(nTime)));
    }
    std::string Content(const char* szFile)
    {
        std::ifstream file(ProjectDir() / szFile);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    std::map<CString, SNFileInfo> m_files;
};

TEST_F(ProjectFile, IsComparedWithTheListsTimeAndSizeByItsLowerCaseName)
{
    Put("RecData/drvinfo.dat", 1000);
    m_files[CString("recdata/drvinfo.dat")] = {1000, 10};
    EXPECT_EQ(Core().GetPrjFile("RecData/drvinfo.dat", m_files), 1);
    EXPECT_TRUE(m_req.IsSilent());
    m_files[CString("recdata/drvinfo.dat")] = {2000, 10};
    EXPECT_EQ(Get("RecData/drvinfo.dat", "4RecData/drvinfo.dat\r\nLastTime:3E8\r\nSize:A\r\n",
                  "Size:3\r\nFileTime:7D0\r\n\r\nnew"),
              1);
    EXPECT_EQ(Content("RecData/drvinfo.dat"), "new");
}

TEST_F(ProjectFile, InAFolderThatIsAlwaysSyncedTheServerIsAskedThoughItListsNothing)
{
    Put("Media/a.wav", 1000);
    EXPECT_EQ(Get("Media/a.wav", "4Media/a.wav\r\nLastTime:3E8\r\nSize:A\r\n", "UseLast:Yes\r\n\r\n"), 1);
    EXPECT_EQ(Content("Media/a.wav"), "0123456789");
    EXPECT_EQ(Get("RECDATA/x", "4RECDATA/x\r\n", "Exist:No\r\n\r\n"), 1);
    EXPECT_EQ(Get("SysCfg/x", "4SysCfg/x\r\n", "Exist:No\r\n\r\n"), 1);
}

TEST_F(ProjectFile, ElsewhereAFileThatIsNotListedIsDeletedWithoutAWord)
{
    Put("Window/old.wnd", 1000);
    EXPECT_EQ(Core().GetPrjFile("Window/old.wnd", m_files), 1);
    EXPECT_EQ(Core().GetPrjFile("Window/old.wnd", m_files), 1) << "nor does it matter that it is gone";
    EXPECT_EQ(Core().GetPrjFile("mediation/x", m_files), 1);
    EXPECT_FALSE(std::filesystem::exists(ProjectDir() / "Window/old.wnd"));
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(ProjectFile, AServerThatDoesNotAnswerHasFailed)
{
    m_files[CString("window/a.wnd")] = {1, 1};
    EXPECT_EQ(Get("Window/a.wnd", "4Window/a.wnd\r\n", ""), 0);
}

TEST_F(ProjectFile, ALocalDatabaseNeedsNoCopy)
{
    Core().m_bLocalDB = true;
    Put("Window/own.wnd", 1000);
    EXPECT_EQ(Core().GetPrjFile("Window/own.wnd", m_files), 1);
    EXPECT_EQ(Content("Window/own.wnd"), "0123456789");
    EXPECT_TRUE(m_req.IsSilent());
}

class CoreRequest : public CDriverTest
{
protected:
    template <class F> int Ask(F&& fn, const Bytes& request, const Bytes& reply)
    {
        const CPlay play([&] {
            m_req.Want(request);
            m_req.Send(reply);
        });
        return fn();
    }
};

TEST_F(CoreRequest, RequestAllReadsExactlyWhatIsNeeded)
{
    char szReply[8] = ".......";
    const auto ask = [&] { return Core().RequestAll("Labc", 4, 5, szReply); };
    EXPECT_EQ(Ask(ask, Raw("Labc"), Raw("L1234")), 1);
    EXPECT_STREQ(szReply, "L1234..");
    EXPECT_EQ(Ask(ask, Raw("Labc"), Raw("01234")), 0) << "refused";
    EXPECT_EQ(Ask(ask, Raw("Labc"), Raw("L5678surplus")), 1);
    EXPECT_STREQ(szReply, "L5678..");
    EXPECT_EQ(Core().RequestAll("Labc", 4, 5, szReply), 0) << "which byte of the rest is whose?";
    EXPECT_STREQ(szReply, "L5678..");
    ExpectEnded();
}

TEST_F(CoreRequest, ARefusalAsLongAsTheReplyIsAwaited)
{
    Core().m_reqSock.SetTimeOut(200);
    char szReply[8] = ".......";
    EXPECT_EQ(Ask([&] { return Core().RequestAll("Labc", 4, 5, szReply); }, Raw("Labc"), Raw("0")), 0);
    ExpectEnded();
}

TEST_F(CoreRequest, RequestAllWhoseSendFailsDoesNotReceive)
{
    m_req.Send(Raw("L1234"));
    Core().m_reqSock.Close();
    char szReply[8] = ".......";
    EXPECT_EQ(Core().RequestAll("Labc", 4, 5, szReply), 0);
    EXPECT_STREQ(szReply, ".......");
}

TEST_F(CoreRequest, ATagIdIsTwoBytesBehindTheEcho)
{
    WORD nTag = 77;
    const auto ask = [&] { return Core().GetTagId(0x0102, "name", &nTag); };
    const Bytes request = U8('L') + U16(0x0102) + Text("name");
    EXPECT_EQ(Ask(ask, request, U8('L') + U16(0x0304)), 1);
    EXPECT_EQ(nTag, 0x0304);
    EXPECT_EQ(Ask(ask, request, U8('L') + U16(5) + U8(9) * 13), 1);
    EXPECT_EQ(nTag, 5);
    EXPECT_EQ(Ask(ask, request, U8('L') + U16(6) + U8('L') * 40), 1) << "more than the 16 bytes of a reply";
    EXPECT_EQ(nTag, 6);
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(nTag, 6);
    ExpectEnded();
}

TEST_F(CoreRequest, ATagIdInPiecesIsReadWhole)
{
    WORD nTag = 77;
    const CPlay play([&] {
        m_req.Want(U8('L') + U16(1) + Text("name"));
        for (const BYTE n : U8('L') + U16(0x0304)) {
            m_req.Send({n});
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    EXPECT_EQ(Core().GetTagId(1, "name", &nTag), 1);
    EXPECT_EQ(nTag, 0x0304);
}

TEST_F(CoreRequest, AnyOtherReplyLeavesTheTagIdUntouched)
{
    WORD nTag = 77;
    const auto ask = [&] { return Core().GetTagId(1, "name", &nTag); };
    for (const Bytes& reply : {U8('0'), U8('l') + U16(5), U8('L'), U8('L') + U8(5)}) {
        Core().m_reqSock.SetTimeOut(200);
        EXPECT_EQ(Ask(ask, U8('L') + U16(1) + Text("name"), reply), 0) << Hex(reply);
        ExpectEnded();
        Renew();
    }
    EXPECT_EQ(nTag, 77);
}

TEST_F(CoreRequest, WithoutAConnectionNoTagIdIsAskedFor)
{
    CDBCore idle;
    WORD nTag = 77;
    EXPECT_EQ(idle.GetTagId(1, "name", &nTag), 0);
    StartReceiving();
    m_rcv.Close();
    ASSERT_TRUE(WaitForThreads());
    m_req.WantEnd();
    EXPECT_EQ(Core().GetTagId(1, "name", &nTag), 0);
    EXPECT_EQ(nTag, 77);
}

TEST_F(CoreRequest, ReleasingAHandleSendsAll64Bits)
{
    const auto ask = [&] { return Core().UnadviseTag(-2); };
    const Bytes request = U8('d') + U64(0xFFFFFFFFFFFFFFFE);
    EXPECT_EQ(Ask(ask, request, U8('d')), 1);
    EXPECT_EQ(Ask([&] { return Core().UnadviseTag(0x0102030405060708); }, U8('d') + U64(0x0102030405060708),
                  U8('d') + U64(0)),
              1);
    EXPECT_EQ(Ask(ask, request, U8('0')), 0);
    ExpectEnded();
    EXPECT_EQ(Core().UnadviseTag(1), 0);
}

} // namespace
