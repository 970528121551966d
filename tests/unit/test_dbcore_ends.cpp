// The ends of a connection that are not its own: of the other socket, a fork and the end of the interpreter.
#include "core_fixture.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Copies of live connections, and the end of all of them. Each in a process of its own.
class CoreEnds : public CDriverTest
{
protected:
    /// Runs in a forked child; its result is the exit code.
    static int InChild(const std::function<int()>& fn)
    {
        const pid_t nChild = ::fork();
        if (nChild == 0)
            std::_Exit(fn());
        int nStatus = -1;
        EXPECT_EQ(::waitpid(nChild, &nStatus, 0), nChild);
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    }
};

TEST_F(CoreEnds, TheEndOfTheRequestConnectionIsSeenInsideANotification)
{
    Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, U32(0))}});
    Core().m_reqSock.SetTimeOut(3'600'000); // the rest is awaited for as long
    StartReceiving();
    m_rcv.Send(Change(0, 1, U32(5)) + U16(0));
    EXPECT_TRUE(WaitWhileOthersRun([&] { return Read(*m_pA, "n") == "5"; }));
    m_req.Close();
    EXPECT_TRUE(WaitWhileOthersRun([&] { return !Core().IsConnected(); }));
}

TEST_F(CoreEnds, TheEndOfTheRequestConnectionIsSeenBesideAStreamThatNeverPauses)
{
    Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, U32(0))}});
    StartReceiving();
    const Bytes changes = Change(0, 1, U32(5)) * 10'000;
    const CPlay play([&] {
        while (m_rcv.Send(changes)) { // until the client has ended it
        }
    });
    EXPECT_TRUE(WaitWhileOthersRun([&] { return Read(*m_pA, "n") == "5"; }));
    m_req.Close();
    EXPECT_TRUE(WaitWhileOthersRun([&] { return !Core().IsConnected(); }));
}

TEST_F(CoreEnds, AForkedCopyAnswersNothingAndGoesWithoutAWordToTheServer)
{
    Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, U32(0))}});
    const CPyRef fn = MakeCallable([](PyObject*) { return None(); });
    ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    StartReceiving();
    EXPECT_FALSE(Core().IsForked());
    EXPECT_EQ(InChild([&] {
                  const SOCKET hReq = Core().m_reqSock.GetHandle();
                  const bool bRight = Core().IsForked() && m_pA->IsForked() && !_DBGetDriver(m_pCore, "A") &&
                                      _DrvConnectTag(m_pA, "n") == 0 &&
                                      _DrvSetTagValue(m_pA, "n", Py_True) == -2 &&
                                      Repr(CPyRef(_DrvGetTagValue(m_pA, "n"))) == "None" &&
                                      _DBConnect(m_pCore, "127.0.0.1:1", "u", "p") == -2;
                  _DBCoreDelete(m_pCore);
                  return bRight && ::fcntl(hReq, F_GETFD) == -1 && CDBCore::CountThreads() == 0 ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(m_req.IsSilent());
    m_rcv.Send(Change(0, 1, U32(5)));
    EXPECT_TRUE(WaitWhileOthersRun([&] { return Read(*m_pA, "n") == "5"; }))
        << "the parent's connection goes on";
    EXPECT_EQ(CDBCore::CountThreads(), 1);
}

TEST_F(CoreEnds, AForkedCopyOfAnIdleCoreIsAnOrdinaryCore)
{
    Core().StopSock();
    EXPECT_EQ(InChild([&] { return Core().IsForked() ? 1 : 0; }), 0);
    EXPECT_EQ(InChild([&] {
                  CDBCore own;
                  return own.IsForked() || own._Connect(CString("127.0.0.1:1"), "u", "p") != EConnect::Failed
                             ? 1
                             : 0;
              }),
              0);
}

TEST_F(CoreEnds, ACallbackThatForksSendsItsCopyOfTheThreadHome)
{
    Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, U32(0))}});
    std::atomic<pid_t> nChild{0};
    std::atomic<int> nCalls{0};
    const CPyRef fn = MakeCallable([&](PyObject*) {
        if (nCalls++ > 0)
            return None();
        PyOS_BeforeFork();
        const pid_t nForked = ::fork();
        if (nForked == 0) {
            PyOS_AfterFork_Child();
            std::atexit(
                [] { std::_Exit(0); }); // the copy's last thread ends the process: without its reports
        } else {
            PyOS_AfterFork_Parent();
            nChild = nForked;
        }
        return None();
    });
    ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    StartReceiving();
    constexpr int CHANGES = 2000;
    m_rcv.Send(Change(0, 1, U32(5)) * CHANGES);
    EXPECT_TRUE(WaitWhileOthersRun([&] { return nCalls == CHANGES; })) << "the copy took some for itself";
    int nStatus = -1;
    EXPECT_TRUE(WaitUntil([&] { return ::waitpid(nChild, &nStatus, WNOHANG) == nChild; }))
        << "the copy goes on";
    EXPECT_EQ(nStatus, 0);
    EXPECT_TRUE(m_req.IsSilent());
    EXPECT_TRUE(Core().IsConnected());
}

TEST_F(CoreEnds, TheEndOfTheInterpreterEndsEveryConnectionAndAllowsNoNewOne)
{
    const auto endAll = [this] {
        CDBCore other;
        const CPyRef fn = MakeCallable([](PyObject*) -> PyObject* { std::_Exit(9); });
        Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, U32(0))}});
        m_pA->SetTagNotify(fn.get());
        StartReceiving();
        m_rcv.Send(Change(0, 1, U32(5)) * 1000);
        EXPECT_TRUE(WaitUntil([&] { return Read(*m_pA, "n") == "5"; })); // its call waits for the lock
        DBEndAll();
        const bool bEnded = !Core().IsConnected() && CDBCore::CountThreads() == 0;
        const bool bNoNew = Core()._Connect(CString("127.0.0.1:1"), "u", "p") == EConnect::Failed;
        DBEndAll();
        std::_Exit(bEnded && bNoNew && !HasFailure() ? 7 : 3);
    };
    EXPECT_EXIT(endAll(), ::testing::ExitedWithCode(7), "");
}

} // namespace
