// Subscribing, the changes that follow, and the call of the script for each.
#include "core_fixture.h"

namespace {

class DriverSubscribe : public CDriverTest
{
protected:
    void SetUp() override
    {
        CDriverTest::SetUp();
        Learn(*m_pA, {{"a", 1, {}}, {"b", 2, {}}, {"c", 3, {}}, {"none", 0xFFFF, {}}});
    }
    static Bytes Request(std::initializer_list<unsigned> tags)
    {
        Bytes bytes = U8('b') + U16(static_cast<unsigned>(tags.size()));
        for (const unsigned nTag : tags)
            bytes = bytes + U16(0) + U16(nTag) + U8(0);
        return bytes;
    }
    static Bytes Block(const Bytes& values)
    {
        return U8('b') + U16(static_cast<unsigned>(values.size())) + values;
    }
    static Bytes Int(unsigned n) { return Typed(VT_I4, U32(n)); }
    bool Ask(const char* szTags, const Bytes& request, const Bytes& reply)
    {
        const CPlay play([&] {
            m_req.Want(request);
            m_req.Send(reply);
        });
        return m_pA->_ConnectTag(szTags);
    }
};

TEST_F(DriverSubscribe, FetchesTheFirstValuesInRequestOrder)
{
    EXPECT_TRUE(Ask("b,a", Request({2, 1}), Block(Int(22) + Typed(VT_STR, Text("one")))));
    EXPECT_EQ(Read(*m_pA, "a,b"), "['one', 22]");
    EXPECT_TRUE(m_req.IsSilent()) << "a subscribed tag is read from memory";
}

TEST_F(DriverSubscribe, OnceIsEnough)
{
    EXPECT_TRUE(Ask("a,b", Request({1, 2}), Block(Int(1) + Int(2))));
    EXPECT_TRUE(m_pA->_ConnectTag("a,b"));
    EXPECT_TRUE(m_req.IsSilent());
    EXPECT_TRUE(Ask("a,c,b", Request({3}), Block(Int(3))));
}

TEST_F(DriverSubscribe, WithoutATagLeftNothingIsSent)
{
    for (const char* szTags : {"", ",", "none", " ,none"})
        EXPECT_TRUE(m_pA->_ConnectTag(szTags)) << szTags;
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverSubscribe, AReadAsksOnlyForTagsThatAreNotSubscribed)
{
    EXPECT_TRUE(Ask("b", Request({2}), Block(Int(22))));
    const CPlay play([&] {
        m_req.Want(U8('H') + U16(1) + U16(0) + U16(1));
        m_req.Send(U8('H') + U8(0) + U16(6) + Int(11));
    });
    EXPECT_EQ(Read(*m_pA, "a,b"), "[11, 22]");
}

TEST_F(DriverSubscribe, SeveralBlocksAreReadUntilEveryTagHasItsValue)
{
    EXPECT_TRUE(Ask("a,b,c", Request({1, 2, 3}), Block(Int(1)) + Block(Int(2) + Int(3))));
    EXPECT_EQ(Read(*m_pA, "a,b,c"), "[1, 2, 3]");
}

TEST_F(DriverSubscribe, AnEmptyBlockGivesNoValueMadeOfOldBytes)
{
    EXPECT_FALSE(Ask("a", Request({1}), Block({})));
    ExpectEnded();
    Renew();
    EXPECT_FALSE(Ask("a,b", Request({1, 2}), Block(Int(1)) + Block({})));
    ExpectEnded();
    EXPECT_TRUE(m_pA->_ConnectTag("a")) << "subscribed before the block failed";
    EXPECT_FALSE(m_pA->_ConnectTag("b"));
    EXPECT_EQ(Read(*m_pA, "a"), "1");
}

TEST_F(DriverSubscribe, FailuresLeaveWhatCameBefore)
{
    const Bytes bad[] = {U8('0'), U8('H') + U16(6) + Int(9), Block(U16(VT_I4) + U8(1)),
                         U8('b') + U16(4097) + U8(0) * 4097, Block(Typed(VT_STR, Raw("no end")))};
    for (const Bytes& reply : bad) {
        EXPECT_FALSE(Ask("a", Request({1}), reply)) << Hex(reply);
        ExpectEnded();
        Renew();
        EXPECT_FALSE(Ask("b,c", Request({2, 3}), reply)) << Hex(reply);
        ExpectEnded();
        Renew();
    }
    EXPECT_FALSE(Ask("b,c", Request({2, 3}), Block(Int(2)) + U8('x')));
    ExpectEnded();
    EXPECT_EQ(Read(*m_pA, "b"), "2") << "it came before the failure";
    EXPECT_EQ(Read(*m_pA, "c"), "None");
}

TEST_F(DriverSubscribe, AReplyInPiecesIsReadWholeAndACutOneFails)
{
    {
        const CPlay play([&] {
            m_req.Want(Request({1, 2}));
            for (const BYTE n : Block(Int(1)) + Block(Typed(VT_STR, Text("two")))) {
                m_req.Send({n});
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        EXPECT_TRUE(m_pA->_ConnectTag("a,b"));
    }
    const CPlay play([&] {
        m_req.Want(Request({3}));
        m_req.Send(U8('b') + U16(6) + U16(VT_I4));
        m_req.Close();
    });
    EXPECT_FALSE(m_pA->_ConnectTag("c"));
    EXPECT_EQ(Read(*m_pA, "a,b"), "[1, 'two']");
}

TEST_F(DriverSubscribe, TheLongestBlockIs4096Bytes)
{
    EXPECT_TRUE(Ask("a", Request({1}), Block(Typed(VT_STR, Text(std::string(4093, 'x'))))));
    EXPECT_EQ(Read(*m_pA, "a").size(), 4095U);
}

TEST_F(DriverSubscribe, ATypeWithoutAPayloadIsSubscribedAllTheSame)
{
    EXPECT_TRUE(Ask("a,b", Request({1, 2}), Block(Typed(VT_EMPTY, {}) + Int(2))));
    EXPECT_TRUE(m_pA->_ConnectTag("a,b"));
    EXPECT_EQ(CPyRef(m_pA->GetTagValue("a")), nullptr);
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverSubscribe, EveryTypeTakesItsBytesOfABlock)
{
    const std::map<unsigned, size_t> sizes{{VT_I2, 2},  {VT_I4, 4},   {VT_R4, 4},  {VT_R8, 8},  {VT_DATE, 8},
                                           {VT_STR, 4}, {VT_BOOL, 1}, {VT_I1, 1},  {VT_UI1, 1}, {VT_UI2, 2},
                                           {VT_UI4, 4}, {VT_I8, 8},   {VT_INT, 4}, {VT_UINT, 4}};
    std::vector<unsigned> codes{4095, 4096, 8192, 8204, 16384, 32768, 65535};
    for (unsigned vt = 0; vt < 80; ++vt)
        codes.push_back(vt);
    for (const unsigned vt : codes) {
        const auto it = sizes.find(vt);
        const Bytes payload = it == sizes.end() ? Bytes{} : Text(std::string(it->second - 1, '\x01'));
        const Bytes values = U16(vt) + payload + Int(vt + 1);
        const CPlay play([&] {
            m_req.Want(U8('H') + U16(2) + U16(0) + U16(1) + U16(0) + U16(2));
            m_req.Send(U8('H') + U8(0) + U16(static_cast<unsigned>(values.size())) + values);
        });
        const CPyRef list(m_pA->GetTagValue("a,b"));
        ASSERT_TRUE(list && PyList_CheckExact(list.get())) << vt;
        EXPECT_EQ(Repr(PyList_GET_ITEM(list.get(), 1)), std::to_string(vt + 1)) << "behind type " << vt;
    }
}

TEST_F(DriverSubscribe, AFailedLookUpOrSendFails)
{
    AwaitRestsBriefly();
    {
        const CPlay play([&] {
            m_req.Want(U8('L') + U16(0) + Text("new"));
            m_req.Send(U8('0'));
        });
        EXPECT_FALSE(m_pA->_ConnectTag("new"));
    }
    Core().m_reqSock.Close();
    EXPECT_FALSE(m_pA->_ConnectTag("a"));
    EXPECT_TRUE(m_pA->_ConnectTag("none"));
}

TEST_F(DriverSubscribe, AtMost519TagsAreSubscribedByOneCall)
{
    constexpr unsigned COUNT = 600;
    std::vector<std::string> names;
    std::string strAll;
    for (unsigned i = 0; i < COUNT; ++i)
        strAll += names.emplace_back("t" + std::to_string(i)) + ",";
    for (unsigned i = 0; i < COUNT; i += 60) {
        std::vector<STagSpec> part;
        for (unsigned k = i; k < i + 60; ++k)
            part.push_back({names[k].c_str(), static_cast<WORD>(k), {}});
        Learn(*m_pB, part);
    }
    const auto request = [](unsigned nFrom, unsigned nTo) {
        Bytes bytes = U8('b') + U16(nTo - nFrom);
        for (unsigned i = nFrom; i < nTo; ++i)
            bytes = bytes + U16(1) + U16(i) + U8(0);
        return bytes;
    };
    const CPlay play([&] {
        m_req.Want(request(0, 519));
        m_req.Send(Block(Int(1) * 519));
        m_req.Want(request(519, 600));
        m_req.Send(Block(Int(2) * 81));
    });
    EXPECT_TRUE(m_pB->_ConnectTag(strAll.c_str()));
    EXPECT_TRUE(m_pB->_ConnectTag(strAll.c_str()));
    EXPECT_EQ(Read(*m_pB, "t0,t518,t519,t599"), "[1, 1, 2, 2]");
}

/// A change and the reply that brings its tag's first value travel on different connections.
class DriverOvertaken : public DriverSubscribe
{
protected:
    void SetUp() override
    {
        DriverSubscribe::SetUp();
        Subscribe(*m_pA, {{"probe", 7, Int(0)}});
        StartReceiving();
    }
};

TEST_F(DriverOvertaken, AChangeThatOvertakesTheFirstValueWins)
{
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_rcv.Send(Change(0, 1, U32(2)) + Change(0, 7, U32(1)));
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // it is there before the reply
        m_req.Send(Block(Int(1)));
    });
    EXPECT_TRUE(m_pA->_ConnectTag("a"));
    EXPECT_TRUE(WaitUntil([&] { return Read(*m_pA, "probe") == "1"; }));
    EXPECT_EQ(Read(*m_pA, "a"), "2");
}

TEST_F(DriverOvertaken, AChangeThatOvertakesAnotherValueOfAKnownTypeWins)
{
    {
        const CPlay play([&] {
            m_req.Want(U8('H') + U16(1) + U16(0) + U16(1));
            m_req.Send(U8('H') + U8(0) + U16(6) + Int(1));
        });
        EXPECT_EQ(Read(*m_pA, "a"), "1");
    }
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_rcv.Send(Change(0, 1, U32(3)) + Change(0, 7, U32(1)));
        EXPECT_TRUE(WaitUntil([&] { return Pending(Core().m_rcvSock) == 0; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        m_req.Send(Block(Int(2)));
    });
    EXPECT_TRUE(m_pA->_ConnectTag("a"));
    EXPECT_TRUE(WaitUntil([&] { return Read(*m_pA, "probe") == "1"; }));
    EXPECT_EQ(Read(*m_pA, "a"), "3");
}

TEST_F(DriverOvertaken, AChangeThatOvertakesAReplyIsDecodedByTheTypeInIt)
{
    {
        const CPlay play([&] {
            m_req.Want(U8('H') + U16(1) + U16(0) + U16(1));
            m_req.Send(U8('H') + U8(0) + U16(6) + Int(1));
        });
        EXPECT_EQ(Read(*m_pA, "a"), "1");
    }
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_rcv.Send(Change(0, 1, Text("newer")) + Change(0, 7, U32(1)));
        EXPECT_TRUE(WaitUntil([&] { return Pending(Core().m_rcvSock) == 0; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        m_req.Send(Block(Typed(VT_STR, Text("new type"))));
    });
    EXPECT_TRUE(m_pA->_ConnectTag("a"));
    EXPECT_TRUE(WaitUntil([&] { return Read(*m_pA, "probe") == "1"; }));
    EXPECT_EQ(Read(*m_pA, "a"), "'newer'") << "decoded as what the reply says, and stored behind it";
}

TEST_F(DriverOvertaken, ANewSubscriptionsValueIsNotHeldBackByAChangeOfLongAgo)
{
    m_rcv.Send(Change(0, 7, U32(5)));
    EXPECT_TRUE(WaitUntil([&] { return Read(*m_pA, "probe") == "5"; }));
    CDBDriver::TagSlots out;
    ASSERT_TRUE(m_pA->CheckTagId("probe", out));
    out.at(0)->bSubscribe = false; // as after a subscription that failed half-way
    EXPECT_TRUE(Ask("probe", Request({7}), Block(Int(6))));
    EXPECT_EQ(Read(*m_pA, "probe"), "6");
}

TEST_F(DriverOvertaken, AFirstValueIsAwaitedAsLongAsItsSubscriptionIsUnderWay)
{
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_rcv.Send(Change(0, 1, U32(2)) + Change(0, 7, U32(1)));
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        m_req.Send(Block(Int(1)));
    });
    EXPECT_TRUE(m_pA->_ConnectTag("a"));
    EXPECT_TRUE(WaitUntil([&] { return Read(*m_pA, "probe,a") == "[1, 2]"; }));
}

TEST_F(DriverOvertaken, AChangeOfATagThatNobodySubscribesIsNotAwaited)
{
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_rcv.Send(Change(0, 3, U32(2)));
        EXPECT_TRUE(WaitUntil([&] { return Pending(Core().m_rcvSock) == 0; }));
        m_rcv.Send(Change(0, 7, U32(1)));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        m_req.Send(Block(Int(1)));
    });
    EXPECT_TRUE(m_pA->_ConnectTag("a"));
    EXPECT_EQ(Read(*m_pA, "probe"), "1") << "stored while a was under way";
}

