// What the receive thread does when there is no memory for a value. A program of its own: what it does to
// operator new is no business of other tests.
#include "core_fixture.h"
#include "refusing_new.h"

namespace {

constexpr size_t LONG = 1500; // a text that fits a receive and is longer than anything else a receive needs

class NoMemory : public CDriverTest
{
protected:
    void SetUp() override
    {
        CDriverTest::SetUp();
        Subscribe(*m_pA, {{"s", 2, Typed(VT_STR, Text("first"))}});
    }
    /// The server sends a text of nText bytes, but there is no memory for nRefuse and more: the connection
    /// must end. Not for the length of the test: it needs memory itself.
    void SendWithoutMemory(size_t nText, size_t nRefuse, int nAllowed = 0)
    {
        const Bytes change = Change(0, 2, Text(std::string(nText, 'x')));
        StartReceiving();
        m_rcv.Send(Change(0, 2, Text("before")));
        ASSERT_TRUE(WaitUntil([&] { return Read(*m_pA, "s") == "'before'"; })) << "the thread has its buffer";
        g_nAllowed = nAllowed;
        g_nRefuse = nRefuse;
        EXPECT_TRUE(m_rcv.Send(change));
        const bool bEnded = WaitForThreads();
        g_nRefuse = SIZE_MAX;
        EXPECT_TRUE(bEnded);
        EXPECT_FALSE(Core().IsConnected());
        m_req.WantEnd();
    }
};

TEST_F(NoMemory, ForAChangeEndsTheConnectionAndKeepsTheValueBefore)
{
    const CDriverRef held(m_pA);
    SendWithoutMemory(LONG, LONG);
    EXPECT_EQ(Read(*held.Get(), "s"), "'before'");
    EXPECT_EQ(Read(*held.Get(), "unheard"), "None");
}

TEST_F(NoMemory, ForTheCopyThatACallGetsEndsTheConnectionToo)
{
    CPyScope scope("calls = []");
    ASSERT_TRUE(m_pA->SetTagNotify(scope.Eval("lambda *change: calls.append(change)").get()));
    const CDriverRef held(m_pA);
    SendWithoutMemory(LONG, LONG, 1);
    EXPECT_EQ(Read(*held.Get(), "s"), "'before'");
    EXPECT_EQ(scope.Show("calls"), "[('A', 's', 'before')]");
}

TEST_F(NoMemory, ForTheRestOfALongTextEndsTheConnection)
{
    SendWithoutMemory(CRecvBuffer::SIZE, CRecvBuffer::SIZE + 1);
}

TEST_F(NoMemory, IsNeededForNothingWhenTheDriversAreLetGo)
{
    const CDriverRef held(m_pA);
    g_nRefuse = 0;
    Core().ClearDrivers();
    g_nRefuse = SIZE_MAX;
    EXPECT_EQ(CountDirectory(), 0U);
    EXPECT_EQ(CountRetired(), 2U);
    EXPECT_FALSE(HasDriverAt(0) || HasDriverAt(1));
    EXPECT_EQ(Read(*held.Get(), "unheard"), "None") << "it is detached";
    EXPECT_TRUE(Core()._Disconnect());
    EXPECT_EQ(CountRetired(), 0U);
}

TEST_F(NoMemory, ForANewCoreGivesNone)
{
    g_nRefuse = sizeof(CDBCore);
    CDBCore* pCore = _DBCoreNew();
    g_nRefuse = SIZE_MAX;
    EXPECT_EQ(pCore, nullptr);
}

TEST(NoMemoryVariant, AnAssignmentWithoutMemoryChangesNothing)
{
    XVariant value("before");
    const XVariant text(std::string(LONG, 'x').c_str());
    g_nRefuse = LONG;
    EXPECT_THROW(value = text, std::bad_alloc);
    g_nRefuse = SIZE_MAX;
    EXPECT_EQ(CString(value), "before");
}

} // namespace
