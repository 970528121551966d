// The walk of the notification stream, where a receive may end, and the receive thread's life.
#include "core_fixture.h"

namespace {

/// What the walk must know of the system notifications, written down a second time: sub-type, whole length,
/// whether driver index and tag position are checked, whether a text follows.
struct SSubType
{
    unsigned nSubType;
    size_t nLen;
    bool bTag = false;
    bool bText = false;
};
const SSubType SUB_TYPES[] = {
    {1, 35},
    {2, 7},
    {3, 35},
    {4, 43},
    {5, 7},
    {6, 20},
    {7, 7},
    {8, 5},
    {9, 8, true},
    {10, 15, true},
    {11, 15, true},
    {12, 15, true},
    {13, 15, true},
    {14, 8, true},
    {15, 8, true},
    {22, 8, true},
    {255, 3},
    {16, 8, true, true},
    {17, 8, true, true},
    {18, 8, true, true},
    {19, 8, true, true},
    {20, 8, true, true},
    {21, 8, true, true},
};

/// A system notification of a sub-type; what nobody reads is filled with a byte that would be seen as a
/// driver id.
Bytes System(const SSubType& sub, std::string_view text = "", WORD nDriver = 0, WORD nTag = 0)
{
    Bytes bytes = U16(0xFFFF) + U8(sub.nSubType);
    if (sub.bTag)
        bytes = bytes + U16(nDriver) + U16(nTag);
    if (sub.bText)
        return bytes + Text(text);
    bytes.resize(sub.nLen, 0x3B);
    return bytes;
}

Bytes I4(uint64_t n)
{
    return U32(n);
}

class CoreWalk : public CDriverTest
{
protected:
    void SetUp() override
    {
        CDriverTest::SetUp();
        Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, I4(0))}, {"s", 2, Typed(VT_STR, Text("first"))}});
    }

    /// One receive that holds all of this.
    void Receive(const Bytes& bytes)
    {
        m_rcv.Send(bytes);
        ASSERT_TRUE(WaitPending(Core().m_rcvSock, bytes.size()));
        EXPECT_TRUE(WalkOnce());
    }
    /// The bytes must end the walk of their receive, and the next receive must be walked from its first byte.
    void ExpectRestDropped(const Bytes& bytes)
    {
        Receive(Change(0, 1, I4(11)) + bytes + Change(0, 1, I4(22)));
        EXPECT_EQ(Read(*m_pA, "n"), "11");
        Receive(Change(0, 1, I4(33)));
        EXPECT_EQ(Read(*m_pA, "n"), "33");
    }
};

TEST_F(CoreWalk, EverySystemSubTypeHasItsLength)
{
    for (unsigned nSubType = 0; nSubType < 256; ++nSubType) {
        const auto* pRow = std::ranges::find(SUB_TYPES, nSubType, &SSubType::nSubType);
        const int nLen = pRow == std::end(SUB_TYPES) ? NOTIFY_STOP : static_cast<int>(pRow->nLen);
        EXPECT_EQ(Notify(U16(0xFFFF) + U8(nSubType) + U8(0) * 60), nLen) << "sub-type " << nSubType;
    }
}

TEST_F(CoreWalk, EverySystemSubTypeLeadsToTheNotificationBehindIt)
{
    unsigned n = 100;
    for (const SSubType& sub : SUB_TYPES) {
        Receive(System(sub) + Change(0, 1, I4(++n)));
        EXPECT_EQ(Read(*m_pA, "n"), std::to_string(n)) << "sub-type " << sub.nSubType;
        Receive(System(sub) * 3 + Change(0, 1, I4(++n)));
        EXPECT_EQ(Read(*m_pA, "n"), std::to_string(n)) << "three of sub-type " << sub.nSubType;
    }
}

TEST_F(CoreWalk, TheTextOfASystemNotificationMayHaveAnyLength)
{
    unsigned n = 0;
    for (const SSubType& sub : SUB_TYPES) {
        for (const size_t nText : {0, 1, 255, 2030, 2041, 2048, 5000, 60000}) {
            if (!sub.bText)
                continue;
            const Bytes bytes = System(sub, std::string(nText, ';')) + Change(0, 1, I4(++n));
            const CPlay play([&] { m_rcv.Send(bytes); });
            // A receive may end between the two, so there may be one more.
            while (Read(*m_pA, "n") != std::to_string(n))
                ASSERT_TRUE(WalkOnce());
        }
    }
}

