// Real-time alarms: the registration's bytes, the list files, the arguments of a call, and the pushed ones.
#include "core_fixture.h"

#include <filesystem>
#include <fstream>
#include <numeric>

namespace {

struct SAlarm
{
    uint32_t almtm = 0;
    uint32_t evttm = 0;
    unsigned tid = 0;
    unsigned type = 0;
    unsigned grp = 0;
    unsigned level = 0;
    unsigned status = 0;
    double value = 0;
    double limit = 0;
};

/// The record as it lies on the wire, written down a second time.
Bytes Record(const SAlarm& a)
{
    return U32(a.almtm) + U32(a.evttm) + U16(a.tid) + U16(a.type) + U16(a.grp) + U8(a.level) + U8(a.status) +
           F64(a.value) + F64(a.limit);
}

Bytes Pushed(unsigned nSubType, const SAlarm& alarm)
{
    return U16(0xFFFF) + U8(nSubType) + Record(alarm);
}

/// 2021-03-04 05:06:07 UTC, which is eight hours later on the clocks of the tests.
constexpr uint32_t ALARM_TIME = 1614834367;
constexpr const char* ALARM_TIME_REPR = "datetime.datetime(2021, 3, 4, 13, 6, 7)";

/// A directory of its own, with the list files that the test gives.
class CAlarmTest : public CDriverTest
{
protected:
    void SetUp() override
    {
        ::setenv("TZ", "TST-8", 1);
        ::tzset();
        CDriverTest::SetUp();
        UseProjectDir({"RecData"});
        m_fn = MakeCallable([this](PyObject* pArgs) {
            m_calls.push_back(Repr(pArgs));
            return None();
        });
    }
    void TearDown() override
    {
        m_fn.reset();
        CDriverTest::TearDown();
        ::unsetenv("TZ");
        ::tzset();
    }
    CStringList Lines(std::string_view text)
    {
        const auto path = ProjectDir() / "list";
        std::ofstream(path, std::ios::binary) << text;
        CStringList list;
        InitStringList(CString(path.string()), list);
        return list;
    }
    void SendFile(const char* szFile, std::string_view text)
    {
        EXPECT_EQ(m_req.TakeUntil("\r\n\r\n"), std::string("4") + szFile + "\r\nHello:Yes\r\n\r\n");
        char szHead[64];
        std::snprintf(szHead, sizeof szHead, "Exist:Yes\r\nSize:%zX\r\nFileTime:65000000\r\n\r\n",
                      text.size());
        m_req.Send(Raw(szHead) + Raw(text));
    }
    void SendLists()
    {
        SendFile("RecData/textlist", "type 0\ntype 1\n\xD1\xB9\xC1\xA6\n");
        SendFile("RecData/taglist", "tag 0\r\ntag 1\r\n");
    }
    /// Registers m_fn; the far end reports these active alarms.
    void Register(const std::vector<SAlarm>& active, bool bExisting)
    {
        Bytes reply = U8('n') + U16(static_cast<unsigned>(active.size()));
        for (const SAlarm& alarm : active)
            reply = reply + Record(alarm);
        const CPlay play([&] {
            m_req.Want(U8('n'));
            m_req.Send(reply);
            SendLists();
        });
        EXPECT_EQ(Core()._SetRtAlarmNotify(m_fn.get(), bExisting), 0);
    }

