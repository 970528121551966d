// Host names: found, not found, and asked of a resolver that does not answer.
#include "HostName.h"
#include "SyncSocket.h"

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace {

std::atomic<bool> g_bAnswer{false};
std::atomic<int> g_nEnded{0};

/// Answers 127.0.0.9, but not before it is told to.
std::optional<in_addr> SlowLookUp(LPCSTR)
{
    for (int i = 0; i < 500 && !g_bAnswer; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ++g_nEnded;
    return in_addr{::inet_addr("127.0.0.9")};
}

class HostName : public testing::Test
{
protected:
    void SetUp() override { g_bAnswer = false; }
    void TearDown() override { g_fnLookUp = m_fnBefore; }

    void WaitForEnds(int nEnds) const
    {
        for (int i = 0; i < 500 && g_nEnded < nEnds; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(g_nEnded, nEnds);
    }

    FnLookUp m_fnBefore = g_fnLookUp;
};

TEST_F(HostName, OfThisMachineIsFoundWithAndWithoutALimit)
{
    EXPECT_EQ(ResolveHost("localhost", 0)->s_addr, ::inet_addr("127.0.0.1"));
    EXPECT_EQ(ResolveHost("localhost", 5000)->s_addr, ::inet_addr("127.0.0.1"));
}

TEST_F(HostName, ThatNobodyHasIsNotFound)
{
    EXPECT_FALSE(ResolveHost("no-such-host.invalid", 5000));
}

TEST_F(HostName, OfASilentResolverIsGivenUpInTimeAndTheThreadGoesLater)
{
    g_fnLookUp = SlowLookUp;
    const int nBefore = g_nEnded;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(ResolveHost("slow.invalid", 100));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));
    EXPECT_EQ(g_nEnded, nBefore) << "the answer must still be outstanding";
    g_bAnswer = true;
    WaitForEnds(nBefore + 1);
}

TEST_F(HostName, ThatIsAnsweredWithinTheLimitIsUsed)
{
    g_fnLookUp = SlowLookUp;
    g_bAnswer = true;
    EXPECT_EQ(ResolveHost("quick.invalid", 5000)->s_addr, ::inet_addr("127.0.0.9"));
}

TEST_F(HostName, ConnectingByNameEndsByTheConnectTimeOut)
{
    g_fnLookUp = SlowLookUp;
    const int nBefore = g_nEnded;
    CSyncSocket sock;
    ASSERT_TRUE(sock.Create());
    sock.SetConnectTimeOut(100);
    EXPECT_FALSE(sock._Connect("slow.invalid", 1));
    EXPECT_EQ(g_nEnded, nBefore) << "the resolver had not answered";
    g_bAnswer = true;
    WaitForEnds(nBefore + 1);
}

TEST_F(HostName, DottedAddressAsksNoResolver)
{
    g_fnLookUp = [](LPCSTR) -> std::optional<in_addr> {
        ADD_FAILURE() << "asked";
        return std::nullopt;
    };
    sockaddr_in addr;
    CSyncSocket::CreateAddrIn("192.0.2.7", 80, addr, 100);
    EXPECT_EQ(addr.sin_addr.s_addr, ::inet_addr("192.0.2.7"));
}

} // namespace