TEST_F(DriverOvertaken, AFirstValueThatNeverComesEndsTheConnection)
{
    Core().m_reqSock.SetTimeOut(200);
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_rcv.Send(Change(0, 1, U32(2)) + Change(0, 7, U32(1)));
    });
    EXPECT_FALSE(m_pA->_ConnectTag("a"));
    ExpectEnded();
    EXPECT_EQ(Read(*m_pA, "probe"), "0");
}

class DriverNotify : public DriverSubscribe
{
protected:
    void SetUp() override
    {
        DriverSubscribe::SetUp();
        Subscribe(*m_pA, {{"n", 4, Int(0)}, {"\xCB\xAE", 5, Typed(VT_STR, Text("first"))}});
        m_fn = MakeCallable([this](PyObject* pArgs) {
            m_log.push_back(Repr(pArgs));
            return None();
        });
    }
    void TearDown() override
    {
        m_fn.reset();
        DriverSubscribe::TearDown();
    }
    /// The driver's own result for a change; calls are made on this thread.
    int Change1(ULONG nTag, const Bytes& payload)
    {
        CRecvLink link;
        CPyThread python(link);
        return m_pA->OnDBNotify(nTag, payload, &python);
    }

    CPyRef m_fn;
    std::vector<std::string> m_log;
};

