// Tag names and positions: the look-up requests byte for byte, the cache, and the order of the slots.
#include "core_fixture.h"

namespace {

using Positions = std::vector<int>;

class DriverNames : public CDriverTest
{
protected:
    /// Positions that CheckTagId gives for the names, -1 for null; its result must be bOk.
    std::vector<int> Check(const std::string& strNames, bool bOk = true, CDBDriver* pDriver = nullptr)
    {
        CDBDriver::TagSlots out;
        EXPECT_EQ((pDriver ? pDriver : m_pA)->CheckTagId(strNames.c_str(), out), bOk);
        std::vector<int> positions;
        for (const CDBDriver::STag* pTag : out)
            positions.push_back(pTag ? pTag->id : -1);
        return positions;
    }
    /// The same while the far end answers one request.
    std::vector<int> Ask(const std::string& strNames, const Bytes& request, const Bytes& reply,
                         bool bOk = true)
    {
        const CPlay play([&] {
            m_req.Want(request);
            m_req.Send(reply);
        });
        return Check(strNames, bOk);
    }
    static Bytes Name(std::string_view name, WORD nDriver = 0) { return U16(nDriver) + Text(name); }
    static Bytes Pos(unsigned nPos) { return U16(nPos) + U16(0xEEEE); }
};

TEST_F(DriverNames, SizingTheTableNumbersTheSlots)
{
    const CDriverRef driver(new CDBDriver(Core(), 0, CString("own")));
    EXPECT_EQ(driver->GetTagCount(), 0U);
    driver->SetTagCount(3);
    EXPECT_EQ(driver->GetTagCount(), 3U);
    Learn(*driver.Get(), {{"A", 0, {}}, {"B", 1, {}}, {"C", 2, {}}});
    EXPECT_EQ(Check("A,B,C", true, driver.Get()), (Positions{0, 1, 2}));
}

TEST_F(DriverNames, NothingIsAskedForNoNames)
{
    for (const char* szNames : {"", ",", ",,,,"})
        EXPECT_EQ(Check(szNames), Positions{});
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverNames, NamesAreAskedForInOneRequestWithoutTheirBlanks)
{
    EXPECT_EQ(
        Ask("  A , B,,C  ", U8('L') + Name("A") + Name("B") + Name("C"), U8('L') + Pos(3) + Pos(0) + Pos(7)),
        (Positions{3, 0, 7}));
}

TEST_F(DriverNames, OnlyBlanksAreTrimmed)
{
    EXPECT_EQ(Ask("\tA\t, B C ", U8('L') + Name("\tA\t") + Name("B C"), U8('L') + Pos(1) + Pos(2)),
              (Positions{1, 2}));
}

TEST_F(DriverNames, NamesTravelInTheInternalEncodingWithTheirDriversId)
{
    const CPlay play([&] {
        m_req.Want(U8('L') + Name("\xCB\xAE\xCE\xBB", 1));
        m_req.Send(U8('L') + Pos(1999));
    });
    EXPECT_EQ(Check("\xCB\xAE\xCE\xBB", true, m_pB), Positions{1999});
}

TEST_F(DriverNames, AListThatIsKnownAsAWholeIsAnsweredAsItsNamesWouldBe)
{
    Learn(*m_pA, {{"A", 3, {}}, {"B", 4, {}}, {"Z", NO_TAG, {}}});
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Check("A,Z,B"), (Positions{3, -1, 4}));
        EXPECT_EQ(Check("B,A"), (Positions{4, 3}));
        EXPECT_EQ(Check("B,A"), (Positions{4, 3}));
        EXPECT_EQ(Check("B,A,"), (Positions{4, 3}));
        EXPECT_EQ(Check("A"), Positions{3});
        EXPECT_EQ(Check(""), Positions{});
    }
    EXPECT_TRUE(m_req.IsSilent());
    CDBDriver::TagSlots out{nullptr};
    EXPECT_TRUE(m_pA->CheckTagId("B,A", out));
    ASSERT_EQ(out.size(), 3U) << "appended to what is there";
    EXPECT_EQ(out[1]->id, 4);
}