    CPyRef m_fn;
    std::vector<std::string> m_calls;
};

using StringLists = CAlarmTest;
using Alarms = CAlarmTest;

TEST_F(StringLists, LinesEndInLfOrCrLfAndEmptyOnesAreNoEntries)
{
    EXPECT_EQ(Lines("A\n\nB\r\nC"), (CStringList{"A", "B", "C"}));
    EXPECT_EQ(Lines("\n\n\nA\n"), CStringList{"A"});
    EXPECT_EQ(Lines("\r\nA\r\n\r\nB\r\n"), (CStringList{"A", "B"}));
    EXPECT_EQ(Lines("A\nB\r"), (CStringList{"A", "B"})) << "a final CR without its LF";
    EXPECT_EQ(Lines(" \nB"), (CStringList{" ", "B"})) << "a blank is no empty line";
}

TEST_F(StringLists, AnEmptyFileOrOneOfLineEndsHasNoEntry)
{
    EXPECT_EQ(Lines(""), CStringList{});
    EXPECT_EQ(Lines("\n\r\n\n\r\n"), CStringList{});
    EXPECT_EQ(Lines("\r"), CStringList{});
}

TEST_F(StringLists, OnlyTheLastCrBelongsToTheLineEnd)
{
    EXPECT_EQ(Lines("A\rB\r\r\nC\n"), (CStringList{"A\rB\r", "C"}));
}

TEST_F(StringLists, ALineIsCutAt255Bytes)
{
    const std::string strLong(254, 'x');
    EXPECT_EQ(Lines(strLong + "y\n2\n"), (CStringList{(strLong + "y").c_str(), "2"}));
    EXPECT_EQ(Lines(strLong + "yz\n2\n"), (CStringList{(strLong + "y").c_str(), "2"}));
    EXPECT_EQ(Lines(strLong + "yz\r\n2\n"), (CStringList{(strLong + "y").c_str(), "2"}));
    EXPECT_EQ(Lines(strLong + std::string(10000, 'y') + "\n2"), (CStringList{(strLong + "y").c_str(), "2"}));
    EXPECT_EQ(Lines("1\n" + strLong + "yyy"), (CStringList{"1", (strLong + "y").c_str()}));
}

TEST_F(StringLists, EntriesBecomeUtf8)
{
    EXPECT_EQ(Lines("\xCB\xAE\xCE\xBB\n\xD1\xB9\xC1\xA6\r\nend"),
              (CStringList{"\xE6\xB0\xB4\xE4\xBD\x8D", "\xE5\x8E\x8B\xE5\x8A\x9B", "end"}));
}

TEST_F(StringLists, ACharacterThatTheCutOf255BytesHalvesIsLeftOut)
{
    const std::string strLine = std::string(254, 'x') + "\xCB\xAE";
    EXPECT_EQ(Lines(strLine + "\nB"), (CStringList{std::string(254, 'x').c_str(), "B"}));
}

TEST_F(StringLists, ALineEndsAtItsFirstNul)
{
    EXPECT_EQ(Lines(std::string_view("A\0B\nC\n", 6)), (CStringList{"A", "C"}));
    EXPECT_EQ(Lines(std::string_view("\0B\nC\n", 5)), CStringList{"C"});
}

TEST_F(StringLists, AFileOfAnyLengthIsReadWhole)
{
    std::string strText;
    CStringList want;
    for (int i = 0; i < 3000; ++i) {
        const std::string strLine = "line " + std::to_string(i);
        strText += strLine + (i % 2 ? "\n" : "\r\n");
        want.emplace_back(strLine);
    }
    EXPECT_EQ(Lines(strText), want);
}

TEST_F(StringLists, AListHasABoundOfItsEntries)
{
    std::string strText;
    for (int i = 0; i < 70000; ++i)
        strText += std::to_string(i) + "\n\n";
    const CStringList list = Lines(strText);
    ASSERT_EQ(list.size(), 65536U);
    EXPECT_EQ(list.back(), "65535");
}

TEST_F(StringLists, AFileThatIsNotToBeTrustedLeavesTheListEmpty)
{
    EXPECT_EQ(Lines("planted\n"), CStringList{"planted"});
    std::filesystem::create_symlink(ProjectDir() / "list", ProjectDir() / "link");
    CStringList list;
    InitStringList(CString((ProjectDir() / "link").string()), list);
    EXPECT_TRUE(list.empty());
    std::filesystem::permissions(ProjectDir() / "list", std::filesystem::perms::others_write,
                                 std::filesystem::perm_options::add);
    InitStringList(CString((ProjectDir() / "list").string()), list);
    EXPECT_TRUE(list.empty());
}

TEST_F(StringLists, AListWithEntriesIsLeftAlone)
{
    std::ofstream(ProjectDir() / "list") << "new\n";
    CStringList list{"old"};
    InitStringList(CString((ProjectDir() / "list").string()), list);
    EXPECT_EQ(list, CStringList{"old"});
}

TEST_F(StringLists, AMissingFileLeavesTheListEmpty)
{
    CStringList list;
    InitStringList(CString((ProjectDir() / "none").string()), list);
    EXPECT_TRUE(list.empty());
}

TEST_F(Alarms, ACallHasTenArgumentsInTheirOrderAndTypes)
{
    Register({{ALARM_TIME, ALARM_TIME + 60, 1, 2, 0, 3, 4, 1.5, -2.25}}, true);
    EXPECT_EQ(m_calls, std::vector<std::string>{std::string("(") + ALARM_TIME_REPR +
                                                ", datetime.datetime(2021, 3, 4, 13, 7, 7), 'tag 1', 1, "
                                                "'\xE5\x8E\x8B\xE5\x8A\x9B', 'type 0', 3, 1.5, -2.25, 4)"});
}

TEST_F(Alarms, WithoutALaterEventItsTimeIsTheAlarmsAndTheFlagIsZero)
{
    Register({{ALARM_TIME, 0, 0, 0, 1, 255, 254, 0.0, 1e300}}, true);
    EXPECT_EQ(m_calls, std::vector<std::string>{std::string("(") + ALARM_TIME_REPR + ", " + ALARM_TIME_REPR +
                                                ", 'tag 0', 0, 'type 0', 'type 1', 255, 0.0, 1e+300, 254)"});
}

TEST_F(Alarms, AnIndexAtOrBeyondTheEndOfItsListIsThreeQuestionMarks)
{
    Register({{ALARM_TIME, 0, 2, 3, 65535}, {ALARM_TIME, 0, 65535, 65535, 3}}, true);
    ASSERT_EQ(m_calls.size(), 2U);
    for (const std::string& strCall : m_calls)
        EXPECT_NE(strCall.find("'\?\?\?', 0, '\?\?\?', '\?\?\?', 0, 0.0, 0.0, 0)"), std::string::npos)
            << strCall;
}

TEST_F(Alarms, EverySecondOfTheWiresClockHasALocalTime)
{
    Register({{0xFFFFFFFF, 0}, {1, 0}}, true);
    ASSERT_EQ(m_calls.size(), 2U);
    EXPECT_NE(m_calls[0].find("datetime.datetime(1970, 1, 1, 8, 0, 1)"), std::string::npos) << m_calls[0];
    EXPECT_NE(m_calls[1].find("datetime.datetime(2106, 2, 7, 14, 28, 15)"), std::string::npos) << m_calls[1];
}

TEST_F(Alarms, AChangeOfTheTimeZoneCountsAtOnce)
{
    ASSERT_EQ(::setenv("TZ", "UTC-3", 1), 0); // three hours east; nobody calls tzset()
    Register({{1, 0}}, true);
    ASSERT_EQ(m_calls.size(), 1U);
    EXPECT_NE(m_calls[0].find("datetime.datetime(1970, 1, 1, 3, 0, 1)"), std::string::npos) << m_calls[0];
}

TEST_F(Alarms, ActiveOnesComeInReverseOrderBeforeTheRegistrationReturns)
{
    Register({{ALARM_TIME, 0, 0, 0, 0, 1}, {ALARM_TIME, 0, 0, 0, 0, 2}, {ALARM_TIME, 0, 0, 0, 0, 3}}, true);
    ASSERT_EQ(m_calls.size(), 3U);
    EXPECT_NE(m_calls[0].find("'type 0', 3, 0.0"), std::string::npos) << m_calls[0];
    EXPECT_NE(m_calls[1].find("'type 0', 2, 0.0"), std::string::npos) << m_calls[1];
    EXPECT_NE(m_calls[2].find("'type 0', 1, 0.0"), std::string::npos) << m_calls[2];
}

TEST_F(Alarms, ActiveOnesAreReadAndDroppedWhenNobodyWantsThem)
{
    Register({{ALARM_TIME}, {ALARM_TIME}}, false);
    EXPECT_TRUE(m_calls.empty());
    EXPECT_TRUE(HasAlarmReceiver());
    EXPECT_EQ(Pending(Core().m_reqSock), 0U);
}

TEST_F(Alarms, AReplyInPiecesIsReadWhole)
{
    const CPlay play([&] {
        m_req.Want(U8('n'));
        for (const BYTE n : U8('n') + U16(2) + Record({ALARM_TIME, 0, 1}) + Record({ALARM_TIME, 0, 0})) {
            m_req.Send({n});
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        SendLists();
    });
    EXPECT_EQ(Core()._SetRtAlarmNotify(m_fn.get(), true), 0);
    ASSERT_EQ(m_calls.size(), 2U);
    EXPECT_NE(m_calls[0].find("'tag 0'"), std::string::npos);
    EXPECT_NE(m_calls[1].find("'tag 1'"), std::string::npos);
}

TEST_F(Alarms, ASecondRegistrationIsRefusedAndSendsNothing)
{
    Register({}, false);
    const CPyRef other = MakeCallable([](PyObject*) { return None(); });
    EXPECT_EQ(Core()._SetRtAlarmNotify(other.get(), true), -1);
    EXPECT_TRUE(m_req.IsSilent());
    EXPECT_EQ(Py_REFCNT(other.get()), 1);
}

TEST_F(Alarms, AReplyOfAnotherCommandFailsAndLeavesNoReceiver)
{
    const CPlay play([&] {
        m_req.Want(U8('n'));
        m_req.Send(U8('0'));
    });
    EXPECT_EQ(Core()._SetRtAlarmNotify(m_fn.get(), true), -2);
    EXPECT_FALSE(HasAlarmReceiver());
    EXPECT_EQ(Py_REFCNT(m_fn.get()), 1);
}

TEST_F(Alarms, AReplyThatIsCutShortFailsAndTheNextTryStartsAfresh)
{
    const Bytes whole = U8('n') + U16(1) + Record({ALARM_TIME});
    for (const size_t nLen : {size_t{0}, size_t{2}, size_t{3}, whole.size() - 1}) {
        {
            const CPlay play([&] {
                m_req.Want(U8('n'));
                m_req.Send(Bytes(whole.begin(), whole.begin() + static_cast<long>(nLen)));
                m_req.Close();
            });
            EXPECT_EQ(Core()._SetRtAlarmNotify(m_fn.get(), true), -2) << nLen;
        }
        EXPECT_TRUE(m_calls.empty());
        EXPECT_FALSE(HasAlarmReceiver());
        Core().m_reqSock.Close();
        m_req = CFarEnd::Meet(Core().m_reqSock);
    }
    Register({{ALARM_TIME}}, true);
    EXPECT_EQ(m_calls.size(), 1U);
}

TEST_F(Alarms, WithoutAConnectionTheRegistrationFails)
{
    Core().StopSock();
    EXPECT_EQ(Core()._SetRtAlarmNotify(m_fn.get(), true), -2);
    EXPECT_FALSE(HasAlarmReceiver());
}

TEST_F(Alarms, MissingListFilesGiveQuestionMarksAndStillRegister)
{
    const CPlay play([&] {
        m_req.Want(U8('n'));
        m_req.Send(U8('n') + U16(1) + Record({ALARM_TIME}));
        for (const char* szFile : {"textlist", "taglist"}) {
            EXPECT_EQ(m_req.TakeUntil("\r\n\r\n"),
                      std::string("4RecData/") + szFile + "\r\nHello:Yes\r\n\r\n");
            m_req.Send(Raw("Exist:No\r\n\r\n"));
        }
    });
    EXPECT_EQ(Core()._SetRtAlarmNotify(m_fn.get(), true), 0);
    ASSERT_EQ(m_calls.size(), 1U);
    EXPECT_NE(m_calls[0].find("'\?\?\?', 0, '\?\?\?', '\?\?\?'"), std::string::npos) << m_calls[0];
}

TEST_F(Alarms, AnExceptionOfOneActiveAlarmIsReportedAndTheOthersAreDelivered)
{
    CUnraisable unraisable;
    m_fn = MakeCallable([this](PyObject* pArgs) -> PyObject* {
        m_calls.push_back(Repr(pArgs));
        PyErr_SetString(PyExc_ValueError, "mine");
        return nullptr;
    });
    Register({{ALARM_TIME}, {ALARM_TIME}, {ALARM_TIME}}, true);
    EXPECT_EQ(m_calls.size(), 3U);
    EXPECT_FALSE(PyErr_Occurred());
    EXPECT_EQ(unraisable.Show("seen"),
              "[('ValueError', 'mine'), ('ValueError', 'mine'), ('ValueError', 'mine')]");
    EXPECT_TRUE(unraisable.IsObject(0, m_fn.get()));
}

TEST_F(Alarms, PushedOnesOfBothSubTypesCallTheReceiverAndTheStreamGoesOn)
{
    Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, U32(0))}});
    Register({}, false);
    StartReceiving();
    m_rcv.Send(Pushed(1, {ALARM_TIME, 0, 1, 1, 0, 5, 6, 7.5, 8.5}) + Change(0, 1, U32(9)) +
               Pushed(3, {ALARM_TIME, ALARM_TIME, 0, 0, 1}) + Change(0, 1, U32(10)));
    ASSERT_TRUE(WaitWhileOthersRun([&] { return Read(*m_pA, "n") == "10"; }));
    ASSERT_EQ(m_calls.size(), 2U);
    EXPECT_EQ(m_calls[0], std::string("(") + ALARM_TIME_REPR + ", " + ALARM_TIME_REPR +
                              ", 'tag 1', 0, 'type 1', 'type 0', 5, 7.5, 8.5, 6)");
    EXPECT_EQ(m_calls[1], std::string("(") + ALARM_TIME_REPR + ", " + ALARM_TIME_REPR +
                              ", 'tag 0', 1, 'type 0', 'type 1', 0, 0.0, 0.0, 0)");
}