TEST_F(DriverNotify, StoresTheValueAndTellsItsLength)
{
    EXPECT_EQ(Change1(4, U32(9) + U32(8)), 4);
    EXPECT_EQ(Change1(5, Text("ab") + Text("cd")), 3);
    EXPECT_EQ(Read(*m_pA, "n,\xCB\xAE"), "[9, 'ab']");
}

TEST_F(DriverNotify, WhatCannotBeDecodedIsToldAndChangesNothing)
{
    EXPECT_EQ(Change1(8, U32(1)), NOTIFY_STOP) << "beyond the table";
    EXPECT_EQ(Change1(0xFFFFFFFF, U32(1)), NOTIFY_STOP);
    EXPECT_EQ(Change1(1, U32(1)), NOTIFY_STOP) << "never read";
    EXPECT_EQ(Change1(4, U8(0) * 3), NOTIFY_CUT);
    EXPECT_EQ(Change1(4, {}), NOTIFY_CUT);
    EXPECT_EQ(Change1(5, Raw("no end")), NOTIFY_CUT);
    EXPECT_EQ(Read(*m_pA, "n,\xCB\xAE"), "[0, 'first']");
    CDBDriver::TagSlots out;
    m_pA->CheckTagId("a", out);
    EXPECT_EQ(out.at(0)->value.vt, VT_EMPTY);
}