/// Two threads of a script that ask for the same new name get an answer each.
TEST_F(DriverNames, AListThatIsKnownAsAWholeGivesThePositionOfALaterAnswer)
{
    Learn(*m_pA, {{"A", 3, {}}, {"B", 4, {}}});
    EXPECT_EQ(Check("A,B"), (Positions{3, 4}));
    const Bytes request = U8('L') + Name("A");
    for (const int nPos : {3, 5, 8, 6}) { // the table ends before 8
        {
            const CPlay play([&] {
                m_req.Want(request);
                m_req.Send(U8('L') + Pos(static_cast<unsigned>(nPos)));
            });
            CDBDriver::TagSlots out;
            EXPECT_TRUE(m_pA->ReqBatchGetPoss({CString("A")}, reinterpret_cast<const char*>(request.data()),
                                              request.size(), out));
        }
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(Check("A,B"), (Positions{nPos < 8 ? nPos : -1, 4}));
        EXPECT_EQ(Check("A"), Positions{nPos < 8 ? nPos : -1});
    }
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverNames, AListWithNewNamesComesInTheOrderOfItsNamesOnceAllAreKnown)
{
    Learn(*m_pA, {{"A", 3, {}}, {"B", 4, {}}});
    EXPECT_EQ(Check("A,B"), (Positions{3, 4}));
    EXPECT_EQ(Ask("A,New,B", U8('L') + Name("New"), U8('L') + Pos(5)), (Positions{3, 4, 5}));
    EXPECT_EQ(Check("A,New,B"), (Positions{3, 5, 4}));
    EXPECT_EQ(Check("A,New,B"), (Positions{3, 5, 4}));
    m_req.Close();
    EXPECT_EQ(Check("A,Newer,B", false), (Positions{3, 4})) << "not known: asked for, and it failed";
    EXPECT_EQ(Check("A,New,B"), (Positions{3, 5, 4}));
}

TEST_F(DriverNames, ANameIsAskedForOnce)
{
    Learn(*m_pA, {{"A", 3, {}}, {"B", 4, {}}});
    EXPECT_EQ(Check("A,B"), (Positions{3, 4}));
    EXPECT_EQ(Check("B,A , B"), (Positions{4, 3, 4}));
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverNames, AnUnknownNameIsAskedForOnceToo)
{
    EXPECT_EQ(Ask("none,A", U8('L') + Name("none") + Name("A"), U8('L') + Pos(0xFFFF) + Pos(1)),
              (Positions{-1, 1}));
    EXPECT_EQ(Check("none"), Positions{-1});
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverNames, APositionBeyondTheTableCountsAsUnknown)
{
    EXPECT_EQ(Ask("last,beyond", U8('L') + Name("last") + Name("beyond"), U8('L') + Pos(7) + Pos(8)),
              (Positions{7, -1}));
    EXPECT_EQ(Check("beyond,last"), (Positions{-1, 7}));
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverNames, NamesDifferByTheirCase)
{
    Learn(*m_pA, {{"a", 1, {}}});
    EXPECT_EQ(Ask("A", U8('L') + Name("A"), U8('L') + Pos(2)), Positions{2});
}

TEST_F(DriverNames, ABlankBetweenCommasIsNullAtOnceAndNewNamesComeWhenTheirRequestIsFlushed)
{
    EXPECT_EQ(Ask("A, ,B", U8('L') + Name("A") + Name("B"), U8('L') + Pos(1) + Pos(2)),
              (Positions{-1, 1, 2}));
    EXPECT_EQ(Check("A, ,B"), (Positions{1, -1, 2})) << "all known: the order of the names";
    EXPECT_EQ(Check(" "), Positions{-1});
}

TEST_F(DriverNames, KnownNamesComeBeforeNewOnes)
{
    Learn(*m_pA, {{"B", 2, {}}, {"D", 4, {}}});
    EXPECT_EQ(Ask("A,B,C,D", U8('L') + Name("A") + Name("C"), U8('L') + Pos(1) + Pos(3)),
              (Positions{2, 4, 1, 3}));
    EXPECT_EQ(Check("A,B,C,D"), (Positions{1, 2, 3, 4}));
}