TEST_F(Alarms, OnesPushedWhileTheRegistrationIsUnderWayComeBehindTheActiveOnes)
{
    Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, U32(0))}});
    StartReceiving();
    const CPlay play([&] {
        m_req.Want(U8('n'));
        m_rcv.Send(Pushed(1, {ALARM_TIME, 0, 1, 1, 0, 5, 6, 7.5, 8.5}) + Change(0, 1, U32(9)));
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // for the receive thread to have them
        m_req.Send(U8('n') + U16(1) + Record({ALARM_TIME, 0, 0}));
        m_rcv.Send(Pushed(3, {ALARM_TIME, 0, 1}));
        SendLists();
    });
    EXPECT_EQ(Core()._SetRtAlarmNotify(m_fn.get(), true), 0);
    ASSERT_TRUE(WaitWhileOthersRun([&] { return m_calls.size() == 3; }));
    EXPECT_NE(m_calls[0].find("'tag 0'"), std::string::npos) << "the active one comes first";
    EXPECT_NE(m_calls[1].find("'tag 1', 0, 'type 1'"), std::string::npos) << m_calls[1];
    EXPECT_NE(m_calls[2].find("'tag 1', 0, 'type 0'"), std::string::npos) << m_calls[2];
    EXPECT_EQ(Read(*m_pA, "n"), "9");
}

