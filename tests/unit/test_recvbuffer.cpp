// One receive of the notification stream: what it holds, how it goes on, and when it gives up.
#include "core_fixture.h"

namespace {

class RecvBuffer : public ::testing::Test
{
protected:
    void SetUp() override { m_far = CFarEnd::Meet(m_sock); }

    /// Sends, and waits until all of it can be received at once.
    void Send(const Bytes& bytes)
    {
        m_far.Send(bytes);
        m_nPending += bytes.size();
        EXPECT_TRUE(WaitPending(m_sock, m_nPending));
    }
    int Fill()
    {
        const int nGot = m_buffer.Fill(m_sock);
        m_nPending -= static_cast<size_t>(std::max(nGot, 0));
        return nGot;
    }
    bool More()
    {
        const size_t nBefore = m_buffer.Unwalked().size();
        const bool bMore = m_buffer.More(m_sock);
        m_nPending -= m_buffer.Unwalked().size() - nBefore;
        return bMore;
    }
    Bytes Unwalked() const { return Bytes(m_buffer.Unwalked().begin(), m_buffer.Unwalked().end()); }

    static Bytes Numbered(size_t nLen)
    {
        Bytes bytes(nLen);
        for (size_t i = 0; i < nLen; ++i)
            bytes[i] = static_cast<BYTE>(i * 7 + i / 256);
        return bytes;
    }
    static Bytes Part(const Bytes& bytes, size_t nFrom, size_t nTo)
    {
        return Bytes(bytes.begin() + static_cast<long>(nFrom), bytes.begin() + static_cast<long>(nTo));
    }