TEST_F(DriverNames, ANewNameThatOccursTwiceIsAskedForTwice)
{
    EXPECT_EQ(Ask("A,A", U8('L') + Name("A") + Name("A"), U8('L') + Pos(1) + Pos(1)), (Positions{1, 1}));
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverNames, TwoNamesMayHaveOneSlotWhichBearsTheLaterName)
{
    EXPECT_EQ(Ask("A,B", U8('L') + Name("A") + Name("B"), U8('L') + Pos(5) + Pos(5)), (Positions{5, 5}));
    CDBDriver::TagSlots out;
    m_pA->CheckTagId("A", out);
    EXPECT_EQ(out.at(0)->strTag, "B");
}

/// A request holds 768 bytes: the command, and 3 bytes and the name for each.
TEST_F(DriverNames, NamesThatFillARequestToItsLastByteGoInOne)
{
    const std::string strA(379, 'a');
    const std::string strB(382, 'b'); // 1 + 3 + 379 + 3 + 382 = 768
    EXPECT_EQ(Ask(strA + "," + strB, U8('L') + Name(strA) + Name(strB), U8('L') + Pos(1) + Pos(2)),
              (Positions{1, 2}));
}

TEST_F(DriverNames, OneByteMoreMakesASecondRequest)
{
    const std::string strA(379, 'a');
    const std::string strB(383, 'b');
    const CPlay play([&] {
        m_req.Want(U8('L') + Name(strA));
        m_req.Send(U8('L') + Pos(1));
        m_req.Want(U8('L') + Name(strB) + Name("C"));
        m_req.Send(U8('L') + Pos(2) + Pos(3));
    });
    EXPECT_EQ(Check(strA + "," + strB + ",C"), (Positions{1, 2, 3}));
}

TEST_F(DriverNames, KnownNamesComeWhereTheyAreMetBetweenTwoFlushes)
{
    Learn(*m_pA, {{"known", 7, {}}});
    const std::string strA(379, 'a');
    const std::string strB(383, 'b');
    const CPlay play([&] {
        m_req.Want(U8('L') + Name(strA));
        m_req.Send(U8('L') + Pos(1));
        m_req.Want(U8('L') + Name(strB));
        m_req.Send(U8('L') + Pos(2));
    });
    EXPECT_EQ(Check(strA + ",known," + strB + ",known, "), (Positions{7, 1, 7, -1, 2}));
}

TEST_F(DriverNames, TheMostNamesOfOneRequestAre191)
{
    Bytes request = U8('L');
    Bytes reply = U8('L');
    std::string strNames;
    for (unsigned i = 0; i < 191; ++i) {
        const std::string strName(1, static_cast<char>('A' + i % 26));
        request = request + Name(strName);
        reply = reply + Pos(i % 8);
        strNames += strName + ",";
    }
    ASSERT_EQ(request.size(), 765U);
    const CPlay play([&] {
        m_req.Want(request);
        m_req.Send(reply);
        m_req.Want(U8('L') + Name("A"));
        m_req.Send(U8('L') + Pos(5));
    });
    // The last name is met before the flush that makes it known, so it is asked for once more.
    const Positions got = Check(strNames + "A");
    ASSERT_EQ(got.size(), 192U);
    EXPECT_EQ(got[0], 0);
    EXPECT_EQ(got[190], 190 % 8);
    EXPECT_EQ(got[191], 5);
}

TEST_F(DriverNames, TheLongestNameThatFitsARequestIsAskedFor)
{
    const std::string strName(764, 'x');
    EXPECT_EQ(Ask(strName, U8('L') + Name(strName), U8('L') + Pos(6)), Positions{6});
}