TEST_F(Alarms, OnesPushedBeforeARegistrationThatFailsAreSkipped)
{
    Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, U32(0))}});
    StartReceiving();
    const CPlay play([&] {
        m_req.Want(U8('n'));
        m_rcv.Send(Pushed(1, {ALARM_TIME}) + Change(0, 1, U32(9)));
        EXPECT_TRUE(WaitUntil([&] { return Pending(Core().m_rcvSock) == 0; }));
        m_req.Send(U8('0'));
    });
    EXPECT_EQ(Core()._SetRtAlarmNotify(m_fn.get(), true), -2);
    EXPECT_TRUE(m_calls.empty());
    ExpectEnded();
}

TEST(HeldAlarms, AreKeptInOrderWhileARegistrationIsUnderWay)
{
    CHeldAlarms held;
    held.Add({1});
    EXPECT_TRUE(held.Take().empty()) << "nobody registers";
    held.Begin();
    held.Begin();
    held.Add({2});
    held.End();
    held.Add({3});
    const auto alarms = held.Take();
    ASSERT_EQ(alarms.size(), 2U);
    EXPECT_EQ(alarms[0].almtm, 2U);
    EXPECT_EQ(alarms[1].almtm, 3U);
    EXPECT_TRUE(held.Take().empty());
    EXPECT_EQ(held.TakeSkipped(), 0U);
    held.Add({5});
    held.End();
    EXPECT_TRUE(held.Take().empty()) << "forgotten with the registration";
}