TEST_F(DriverNotify, ATypeWithoutAPayloadKeepsItsTypeWithAZeroValue)
{
    for (const VARTYPE vt : {VT_UI8, VT_CY, VT_ERROR}) {
        CDBDriver::TagSlots out;
        m_pA->CheckTagId("a", out);
        out.at(0)->value.vt = vt;
        out.at(0)->value.llVal = 5;
        EXPECT_EQ(Change1(1, U64(1)), NOTIFY_STOP);
        EXPECT_EQ(out.at(0)->value.vt, vt);
        EXPECT_EQ(out.at(0)->value.llVal, 0);
    }
    CDBDriver::TagSlots out;
    m_pA->CheckTagId("a", out);
    out.at(0)->value.vt = VT_NULL;
    EXPECT_EQ(Change1(1, U32(1)), NOTIFY_STOP);
}

TEST_F(DriverNotify, TheScriptIsToldDriverTagAndValue)
{
    ASSERT_TRUE(m_pA->SetTagNotify(m_fn.get()));
    EXPECT_EQ(Change1(4, U32(5)), 4);
    EXPECT_EQ(Change1(5, Text("\xE6\xB0\xB4")), 4);
    EXPECT_EQ(m_log, (std::vector<std::string>{"('A', 'n', 5)", "('A', '\xE6\xB0\xB4', '\xE6\xB0\xB4')"}));
}