TEST_F(DriverNames, ALongerNameIsANullEntryAndNothingIsSentForIt)
{
    const std::string strName(765, 'x');
    EXPECT_EQ(Check(strName), Positions{-1});
    EXPECT_EQ(Check(std::string(100000, 'x')), Positions{-1});
    EXPECT_TRUE(m_req.IsSilent());
    EXPECT_EQ(Ask("A," + strName + ",B", U8('L') + Name("A") + Name("B"), U8('L') + Pos(1) + Pos(2)),
              (Positions{-1, 1, 2}));
}

TEST_F(DriverNames, ARefusalFailsAndCachesNothing)
{
    EXPECT_EQ(Ask("A", U8('L') + Name("A"), U8('0') + Pos(1), false), Positions{});
    EXPECT_EQ(Ask("A", U8('L') + Name("A"), U8('L') + Pos(1)), Positions{1});
}

TEST_F(DriverNames, WhatIsLeftOfAFailedReplyIsNotTakenForTheNext)
{
    EXPECT_EQ(Ask("A", U8('L') + Name("A"), U8('X') + Pos(5), false), Positions{});
    EXPECT_EQ(Ask("A", U8('L') + Name("A"), U8('L') + Pos(1)), Positions{1});
}

TEST_F(DriverNames, SurplusBytesOfAReplyAreNotTakenForTheNext)
{
    EXPECT_EQ(Ask("A", U8('L') + Name("A"), U8('L') + Pos(1) + U8('L') + Pos(6)), Positions{1});
    EXPECT_EQ(Check("B", false), Positions{});
    ExpectEnded();
}