TEST(HeldAlarms, AreBoundedForAWholeRegistrationAndTheOthersAreCounted)
{
    CHeldAlarms held;
    held.Begin();
    const auto add = [&](size_t nAlarms) {
        for (size_t i = 0; i < nAlarms; ++i)
            held.Add({4});
    };
    add(CHeldAlarms::MOST - 1);
    EXPECT_EQ(held.Take().size(), CHeldAlarms::MOST - 1);
    add(3);
    EXPECT_EQ(held.Take().size(), 1U) << "what has been taken counts";
    add(4);
    EXPECT_TRUE(held.Take().empty());
    EXPECT_EQ(held.TakeSkipped(), 6U);
    EXPECT_EQ(held.TakeSkipped(), 0U) << "told once";
    add(1);
    held.End();
    held.Begin();
    EXPECT_EQ(held.TakeSkipped(), 0U) << "another registration";
    add(1);
    EXPECT_EQ(held.Take().size(), 1U);
}

/// Plays the server's part of a registration with this many active alarms.
class CRegistration : public CAlarmTest
{
protected:
    void Serve(unsigned nActive)
    {
        m_play = std::make_unique<CPlay>([this, nActive] {
            m_req.Want(U8('n'));
            m_req.Send(U8('n') + U16(nActive) + Record({ALARM_TIME, 0, 0}) * nActive);
            SendLists();
        });
    }
    /// A callable that does this at its first call, beside other threads, and notes the level of every alarm.
    CPyRef Noting(std::function<void()> fn)
    {
        return MakeCallable([this, fn = std::move(fn), bDone = false](PyObject* pArgs) mutable {
            m_levels.push_back(PyLong_AsLong(PyTuple_GET_ITEM(pArgs, 6)));
            if (!std::exchange(bDone, true))
                fn();
            return None();
        });
    }
    static Bytes Level(unsigned nLevel) { return Pushed(1, {ALARM_TIME, 0, 0, 0, 0, nLevel}); }