TEST_F(DriverNotify, ADriversNameIsToldAsUtf8)
{
    AddDriver("\xB9\xF8\xC2\xAF", 2, 3);
    CDBDriver* pDriver = Core()._GetDriver("\xB9\xF8\xC2\xAF");
    ASSERT_TRUE(pDriver);
    Subscribe(*pDriver, {{"t", 0, Int(0)}});
    ASSERT_TRUE(pDriver->SetTagNotify(m_fn.get()));
    CRecvLink link;
    CPyThread python(link);
    EXPECT_EQ(pDriver->OnDBNotify(0, U32(1), &python), 4);
    EXPECT_EQ(m_log, std::vector<std::string>{"('\xE9\x94\x85\xE7\x82\x89', 't', 1)"});
}

TEST_F(DriverNotify, ATypeWithoutAPythonFormSkipsTheCall)
{
    Subscribe(*m_pA, {{"date", 6, Typed(VT_DATE, F64(1.0))}});
    ASSERT_TRUE(m_pA->SetTagNotify(m_fn.get()));
    CUnraisable unraisable;
    EXPECT_EQ(Change1(6, F64(2.0)), 8);
    EXPECT_TRUE(m_log.empty());
    EXPECT_EQ(unraisable.Count(), 0U);
    EXPECT_EQ(Change1(4, U32(1)), 4);
    EXPECT_EQ(m_log.size(), 1U);
}