TEST_F(CoreWalk, ACutNotificationIsSeenAsCutAtEveryPosition)
{
    for (const SSubType& sub : SUB_TYPES) {
        const Bytes whole = System(sub, "text");
        for (size_t nLen = 0; nLen < whole.size(); ++nLen)
            EXPECT_EQ(Notify(Bytes(whole.begin(), whole.begin() + static_cast<long>(nLen))), NOTIFY_CUT)
                << nLen << " bytes of sub-type " << sub.nSubType;
        EXPECT_EQ(Notify(whole), static_cast<int>(whole.size()));
    }
    for (const Bytes& whole : {Change(0, 1, I4(5)), Change(0, 2, Text("new"))}) {
        for (size_t nLen = 0; nLen < whole.size(); ++nLen)
            EXPECT_EQ(Notify(Bytes(whole.begin(), whole.begin() + static_cast<long>(nLen))), NOTIFY_CUT)
                << nLen;
    }
    EXPECT_EQ(Read(*m_pA, "n,s"), "[0, 'first']");
}

TEST_F(CoreWalk, SubTypesWithATagNeedOneOfTheProject)
{
    AddDriver("C", 2, 5); // its slot stays empty until it is asked for
    for (const SSubType& sub : SUB_TYPES) {
        if (!sub.bTag)
            continue;
        EXPECT_EQ(Notify(System(sub, "", 1, 1999)), static_cast<int>(sub.nLen));
        EXPECT_EQ(Notify(System(sub, "", 1, 2000)), NOTIFY_STOP) << "tag beyond its driver's";
        EXPECT_EQ(Notify(System(sub, "", 2, 0)), NOTIFY_STOP) << "empty slot";
        EXPECT_EQ(Notify(System(sub, "", 3, 0)), NOTIFY_STOP) << "index beyond the table";
        EXPECT_EQ(Notify(System(sub, "", 0xFFFF, 0xFFFF)), NOTIFY_STOP);
    }
}

TEST_F(CoreWalk, TwoWholeNotificationsOfOneReceiveAreBothDispatched)
{
    Receive(Change(0, 1, I4(7)) + Change(0, 2, Text("seven")));
    EXPECT_EQ(Read(*m_pA, "n,s"), "[7, 'seven']");
}

TEST_F(CoreWalk, AnUnknownSubTypeDiscardsTheRestOfTheReceive)
{
    for (const unsigned nSubType : {0U, 23U, 100U, 254U})
        ExpectRestDropped(U16(0xFFFF) + U8(nSubType));
}

TEST_F(CoreWalk, WhatIsDroppedFromAFullReceiveEndsTheConnection)
{
    // Its last bytes are those of a change that goes on behind it: nobody knows where the next one begins.
    const Bytes unknown = U16(0xFFFF) + U8(100);
    for (const size_t nChanges : {255, 256, 700}) {
        const Bytes stream = Change(0, 1, I4(11)) + unknown + Change(0, 1, I4(1280)) * nChanges;
        m_rcv.Send(stream);
        ASSERT_TRUE(WaitPending(Core().m_rcvSock, stream.size()));
        EXPECT_EQ(WalkOnce(), stream.size() < CRecvBuffer::SIZE);
        EXPECT_EQ(Read(*m_pA, "n"), "11");
        Renew();
    }
}