    std::unique_ptr<CPlay> m_play;
    std::vector<long> m_levels;
};

TEST_F(CRegistration, ItsCallsMayTakeLongTheStreamGoesOnAndNoAlarmIsLost)
{
    Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, U32(0))}});
    StartReceiving();
    Serve(3);
    const CPyRef fn = Noting([this] {
        const COthersRun others;
        for (unsigned n = 1; n <= 50; ++n)
            m_rcv.Send(Level(n) + Change(0, 1, U32(n)));
        EXPECT_TRUE(WaitUntil([&] {
            const PyGILState_STATE eGil = PyGILState_Ensure();
            const bool bStored = Read(*m_pA, "n") == "50";
            PyGILState_Release(eGil);
            return bStored;
        })) << "changes are stored meanwhile";
    });
    EXPECT_EQ(Core()._SetRtAlarmNotify(fn.get(), true), 0);
    std::vector<long> wanted(53);
    std::iota(wanted.begin() + 3, wanted.end(), 1);
    EXPECT_EQ(m_levels, wanted);
    m_rcv.Send(Level(51));
    ASSERT_TRUE(WaitWhileOthersRun([&] { return m_levels.size() == 54; }));
    EXPECT_EQ(m_levels.back(), 51);
}

TEST_F(CRegistration, ACallMayEndTheConnection)
{
    StartReceiving();
    Serve(1);
    const CPyRef fn = Noting([this] {
        m_rcv.Send(Level(1));
        EXPECT_TRUE(Core()._Disconnect());
    });
    EXPECT_EQ(Core()._SetRtAlarmNotify(fn.get(), true), 0);
}

