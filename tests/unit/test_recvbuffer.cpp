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
    bool MoreOf(CSyncSocket& sock)
    {
        return m_buffer.More(
            sock, [&](long nMs) { return sock.WaitRecv(nullptr, nMs) == CSyncSocket::EWake::Ready; });
    }
    bool More()
    {
        const size_t nBefore = m_buffer.Unwalked().size();
        const bool bMore = MoreOf(m_sock);
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
    CRecvBuffer m_buffer{300};
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

TEST_F(RecvBuffer, KnowsWhetherTheLastBytesTookAllTheRoom)
{
    Send(Numbered(2047));
    Fill();
    EXPECT_FALSE(m_buffer.WasFilled());
    Send(Numbered(2048));
    Fill();
    EXPECT_TRUE(m_buffer.WasFilled());
    m_buffer.Skip(2000);
    Send(Numbered(1999));
    EXPECT_TRUE(More());
    EXPECT_FALSE(m_buffer.WasFilled());
    m_buffer.Skip(2000);
    Send(Numbered(3000));
    EXPECT_TRUE(More());
    EXPECT_TRUE(m_buffer.WasFilled());
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

TEST_F(RecvBuffer, GrowsForOneLongTextUpToItsBound)
{
    const Bytes text = Raw(std::string(CRecvBuffer::MAX_SIZE, 'x'));
    const CPlay play([&] { m_far.Send(text + Raw("0123456789")); });
    ASSERT_GT(m_buffer.Fill(m_sock), 0);
    EXPECT_FALSE(MoreOf(m_sock)) << "no end of the text and no more room";
    EXPECT_EQ(m_buffer.Unwalked().size(), CRecvBuffer::MAX_SIZE);
    // The next receive is an ordinary one again.
    EXPECT_EQ(m_buffer.Fill(m_sock), 10);
    EXPECT_EQ(Unwalked(), Raw("0123456789"));
}

TEST_F(RecvBuffer, ReadsALongTextToItsEndAtOnce)
{
    const Bytes text = Text(std::string(200'000, 'x')) + Raw("next");
    const CPlay play([&] {
        for (size_t n = 0; n < text.size(); n += 1000)
            m_far.Send(Part(text, n, std::min(n + 1000, text.size())));
    });
    ASSERT_GT(m_buffer.Fill(m_sock), 0);
    while (m_buffer.Unwalked().size() < 100) // a short one is looked at whenever bytes come
        ASSERT_TRUE(MoreOf(m_sock));
    ASSERT_TRUE(MoreOf(m_sock));
    EXPECT_GT(m_buffer.Unwalked().size(), 200'000U);
}

TEST_F(RecvBuffer, GivesUpWhenTheRestDoesNotCome)
{
    Send(Raw("half"));
    Fill();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(More());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
    EXPECT_EQ(Unwalked(), Raw("half"));
}

TEST_F(RecvBuffer, GoesOnAsLongAsBytesCome)
{
    Send(U8(0));
    Fill();
    const CPlay play([&] {
        for (int i = 0; i < 20; ++i) { // twice the time of one rest in all
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            m_far.Send(U8(1));
        }
    });
    while (m_buffer.Unwalked().size() < 21)
        ASSERT_TRUE(MoreOf(m_sock));
    EXPECT_FALSE(MoreOf(m_sock));
}

TEST_F(RecvBuffer, LooksForWhatIsThereWithoutWaiting)
{
    EXPECT_EQ(m_buffer.Fill(m_sock, MSG_DONTWAIT), -1);
    EXPECT_TRUE(m_buffer.IsWalked());
    Send(Raw("here"));
    EXPECT_EQ(m_buffer.Fill(m_sock, MSG_DONTWAIT), 4);
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
    EXPECT_FALSE(MoreOf(none));
}

} // namespace