    CSyncSocket m_sock;
    CFarEnd m_far;
    CRecvBuffer m_buffer;
    size_t m_nPending = 0;
};

TEST_F(RecvBuffer, IsWalkedBeforeItsFirstReceive)
{
    EXPECT_TRUE(m_buffer.IsWalked());
    EXPECT_TRUE(m_buffer.Unwalked().empty());
}

TEST_F(RecvBuffer, TakesNoMoreThan2048BytesAReceive)
{
    const Bytes stream = Numbered(5000);
    Send(stream);
    EXPECT_EQ(Fill(), 2048);
    EXPECT_EQ(Unwalked(), Part(stream, 0, 2048));
    EXPECT_EQ(Fill(), 2048);
    EXPECT_EQ(Unwalked(), Part(stream, 2048, 4096));
    EXPECT_EQ(Fill(), 904);
    EXPECT_EQ(Unwalked(), Part(stream, 4096, 5000));
}

TEST_F(RecvBuffer, SkippingLeadsToTheNextNotification)
{
    Send(Numbered(10));
    Fill();
    m_buffer.Skip(4);
    EXPECT_EQ(Unwalked(), Part(Numbered(10), 4, 10));
    EXPECT_FALSE(m_buffer.IsWalked());
    m_buffer.Skip(6);
    EXPECT_TRUE(m_buffer.IsWalked());
}

TEST_F(RecvBuffer, ALengthBeyondTheEndIsTheEnd)
{
    for (const size_t nLen : {size_t{11}, size_t{65535}, size_t{65539}}) {
        Send(Numbered(10));
        Fill();
        m_buffer.Skip(nLen);
        EXPECT_TRUE(m_buffer.IsWalked());
        EXPECT_TRUE(m_buffer.Unwalked().empty());
    }
}

TEST_F(RecvBuffer, KeepsNothingForTheNextReceive)
{
    Send(Numbered(10));
    Fill();
    m_buffer.Skip(3);
    Send(Raw("next"));
    Fill();
    EXPECT_EQ(Unwalked(), Raw("next"));
}

TEST_F(RecvBuffer, GoesOnBehindWhatIsThere)
{
    const Bytes stream = Numbered(100);
    Send(Part(stream, 0, 60));
    Fill();
    m_buffer.Skip(50);
    Send(Part(stream, 60, 100));
    EXPECT_TRUE(More());
    EXPECT_EQ(Unwalked(), Part(stream, 50, 100));
}

TEST_F(RecvBuffer, WalkedBytesMakeRoomInAFullBuffer)
{
    const Bytes stream = Numbered(4000);
    Send(stream);
    Fill();
    m_buffer.Skip(2000);
    EXPECT_TRUE(More());
    EXPECT_EQ(Unwalked(), Part(stream, 2000, 4000));
}

TEST_F(RecvBuffer, GrowsForOneLongNotificationUpTo64K)
{
    const Bytes stream = Numbered(CRecvBuffer::MAX_SIZE + 10);
    const CPlay play([&] { m_far.Send(stream); });
    ASSERT_GT(m_buffer.Fill(m_sock), 0);
    while (m_buffer.Unwalked().size() < CRecvBuffer::MAX_SIZE)
        ASSERT_TRUE(m_buffer.More(m_sock));
    EXPECT_EQ(Unwalked(), Part(stream, 0, CRecvBuffer::MAX_SIZE));
    EXPECT_FALSE(m_buffer.More(m_sock)) << "no more room";
    EXPECT_EQ(m_buffer.Unwalked().size(), CRecvBuffer::MAX_SIZE);
    // The next receive is an ordinary one again, from its first byte.
    EXPECT_EQ(m_buffer.Fill(m_sock), 10);
    EXPECT_EQ(Unwalked(), Part(stream, CRecvBuffer::MAX_SIZE, stream.size()));
}

TEST_F(RecvBuffer, GivesUpWhenTheRestDoesNotCome)
{
    Send(Raw("half"));
    Fill();
    EXPECT_FALSE(More());
    EXPECT_EQ(Unwalked(), Raw("half"));
    Send(Raw("whole"));
    EXPECT_EQ(Fill(), 5);
    EXPECT_EQ(Unwalked(), Raw("whole"));
}

TEST_F(RecvBuffer, GivesUpOnARestThatTricklesForEver)
{
    constexpr int ENDLESS = 600; // bytes, 20 ms each: many times the bound
    std::atomic<bool> bRun{true};
    std::atomic<int> nSent{1};
    Send(U8(0));
    Fill();
    {
        const CPlay play([&] {
            for (; bRun && nSent < ENDLESS; ++nSent) {
                m_far.Send(U8(0));
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
        while (m_buffer.More(m_sock)) {
        }
        bRun = false;
    }
    EXPECT_GT(m_buffer.Unwalked().size(), 1U) << "it did go on for a while";
    EXPECT_LT(nSent, ENDLESS) << "it only ended when the bytes did";
}

TEST_F(RecvBuffer, TheTimeForARestBeginsAnewWithEachNotification)
{
    Send(Raw("ab"));
    Fill();
    EXPECT_FALSE(More()) << "the first notification's time has passed";
    m_buffer.Skip(1);
    Send(Raw("c"));
    EXPECT_TRUE(More());
    EXPECT_EQ(Unwalked(), Raw("bc"));
}

TEST_F(RecvBuffer, TheTimeForARestBeginsAnewWithEachReceive)
{
    Send(Raw("half"));
    Fill();
    EXPECT_FALSE(More());
    Send(Raw("x"));
    Fill();
    Send(Raw("y"));
    EXPECT_TRUE(More());
    EXPECT_EQ(Unwalked(), Raw("xy"));
}

TEST_F(RecvBuffer, AClosedPeerEndsTheReceiveAndThenTheStream)
{
    Send(Raw("half"));
    Fill();
    m_far.Close();
    EXPECT_FALSE(More());
    EXPECT_EQ(m_buffer.Fill(m_sock), 0);
    EXPECT_TRUE(m_buffer.IsWalked());
}

TEST_F(RecvBuffer, WithoutASocketThereIsNothing)
{
    CSyncSocket none;
    EXPECT_EQ(m_buffer.Fill(none), -1);
    EXPECT_TRUE(m_buffer.IsWalked());
    EXPECT_FALSE(m_buffer.More(none));
}

} // namespace