TEST_F(CRegistration, ACallMayRegisterAnotherWhichThenStays)
{
    StartReceiving();
    std::vector<long> inner;
    const CPyRef other = MakeCallable([&](PyObject* pArgs) {
        inner.push_back(PyLong_AsLong(PyTuple_GET_ITEM(pArgs, 6)));
        return None();
    });
    Serve(1);
    const CPyRef fn = Noting([&] {
        m_play = std::make_unique<CPlay>([this] {
            m_req.Want(U8('n'));
            m_rcv.Send(Level(1));
            m_req.Send(U8('n') + U16(0)); // the lists are here already
        });
        EXPECT_EQ(Core()._SetRtAlarmNotify(other.get(), true), 0);
    });
    EXPECT_EQ(Core()._SetRtAlarmNotify(fn.get(), true), 0);
    m_rcv.Send(Level(2));
    ASSERT_TRUE(WaitWhileOthersRun([&] { return inner.size() == 2; }));
    EXPECT_EQ(inner, (std::vector<long>{1, 2}));
    EXPECT_EQ(m_levels, std::vector<long>{0});
}

TEST_F(CRegistration, WhatAFailedOneHasHeldIsForgotten)
{
    StartReceiving();
    {
        const CPlay play([&] {
            m_req.Want(U8('n'));
            m_rcv.Send(Level(1));
            EXPECT_TRUE(WaitUntil([&] { return CountHeld() == 1; }));
            m_req.Send(U8('0'));
        });
        EXPECT_EQ(Core()._SetRtAlarmNotify(m_fn.get(), true), -2);
    }
    EXPECT_EQ(CountHeld(), 0U);
    ExpectEnded();
    ASSERT_TRUE(WaitForThreads());
    Attach();
    Serve(0);
    EXPECT_EQ(Core()._SetRtAlarmNotify(Noting([] {}).get(), true), 0);
    EXPECT_EQ(m_levels, std::vector<long>{});
}

TEST_F(Alarms, AnExceptionOfAPushedOneIsReportedWithItsCallable)
{
    CUnraisable unraisable;
    const CPyRef fn = MakeCallable([](PyObject*) -> PyObject* {
        PyErr_SetString(PyExc_KeyError, "gone");
        return nullptr;
    });
    SetAlarmReceiver(fn.get(), {"t"}, {"g"});
    StartReceiving();
    m_rcv.Send(Pushed(1, {ALARM_TIME}) + Pushed(3, {ALARM_TIME}));
    ASSERT_TRUE(WaitWhileOthersRun([&] { return unraisable.Count() == 2; }));
    EXPECT_EQ(unraisable.Show("seen"), "[('KeyError', \"'gone'\"), ('KeyError', \"'gone'\")]");
    EXPECT_TRUE(unraisable.IsObject(1, fn.get()));
    EXPECT_TRUE(Core().IsConnected());
}

TEST_F(Alarms, TheReceiverAndItsListsOutliveTheConnection)
{
    Register({}, false);
    EXPECT_TRUE(Core()._Disconnect());
    EXPECT_TRUE(HasAlarmReceiver());
    EXPECT_EQ(Core()._SetRtAlarmNotify(m_fn.get(), true), -1);
    Attach();
    StartReceiving();
    m_rcv.Send(Pushed(1, {ALARM_TIME, 0, 1}));
    ASSERT_TRUE(WaitWhileOthersRun([&] { return !m_calls.empty(); }));
    EXPECT_NE(m_calls[0].find("'tag 1'"), std::string::npos);
}

} // namespace
