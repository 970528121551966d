// The download and the handshake, disturbed at every byte of a reply: split, stalled for longer than the
// time-out, ended or reset there. Either all is right, or the call fails and nothing of it is believed.
// The exchanges of a connection that stands: test_disturbed.cpp.
#include "DownFile.h"

#include "peer.h"
#include "temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>

namespace {

namespace fs = std::filesystem;

constexpr long T_MS = 50;
constexpr long BUSY_MS = 20'000; // what a busy machine delays comes in time

enum class EDisturb
{
    Split, // the rest comes at once, in a segment of its own
    Stall, // the rest comes when the call has returned
    End,   // the peer ends its side
    Reset, // the peer is gone, and so is what it sent last
};
constexpr EDisturb ALL[] = {EDisturb::Split, EDisturb::Stall, EDisturb::End, EDisturb::Reset};

/// A far end's part of one call: a reply that is disturbed behind its first nAt bytes.
struct SDisturbance
{
    EDisturb eDisturb;
    size_t nAt;
    std::promise<void> returned; // set by whoever has made the call

    void Send(CSyncSocket& sock, std::string_view reply)
    {
        ::Send(sock, reply.substr(0, nAt));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (eDisturb == EDisturb::Split)
            ::Send(sock, reply.substr(nAt));
        if (eDisturb == EDisturb::End)
            ::shutdown(sock.GetHandle(), SHUT_WR);
        if (eDisturb == EDisturb::Reset) {
            const linger atOnce{1, 0};
            ::setsockopt(sock.GetHandle(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
            sock.Close();
        }
        if (eDisturb == EDisturb::Stall) {
            const auto eState = returned.get_future().wait_for(std::chrono::milliseconds(BUSY_MS));
            EXPECT_EQ(eState, std::future_status::ready) << "the call outlasts its time-out";
            sock._Send(reply.data() + nAt, static_cast<int>(reply.size() - nAt));
        }
    }
    std::string Text() const
    {
        return "disturbance " + std::to_string(static_cast<int>(eDisturb)) + " behind byte " +
               std::to_string(nAt);
    }
};

/// Calls fn with each disturbance at each byte of so many, until one has failed.
void AtEveryByte(size_t nLen, const std::function<void(SDisturbance&)>& fn)
{
    for (size_t nAt = 0; nAt < nLen && !testing::Test::HasFailure(); ++nAt) {
        for (const EDisturb eDisturb : ALL) {
            SDisturbance disturbance{eDisturb, nAt, {}};
            SCOPED_TRACE(disturbance.Text());
            fn(disturbance);
        }
    }
}

class DisturbedDownload : public testing::Test
{
protected:
    static constexpr time_t FILE_TIME = 0x60000000;

    EDownload Get(CSyncSocket& sock, unsigned long size = 0)
    {
        return DownloadFile("f.dat", sock, '4', (dir + "/").c_str(), size ? FILE_TIME : 0, size, nullptr,
                            nullptr);
    }
    /// Whether a copy of that size is taken for the server's file of that size, without asking.
    bool IsBelieved(size_t nSize)
    {
        CSyncSocket none;
        return Get(none, nSize) == EDownload::Complete;
    }
    std::string Content() const
    {
        std::ifstream file(dir + "/f.dat", std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const CTempDir temp;
    const std::string dir = temp.Path();
};

TEST_F(DisturbedDownload, GivesTheWholeFileOrFailsAndNoPartIsBelieved)
{
    const std::string strBody = "sixty bytes, of which none is like its neighbour; 0123456789";
    ASSERT_EQ(strBody.size(), 60U);
    const std::string strReply = "FileTime:60000000\r\nSize:3C\r\n\r\n" + strBody;
    AtEveryByte(strReply.size(), [&](SDisturbance& disturbance) {
        const bool bSplit = disturbance.eDisturb == EDisturb::Split;
        SPair pair;
        pair.client.SetTimeOut(bSplit ? BUSY_MS : T_MS);
        std::thread server([&] {
            Want(pair.server, "4f.dat\r\nHello:Yes\r\n\r\n");
            disturbance.Send(pair.server, strReply);
        });
        EXPECT_EQ(Get(pair.client), bSplit ? EDownload::Complete : EDownload::Failed);
        disturbance.returned.set_value();
        server.join();
        const std::string strGot = Content();
        EXPECT_TRUE(strBody.starts_with(strGot)) << strGot;
        EXPECT_EQ(strGot.size() == strBody.size(), bSplit) << strGot;
        EXPECT_EQ(IsBelieved(strBody.size()), bSplit);
        for (size_t nSize = 1; nSize < strBody.size(); ++nSize)
            EXPECT_FALSE(IsBelieved(nSize)) << nSize << " bytes";
        fs::remove(dir + "/f.dat");
    });
}

/// The client whose handshake is disturbed, and its end.
struct SHandshaking
{
    /// Connects it and tells the far end when that has returned.
    int Connect(const std::string& strHost, SDisturbance& disturbance)
    {
        done = ::Connect(client, strHost);
        disturbance.returned.set_value();
        return done.nResult;
    }
    void ExpectFailed(const SDisturbance& disturbance, const CSyncSocket& sock)
    {
        EXPECT_EQ(done.nResult, CONNECT_FAILED);
        EXPECT_EQ(done.strPrjName, "");
        EXPECT_EQ(done.strTitle, "");
        EXPECT_EQ(sock.HasTimedOut(), disturbance.eDisturb == EDisturb::Stall);
    }

    CClientSock client;
    SHandshake done;
};

/// A receive that begins before its first byte has the time-out of the handshake, 8 s.
TEST(DisturbedHandshake, ARegisterReplyIsWholeOrFails)
{
    const std::string strReply = Scrambled(Ack());
    AtEveryByte(strReply.size(), [&](SDisturbance& disturbance) {
        SHandshaking handshake;
        CLoopback server;
        server.Run([&](CLoopback& self) {
            SServed served;
            ServeUpToRegister(self, served);
            if (disturbance.eDisturb == EDisturb::Stall)
                handshake.client.m_rcvSock.SetRecvTimeOut(T_MS);
            disturbance.Send(served.rcv, strReply);
        });
        handshake.Connect(server.Host(), disturbance);
        server.Join();
        if (disturbance.eDisturb == EDisturb::Split) {
            EXPECT_EQ(handshake.done.nResult, 0);
            EXPECT_EQ(handshake.done.strPrjName, "demo");
            EXPECT_EQ(handshake.done.strTitle, "title");
        } else {
            handshake.ExpectFailed(disturbance, handshake.client.m_rcvSock);
        }
    });
}

/// Any other open reply is one byte long. Of a redirect that byte alone would be such a reply, and a stall
/// before it takes as long as the handshake's time-out: both have tests of their own.
TEST(DisturbedHandshake, ARedirectIsWholeOrFails)
{
    CLoopback relay(OwnAddress(), CClientSock::RELAY_PORT);
    AtEveryByte(Redirect(1).size(), [&](SDisturbance& disturbance) {
        const bool bSplit = disturbance.eDisturb == EDisturb::Split;
        if (disturbance.nAt == 1 || (disturbance.nAt == 0 && disturbance.eDisturb == EDisturb::Stall))
            return;
        SHandshaking handshake;
        CLoopback direct;
        direct.Run([&](CLoopback& self) {
            SServed served;
            if (bSplit)
                Serve(self, served, Ack());
        });
        relay.Run([&](CLoopback& self) {
            CSyncSocket req;
            self.Accept(req);
            WantScrambled(req, '7', 24);
            if (disturbance.eDisturb == EDisturb::Stall)
                handshake.client.m_reqSock.SetRecvTimeOut(T_MS);
            disturbance.Send(req, Redirect(direct.Port()));
        });
        testing::internal::CaptureStdout();
        handshake.Connect(ThroughOwnRelay("s"), disturbance);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), bSplit ? "Is same lan ...\n" : "");
        relay.Join();
        direct.Join();
        EXPECT_EQ(handshake.client.m_bLan, bSplit);
        if (bSplit)
            EXPECT_EQ(handshake.done.strPrjName, "demo");
        else
            handshake.ExpectFailed(disturbance, handshake.client.m_reqSock);
    });
}

} // namespace
