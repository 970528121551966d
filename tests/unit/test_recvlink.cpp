// How a core and its receive thread part: who waits, who need not, and who must not touch the core any more.
#include "core_fixture.h"

namespace {

constexpr DWORD NO_TIME = 1;
constexpr DWORD LONG = 30000;

TEST(RecvLink, AThreadMayGoInAndOutOfPythonWhileNobodyLetsItGo)
{
    CRecvLink link;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(link.EnterPython());
        EXPECT_TRUE(link.LeavePython());
    }
    EXPECT_FALSE(link.IsLetGo());
}

TEST(RecvLink, LettingGoFailsWhileTheThreadNeitherLeavesNorEntersPython)
{
    CRecvLink link;
    EXPECT_FALSE(link.LetGo(NO_TIME));
    EXPECT_TRUE(link.IsLetGo());
}

TEST(RecvLink, AThreadThatIsDoneNeedNotBeAwaited)
{
    CRecvLink link;
    link.Done();
    EXPECT_TRUE(link.LetGo(0));
    EXPECT_TRUE(link.LetGo(0));
}

TEST(RecvLink, AThreadInPythonNeedNotBeAwaitedAndFindsOutWhenItLeaves)
{
    CRecvLink link;
    EXPECT_TRUE(link.EnterPython());
    EXPECT_TRUE(link.LetGo(0));
    EXPECT_TRUE(link.IsLetGo());
    EXPECT_FALSE(link.LeavePython());
    EXPECT_TRUE(link.LetGo(0)) << "the right to touch the core has not come back";
    EXPECT_FALSE(link.EnterPython());
}

TEST(RecvLink, AThreadThatHasComeBackFromPythonIsAwaitedAgain)
{
    CRecvLink link;
    EXPECT_TRUE(link.EnterPython());
    EXPECT_TRUE(link.LeavePython());
    EXPECT_FALSE(link.LetGo(NO_TIME));
}

TEST(RecvLink, EnteringPythonEndsTheWaitOfWhoLetsGo)
{
    CRecvLink link;
    std::thread thread([&] {
        EXPECT_TRUE(WaitUntil([&] { return link.IsLetGo(); }));
        EXPECT_FALSE(link.EnterPython());
    });
    EXPECT_TRUE(link.LetGo(LONG));
    thread.join();
    EXPECT_TRUE(link.LetGo(0));
}

TEST(RecvLink, BeingDoneEndsTheWaitOfWhoLetsGo)
{
    CRecvLink link;
    std::thread thread([&] {
        EXPECT_TRUE(WaitUntil([&] { return link.IsLetGo(); }));
        link.Done();
    });
    EXPECT_TRUE(link.LetGo(LONG));
    thread.join();
}

TEST(RecvLink, AWaitThatFailedMayBeTriedAgain)
{
    CRecvLink link;
    EXPECT_FALSE(link.LetGo(NO_TIME));
    EXPECT_FALSE(link.LetGo(NO_TIME));
    EXPECT_FALSE(link.EnterPython());
    EXPECT_TRUE(link.LetGo(0));
}

/// What is shared here has no lock of its own: only the link keeps the two sides apart.
TEST(RecvLink, OnceLetGoTheThreadTouchesTheCoreNoMore)
{
    for (int nRound = 0; nRound < (SANITIZED ? 200 : 1000); ++nRound) {
        CRecvLink link;
        int nCore = 0;
        std::atomic<bool> bRun{true};
        std::thread thread([&] {
            while (bRun) {
                ++nCore;
                if (!link.EnterPython() || !link.LeavePython())
                    return;
            }
            link.Done();
        });
        bRun = nRound % 2 == 0;
        EXPECT_TRUE(link.LetGo(LONG));
        const int nSeen = nCore;
        nCore = -1;
        bRun = false;
        thread.join();
        EXPECT_GE(nSeen, 0);
        EXPECT_EQ(nCore, -1);
    }
}

} // namespace
