// What the receive thread and sockets do when there is no memory. A program of its own: what it does to
// operator new is no business of other tests.
#include "core_fixture.h"
#include "loopback.h"
#include "refusing_new.h"

#include <fcntl.h>
#include <functional>
#include <new>
#include <unistd.h>

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

class NoMemorySocket : public testing::Test
{
protected:
    /// Nothing can be had while fn runs, which must fail for that and leave no descriptor behind.
    static void Refuse(const std::function<void()>& fn)
    {
        const size_t nBefore = CountDescriptors();
        bool bRefused = false;
        g_nRefuse = 0;
        try {
            fn();
        } catch (const std::bad_alloc&) {
            bRefused = true;
        }
        g_nRefuse = SIZE_MAX;
        EXPECT_TRUE(bRefused);
        EXPECT_EQ(CountDescriptors(), nBefore);
    }
};

TEST_F(NoMemorySocket, OpensNothingThatStaysOpen)
{
    CSyncSocket sock;
    Refuse([&] { sock.Create(); });
    EXPECT_EQ(sock.GetHandle(), -1);
    EXPECT_TRUE(sock.Create()) << "with memory again";
}

TEST_F(NoMemorySocket, EndsTheConnectionThatItCannotAccept)
{
    CLoopback listener;
    CSyncSocket accepting(::fcntl(listener.Handle(), F_DUPFD_CLOEXEC, 0));
    CSyncSocket client;
    ASSERT_TRUE(client.Create());
    ASSERT_TRUE(client._Connect("127.0.0.1", listener.Port()));
    CSyncSocket server;
    Refuse([&] { accepting.Accept(server, nullptr, nullptr); });
    EXPECT_EQ(server.GetHandle(), -1);
    client.SetTimeOut(20'000);
    WantEnd(client);
}

TEST_F(NoMemorySocket, ClosesTheDescriptorThatItIsGiven)
{
    const int hGiven = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    ASSERT_NE(hGiven, -1);
    bool bRefused = false;
    g_nRefuse = 0;
    try {
        const CSyncSocket sock(hGiven);
    } catch (const std::bad_alloc&) {
        bRefused = true;
    }
    g_nRefuse = SIZE_MAX;
    EXPECT_TRUE(bRefused);
    EXPECT_EQ(::fcntl(hGiven, F_GETFD), -1);
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