TEST_F(CoreWalk, WhatIsDroppedBehindALongTextIsDroppedToTheEnd)
{
    // More than 65,535 bytes behind it in one buffer: no number of bytes is far enough.
    const Bytes text = Change(0, 2, Text(std::string(100'000, 'x')));
    const Bytes dropped = U16(0xFFFF) + U8(100) + Change(0, 1, I4(1280)) * 9000;
    const CPlay play([&] { m_rcv.Send(text + dropped); });
    while (Read(*m_pA, "s").size() < 100'000) {
        if (!WalkOnce())
            break;
    }
    EXPECT_EQ(Read(*m_pA, "n"), "0");
    Core().m_rcvSock.ShutDown(); // the far end may still be sending
}

TEST_F(CoreWalk, AnUnknownDriverDiscardsTheRestOfTheReceive)
{
    AddDriver("C", 2, 5);
    ExpectRestDropped(Change(2, 0, I4(1))); // empty slot
    ExpectRestDropped(Change(3, 0, I4(1))); // beyond the table
    ExpectRestDropped(Change(0xFFFE, 0, I4(1)));
    EXPECT_EQ(Notify(Change(2, 0, I4(1))), NOTIFY_STOP);
    EXPECT_EQ(Notify(Change(3, 0, I4(1))), NOTIFY_STOP);
}

TEST_F(CoreWalk, APayloadThatCannotBeDecodedDiscardsTheRestOfTheReceive)
{
    ExpectRestDropped(Change(0, 8, I4(1))); // position beyond the driver's tags
    ExpectRestDropped(Change(0, 0xFFFF, I4(1)));
    ExpectRestDropped(Change(0, 5, I4(1))); // tag that was never read
    Subscribe(*m_pA, {{"big", 6, Typed(VT_UI8, {})}});
    ExpectRestDropped(Change(0, 6, U64(1))); // type without a payload
    EXPECT_EQ(Notify(Change(0, 5, I4(1))), NOTIFY_STOP);
}

TEST_F(CoreWalk, AnAlarmWithoutAReceiverIsSkipped)
{
    EXPECT_FALSE(HasAlarmReceiver());
    Receive(System({1, 35}) + System({3, 35}) + Change(0, 1, I4(5)));
    EXPECT_EQ(Read(*m_pA, "n"), "5");
}

TEST_F(CoreWalk, DatesAndLongIntegersAreWalkedPastByTheirSize)
{
    Subscribe(*m_pA, {{"date", 3, Typed(VT_DATE, F64(45000.5))}, {"long", 4, Typed(VT_I8, U64(1))}});
    Receive(Change(0, 3, F64(45001.5)) + Change(0, 4, U64(2)) + Change(0, 1, I4(9)));
    EXPECT_EQ(Read(*m_pA, "n"), "9");
}

/// Every kind of notification once, the changes with values that tell them apart.
Bytes MixedStream()
{
    Bytes stream;
    unsigned n = 0;
    for (const SSubType& sub : SUB_TYPES)
        stream = stream + System(sub, "some text") + Change(0, 1, I4(0x01000000 + ++n));
    for (const char* szText : {"", "x", "two words", "\xE6\xB0\xB4\xE4\xBD\x8D"})
        stream = stream + Change(0, 2, Text(szText)) + Change(0, 1, I4(++n));
    return stream;
}

class CoreSplit : public CoreWalk
{
protected:
    void SetUp() override
    {
        CoreWalk::SetUp();
        const CPyRef fn = MakeCallable([this](PyObject* pArgs) {
            m_log.push_back(Repr(pArgs));
            return None();
        });
        ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    }

    std::vector<std::string> m_log;
};

TEST_F(CoreSplit, WhereAReceiveEndsInsideTheStreamChangesNothing)
{
    const Bytes stream = MixedStream();
    Receive(stream);
    const std::vector<std::string> whole = std::exchange(m_log, {});
    ASSERT_EQ(whole.size(), std::size(SUB_TYPES) + 8);
    for (size_t nSplit = 1; nSplit < stream.size(); ++nSplit) {
        const auto split = stream.begin() + static_cast<long>(nSplit);
        m_log.clear();
        m_rcv.Send(Bytes(stream.begin(), split));
        ASSERT_TRUE(WaitPending(Core().m_rcvSock, nSplit));
        CRecvBuffer buffer(REST_MS);
        ASSERT_EQ(buffer.Fill(Core().m_rcvSock), static_cast<int>(nSplit));
        m_rcv.Send(Bytes(split, stream.end()));
        ASSERT_TRUE(WaitPending(Core().m_rcvSock, stream.size() - nSplit));
        EXPECT_TRUE(Walk(buffer));
        if (Pending(Core().m_rcvSock) > 0) { // the split was between two notifications
            EXPECT_TRUE(WalkOnce());
        }
        ASSERT_EQ(m_log, whole) << "split at " << nSplit;
    }
}

TEST_F(CoreSplit, AStreamThatComesByteByByteArrivesWhole)
{
    const Bytes stream = MixedStream();
    Receive(stream);
    const std::vector<std::string> whole = std::exchange(m_log, {});
    StartReceiving();
    {
        const COthersRun others;
        for (const BYTE n : stream)
            m_rcv.Send({n});
    }
    EXPECT_TRUE(WaitWhileOthersRun([&] { return m_log.size() >= whole.size(); }));
    EXPECT_EQ(m_log, whole);
}

TEST_F(CoreSplit, ARestThatNeverComesEndsTheWalkForGood)
{
    const Bytes whole = Change(0, 2, Text("a text"));
    for (const size_t nLen : {size_t{1}, size_t{3}, size_t{4}, whole.size() - 1}) {
        m_log.clear();
        const Bytes cut(whole.begin(), whole.begin() + static_cast<long>(nLen));
        const Bytes sent = Change(0, 1, I4(1)) + cut;
        m_rcv.Send(sent);
        ASSERT_TRUE(WaitPending(Core().m_rcvSock, sent.size()));
        EXPECT_FALSE(WalkOnce()) << nLen;
        EXPECT_EQ(m_log, std::vector<std::string>{"('A', 'n', 1)"}) << nLen;
    }
}

TEST_F(CoreSplit, ARestIsAwaitedAsLongAsBytesCome)
{
    Core().m_reqSock.SetTimeOut(400);
    StartReceiving();
    const Bytes slow = Change(0, 2, Text("a text that takes three times as long as one pause may"));
    {
        const COthersRun others;
        for (const BYTE n : slow) {
            m_rcv.Send({n});
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        m_rcv.Send(Change(0, 1, I4(1)));
    }
    EXPECT_TRUE(WaitWhileOthersRun([&] { return m_log.size() >= 2; }));
    EXPECT_TRUE(Core().IsConnected());
    EXPECT_EQ(m_log,
              (std::vector<std::string>{
                  "('A', 's', 'a text that takes three times as long as one pause may')", "('A', 'n', 1)"}));
}

TEST_F(CoreSplit, ARestThatPausesForLongerEndsBothConnections)
{
    Core().m_reqSock.SetTimeOut(100);
    StartReceiving();
    const Bytes whole = Change(0, 1, I4(0x01020304));
    m_rcv.Send(Bytes(whole.begin(), whole.begin() + 6));
    EXPECT_TRUE(WaitWhileOthersRun([&] { return !Core().IsConnected(); }));
    m_rcv.Send(Bytes(whole.begin() + 6, whole.end()) + Change(0, 1, I4(5)));
    m_req.WantEnd();
    EXPECT_TRUE(m_log.empty());
    EXPECT_EQ(Read(*m_pA, "n"), "0") << "the value of the subscription";
}

TEST_F(CoreSplit, ALongTextArrivesWhole)
{
    for (const size_t nText : {2043, 2044, 2045, 4096, 30000, 65531, 65532, 300'000, 5'000'000}) {
        m_log.clear();
        const std::string strText(nText, 'x');
        const CPlay play([&] { m_rcv.Send(Change(0, 2, Text(strText)) + Change(0, 1, I4(1))); });
        while (m_log.size() < 2)
            ASSERT_TRUE(WalkOnce());
        EXPECT_EQ(m_log[0], "('A', 's', '" + strText + "')");
    }
}

TEST_F(CoreSplit, ATextThatNeverEndsIsGivenUp)
{
    const CPlay play([&] {
        const Bytes part = Raw(std::string(1 << 20, 'x'));
        m_rcv.Send(Change(0, 2, part));
        for (size_t n = part.size(); n < CRecvBuffer::MAX_SIZE; n += part.size())
            m_rcv.Send(part);
    });
    EXPECT_FALSE(WalkOnce());
    EXPECT_EQ(Read(*m_pA, "s"), "'first'");
    EXPECT_TRUE(m_log.empty());
    m_pCore->StopSock(); // what is left of it is not received
}

/// The same stream, but the core walks on its own thread.
class CoreThread : public CoreWalk
{
protected:
    void SetUp() override
    {
        CoreWalk::SetUp();
        StartReceiving();
    }
    /// Has the far end send a change and waits until it is stored.
    void StoreOnThread(unsigned n)
    {
        m_rcv.Send(Change(0, 1, I4(n)));
        EXPECT_TRUE(WaitUntil([&] { return Read(*m_pA, "n") == std::to_string(n); }));
    }
    /// The receive thread waits for the interpreter lock, with this value stored and its call ahead.
    void LetThreadWaitForTheLock(unsigned n)
    {
        StoreOnThread(n);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    /// Ends the connection and tells whether that waited for the 16-second limit.
    bool DisconnectsPromptly()
    {
        const auto before = std::chrono::steady_clock::now();
        EXPECT_TRUE(Core()._Disconnect());
        return std::chrono::steady_clock::now() - before < std::chrono::seconds(8);
    }
};

TEST_F(CoreThread, StoresChangesWithoutTheInterpreterLock)
{
    for (unsigned n = 1; n < 20; ++n)
        StoreOnThread(n);
}

TEST_F(CoreThread, ALostConnectionIsCleanedUpWithoutTheInterpreterLock)
{
    const CDriverRef held(m_pA);
    m_rcv.Close();
    EXPECT_TRUE(WaitUntil([] { return CDBCore::CountThreads() == 0; }))
        << "the lock is held here all the time";
    EXPECT_FALSE(Core().IsConnected());
    EXPECT_EQ(Core().m_reqSock.GetHandle(), -1);
    EXPECT_EQ(Core().m_rcvSock.GetHandle(), -1);
    m_req.WantEnd();
    EXPECT_EQ(CountDirectory(), 0U);
    EXPECT_EQ(CountSlots(), 2U);
    EXPECT_FALSE(HasDriverAt(0) || HasDriverAt(1));
    EXPECT_EQ(Core()._GetDriver("A"), nullptr);
}

TEST_F(CoreThread, StoredValuesStayReadableAfterALoss)
{
    const CDriverRef held(m_pA);
    StoreOnThread(77);
    m_rcv.Close();
    ASSERT_TRUE(WaitForThreads());
    EXPECT_EQ(Read(*held.Get(), "n"), "77");
    EXPECT_EQ(Read(*held.Get(), "n,s"), "[77, 'first']");
    EXPECT_EQ(Read(*held.Get(), "unheard"), "None");
    EXPECT_TRUE(held->_ConnectTag("n,s"));
    EXPECT_FALSE(held->_ConnectTag("n,unheard"));
    const CPyRef value(PyLong_FromLong(1));
    EXPECT_EQ(held->SetTagValue("n", value.get()), EWrite::Failed);
    DeleteCore();
    EXPECT_EQ(Read(*held.Get(), "n"), "77");
}

TEST_F(CoreThread, DisconnectEndsBothSocketsTheThreadAndTheDrivers)
{
    const CDriverRef held(m_pA);
    EXPECT_TRUE(DisconnectsPromptly());
    EXPECT_FALSE(Core().IsConnected());
    EXPECT_EQ(Core().m_reqSock.GetHandle(), -1);
    EXPECT_EQ(Core().m_rcvSock.GetHandle(), -1);
    m_req.WantEnd();
    m_rcv.WantEnd();
    EXPECT_EQ(CountDirectory(), 0U);
    EXPECT_EQ(CountRetired(), 0U);
    EXPECT_FALSE(HasDriverAt(0) || HasDriverAt(1));
    EXPECT_EQ(Read(*held.Get(), "n"), "0");
    EXPECT_TRUE(DisconnectsPromptly()) << "once more, on an idle core";
}

TEST_F(CoreThread, DisconnectIsPromptWhileTheServerPoursInChanges)
{
    std::atomic<bool> bRun{true};
    const Bytes changes = Change(0, 1, I4(1)) * 500;
    const CPlay play([&] {
        while (bRun)
            m_rcv.Send(changes);
    });
    EXPECT_TRUE(WaitUntil([&] { return Read(*m_pA, "n") == "1"; }));
    EXPECT_TRUE(DisconnectsPromptly());
    bRun = false;
}

TEST_F(CoreThread, DisconnectIsPromptInTheMiddleOfACutNotification)
{
    m_rcv.Send(Change(0, 1, I4(5)) + U16(0));
    EXPECT_TRUE(WaitUntil([&] { return Read(*m_pA, "n") == "5"; }));
    EXPECT_TRUE(DisconnectsPromptly());
}

TEST_F(CoreThread, TheRestOfANotificationIsAwaitedWithoutTheInterpreterLock)
{
    std::vector<std::string> log;
    const CPyRef fn = MakeCallable([&](PyObject* pArgs) {
        log.push_back(Repr(pArgs));
        return None();
    });
    ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    // While the thread waits for the rest, the lock must be had here: if it kept it, the rest would always
    // come too late. On a busy machine that may happen once or twice all the same.
    for (int nTry = 0; nTry < 5 && (log.empty() || log.back() != "('A', 'n', 6)"); ++nTry) {
        log.clear();
        m_rcv.Send(Change(0, 1, I4(5)) + U16(0) + U16(1));
        ASSERT_TRUE(WaitWhileOthersRun([&] { return log.size() == 1; }));
        m_rcv.Send(I4(6));
        ASSERT_TRUE(WaitWhileOthersRun([&] { return Pending(Core().m_rcvSock) == 0; }));
        const COthersRun others;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    EXPECT_EQ(log, (std::vector<std::string>{"('A', 'n', 5)", "('A', 'n', 6)"}));
}

TEST_F(CoreThread, DisconnectIsPromptWhileTheThreadWaitsForTheInterpreterLock)
{
    std::atomic<int> nCalls{0};
    const CPyRef fn = MakeCallable([&](PyObject*) {
        ++nCalls;
        return None();
    });
    ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    LetThreadWaitForTheLock(5);
    EXPECT_TRUE(DisconnectsPromptly());
    EXPECT_EQ(CDBCore::CountThreads(), 1) << "it waits for the lock still";
    DeleteCore();
    EXPECT_TRUE(WaitForThreads());
    EXPECT_EQ(nCalls, 0) << "a call after the end of its connection";
    EXPECT_EQ(Py_REFCNT(fn.get()), 1);
}

TEST_F(CoreThread, ACallableThatHoldsItsOwnDriverGoesWithTheConnection)
{
    for (const bool bLost : {false, true}) {
        std::weak_ptr<int> alive;
        {
            auto pToken = std::make_shared<int>(0);
            alive = pToken;
            const CPyRef fn = MakeCallable([pToken, held = CDriverRef(m_pA)](PyObject*) { return None(); });
            ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
        }
        EXPECT_FALSE(alive.expired());
        if (bLost) {
            m_rcv.Close();
            ASSERT_TRUE(WaitForThreads());
        }
        DeleteCore();
        EXPECT_TRUE(alive.expired());
        TearDown();
        SetUp();
    }
}

TEST_F(CoreThread, ACallbackMayAskTheServer)
{
    std::vector<std::string> log;
    const CPyRef fn = MakeCallable([&](PyObject*) {
        Learn(*m_pA, {{"other", 6, {}}});
        Subscribe(*m_pB, {{"t", 7, Typed(VT_I4, U32(5))}});
        log.push_back(Read(*m_pB, "t"));
        return None();
    });
    ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    m_rcv.Send(Change(0, 1, I4(5)) + Change(1, 7, I4(6)));
    EXPECT_TRUE(WaitWhileOthersRun([&] { return Read(*m_pA, "n") == "5" && !log.empty(); }));
    EXPECT_EQ(log, std::vector<std::string>{"5"});
    EXPECT_TRUE(WaitWhileOthersRun([&] { return Read(*m_pB, "t") == "6"; }));
}

TEST_F(CoreThread, ACallbackMayEndItsOwnConnection)
{
    const CPyRef fn = MakeCallable([this](PyObject*) {
        EXPECT_TRUE(DisconnectsPromptly());
        return None();
    });
    ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    m_rcv.Send(Change(0, 1, I4(5)) * 10);
    EXPECT_TRUE(WaitForThreads());
    EXPECT_FALSE(Core().IsConnected());
}

TEST_F(CoreThread, ACallbackMayDeleteItsOwnCore)
{
    std::atomic<int> nCalls{0};
    {
        const CPyRef fn = MakeCallable([&](PyObject*) {
            ++nCalls;
            DeleteCore();
            return None();
        });
        ASSERT_TRUE(m_pA->SetTagNotify(fn.get())); // from here on the registration alone keeps it
    }
    m_rcv.Send(Change(0, 1, I4(5)) * 10);
    EXPECT_TRUE(WaitForThreads());
    EXPECT_EQ(nCalls, 1);
}

TEST_F(CoreThread, DisconnectIsPromptWhileACallbackSleeps)
{
    std::atomic<bool> bInside{false};
    std::atomic<bool> bWake{false};
    const CPyRef fn = MakeCallable([&](PyObject*) {
        {
            const COthersRun others;
            bInside = true;
            EXPECT_TRUE(WaitUntil([&] { return bWake.load(); }));
        }
        return None();
    });
    ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    m_rcv.Send(Change(0, 1, I4(5)) * 10);
    EXPECT_TRUE(WaitWhileOthersRun([&] { return bInside.load(); }));
    EXPECT_TRUE(DisconnectsPromptly());
    DeleteCore();
    EXPECT_EQ(CDBCore::CountThreads(), 1);
    bWake = true;
    EXPECT_TRUE(WaitForThreads());
}

} // namespace