TEST_F(DriverNames, AReplyInPiecesIsReadWhole)
{
    const CPlay play([&] {
        m_req.Want(U8('L') + Name("A") + Name("B"));
        for (const BYTE n : U8('L') + Pos(1) + Pos(2)) {
            m_req.Send({n});
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    EXPECT_EQ(Check("A,B"), (Positions{1, 2}));
}

TEST_F(DriverNames, AReplyThatIsCutShortFailsAndCachesNothing)
{
    const CPlay play([&] {
        m_req.Want(U8('L') + Name("A") + Name("B"));
        m_req.Send(U8('L') + Pos(1) + U16(2));
        m_req.Close();
    });
    EXPECT_EQ(Check("A,B", false), Positions{});
    EXPECT_EQ(Check("A", false), Positions{});
}

TEST_F(DriverNames, AFailedFlushKeepsWhatWasAppendedAndWhatEarlierOnesLearnt)
{
    AwaitRestsBriefly();
    const std::string strA(379, 'a');
    const std::string strB(383, 'b');
    const CPlay play([&] {
        m_req.Want(U8('L') + Name(strA));
        m_req.Send(U8('L') + Pos(1));
        m_req.Want(U8('L') + Name(strB));
        m_req.Send(U8('0'));
    });
    EXPECT_EQ(Check(strA + ", ," + strB, false), (Positions{-1, 1}));
    EXPECT_EQ(Check(strA), Positions{1});
}

TEST_F(DriverNames, AFailedFlushInTheMiddleAsksForNothingMore)
{
    AwaitRestsBriefly();
    const std::string strA(379, 'a');
    const std::string strB(383, 'b');
    {
        const CPlay play([&] {
            m_req.Want(U8('L') + Name(strA));
            m_req.Send(U8('0'));
        });
        EXPECT_EQ(Check(strA + "," + strB, false), Positions{});
    }
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverNames, ALateReplyEndsTheConnectionAndIsNeverTakenForAnAnswer)
{
    Core().m_reqSock.SetTimeOut(100);
    {
        const CPlay play([&] { m_req.Want(U8('L') + Name("A")); });
        EXPECT_EQ(Check("A", false), Positions{});
    }
    m_req.Send(U8('L') + Pos(1));
    ExpectEnded();
    m_req.WantEnd();
    EXPECT_EQ(Check("B", false), Positions{});
}

TEST_F(DriverNames, ADetachedDriverKnowsWhatItHasLearntAndAsksNobody)
{
    Learn(*m_pA, {{"A", 3, {}}});
    const CDriverRef held(m_pA);
    DeleteCore();
    EXPECT_EQ(Check("A, "), (Positions{3, -1}));
    EXPECT_EQ(Check("A,B", false), Positions{3});
    EXPECT_EQ(Check("B", false), Positions{}) << "a look-up that was not made has no answer to remember";
}

TEST_F(DriverNames, ASmallerTableTurnsCachedPositionsBeyondItIntoNull)
{
    Learn(*m_pA, {{"A", 1, {}}, {"B", 6, {}}});
    m_pA->SetTagCount(5);
    EXPECT_EQ(Check("A,B"), (Positions{1, -1}));
    m_pA->SetTagCount(10);
    EXPECT_EQ(Check("A,B"), (Positions{1, 6}));
    CDBDriver::TagSlots out;
    m_pA->CheckTagId("A,B", out);
    EXPECT_EQ(out.at(0)->strTag, "A");
    EXPECT_EQ(out.at(1)->strTag, "") << "the slot is a new one";
    EXPECT_EQ(out.at(1)->id, 6);
}

class SingleName : public DriverNames
{
protected:
    WORD AskOne(const char* szName, const Bytes& request, const Bytes& reply)
    {
        const CPlay play([&] {
            m_req.Want(request);
            m_req.Send(reply);
        });
        return m_pA->GetTagId(szName);
    }
};

TEST_F(SingleName, IsAskedForWithItsDriverAndRemembered)
{
    EXPECT_EQ(AskOne("A", U8('L') + Name("A"), U8('L') + U16(5)), 5);
    EXPECT_EQ(m_pA->GetTagId("A"), 5);
    EXPECT_EQ(Check("A"), Positions{5}) << "the list form knows it too";
    EXPECT_TRUE(m_req.IsSilent());
    CDBDriver::TagSlots out;
    m_pA->CheckTagId("A", out);
    EXPECT_EQ(out.at(0)->strTag, "A");
}

TEST_F(SingleName, NoNameAndAnEmptyTableGiveNoTagAtOnce)
{
    EXPECT_EQ(m_pA->GetTagId(nullptr), NO_TAG);
    EXPECT_EQ(m_pA->GetTagId(""), NO_TAG);
    m_pA->SetTagCount(0);
    EXPECT_EQ(m_pA->GetTagId("A"), NO_TAG);
    EXPECT_TRUE(m_req.IsSilent());
    m_pA->SetTagCount(8);
    EXPECT_EQ(AskOne("A", U8('L') + Name("A"), U8('L') + U16(5)), 5) << "that answer was not remembered";
}

TEST_F(SingleName, ARefusalIsRememberedAsNoTag)
{
    EXPECT_EQ(AskOne("A", U8('L') + Name("A"), U8('0')), NO_TAG);
    EXPECT_EQ(m_pA->GetTagId("A"), NO_TAG);
    EXPECT_EQ(Check("A"), Positions{-1});
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(SingleName, APositionBeyondTheTableIsGivenAsItCame)
{
    EXPECT_EQ(AskOne("A", U8('L') + Name("A"), U8('L') + U16(300)), 300);
    EXPECT_EQ(m_pA->GetTagId("A"), 300);
    EXPECT_EQ(Check("A"), Positions{-1});
}

TEST_F(SingleName, AskedForWhileDisconnectedIsUnknownForGood)
{
    EXPECT_TRUE(Core().IsConnected());
    const CDriverRef held(m_pA);
    Core().ClearDrivers();
    EXPECT_EQ(m_pA->GetTagId("A"), NO_TAG);
    EXPECT_EQ(Check("A"), Positions{-1});
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(SingleName, ANameThatFitsNoRequestIsNoTagAndNothingIsSent)
{
    const std::string strFits(252, 'x'); // 1 + 2 + 252 + 1 = 256
    EXPECT_EQ(m_pA->GetTagId((strFits + "x").c_str()), NO_TAG);
    EXPECT_EQ(m_pA->GetTagId(std::string(10000, 'x').c_str()), NO_TAG);
    EXPECT_TRUE(m_req.IsSilent());
    EXPECT_EQ(AskOne(strFits.c_str(), U8('L') + Name(strFits), U8('L') + U16(1)), 1);
}

} // namespace