TEST_F(DriverNotify, ATextThatIsNotUtf8IsReportedAndTheStreamGoesOn)
{
    ASSERT_TRUE(m_pA->SetTagNotify(m_fn.get()));
    CUnraisable unraisable;
    EXPECT_EQ(Change1(5, Text("\xCB")), 2);
    EXPECT_TRUE(m_log.empty());
    EXPECT_EQ(unraisable.Show("[s[0] for s in seen]"), "['UnicodeDecodeError']");
    EXPECT_TRUE(unraisable.IsObject(0, m_fn.get()));
    EXPECT_EQ(Change1(5, Text("good")), 5);
    EXPECT_EQ(m_log.size(), 1U);
}

TEST_F(DriverNotify, AnExceptionIsReportedWithItsCallableAndTheNextCallSeesNoneOfIt)
{
    const CPyRef fn = MakeCallable([&](PyObject* pArgs) -> PyObject* {
        EXPECT_FALSE(PyErr_Occurred());
        m_log.push_back(Repr(pArgs));
        PyErr_SetString(PyExc_ValueError, "mine");
        return nullptr;
    });
    ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    CUnraisable unraisable;
    EXPECT_EQ(Change1(4, U32(1)), 4);
    EXPECT_EQ(Change1(4, U32(2)), 4);
    EXPECT_EQ(m_log.size(), 2U);
    EXPECT_EQ(unraisable.Show("seen"), "[('ValueError', 'mine'), ('ValueError', 'mine')]");
    EXPECT_TRUE(unraisable.IsObject(0, fn.get()) && unraisable.IsObject(1, fn.get()));
    EXPECT_FALSE(PyErr_Occurred());
    EXPECT_EQ(Read(*m_pA, "n"), "2");
}

TEST_F(DriverNotify, TheFirstRegistrationStays)
{
    const CPyRef other = MakeCallable([](PyObject*) -> PyObject* {
        ADD_FAILURE() << "called";
        return None();
    });
    EXPECT_TRUE(m_pA->SetTagNotify(m_fn.get()));
    EXPECT_FALSE(m_pA->SetTagNotify(other.get()));
    EXPECT_EQ(Py_REFCNT(other.get()), 1);
    Change1(4, U32(1));
    EXPECT_EQ(m_log.size(), 1U);
}

TEST_F(DriverNotify, WithoutAConnectionNothingIsRegistered)
{
    const CDriverRef held(m_pA);
    Core().ClearDrivers();
    EXPECT_FALSE(m_pA->SetTagNotify(m_fn.get()));
    EXPECT_EQ(Py_REFCNT(m_fn.get()), 1);
}

TEST_F(DriverNotify, EachDriverHasAReceiverOfItsOwn)
{
    Subscribe(*m_pB, {{"t", 0, Int(0)}});
    ASSERT_TRUE(m_pA->SetTagNotify(m_fn.get()));
    CRecvLink link;
    CPyThread python(link);
    EXPECT_EQ(m_pB->OnDBNotify(0, U32(1), &python), 4);
    EXPECT_TRUE(m_log.empty());
}

TEST_F(DriverNotify, ManyCallsLeaveReferenceCountsAsTheyWere)
{
    ASSERT_TRUE(m_pA->SetTagNotify(m_fn.get()));
    const CPyRef quiet = MakeCallable([](PyObject*) { return NewPyRef(Py_True).release(); });
    ASSERT_TRUE(m_pB->SetTagNotify(quiet.get()));
    Subscribe(*m_pB, {{"t", 0, Typed(VT_BOOL, U8(1))}, {"s", 1, Typed(VT_STR, Text(""))}});
    const auto counts = [&] {
        return std::vector{Py_REFCNT(Py_None), Py_REFCNT(Py_True), Py_REFCNT(quiet.get()),
                           Py_REFCNT(m_fn.get())};
    };
    CRecvLink link;
    CPyThread python(link);
    const auto run = [&] {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(m_pB->OnDBNotify(0, U8(1), &python), 1);
            EXPECT_EQ(m_pB->OnDBNotify(1, Text("a text of some length"), &python), 22);
        }
    };
    run();
    const auto before = counts();
    run();
    EXPECT_EQ(counts(), before);
}

} // namespace
