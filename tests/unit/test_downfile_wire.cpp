// Downloads over real connections: a server that sends no byte beyond what has been acknowledged, and peers
// that fail.
#include "DownFile.h"

#include "disturbed_call.h"
#include "loopback.h"
#include "temp_dir.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

/// Bytes of which no stretch repeats another.
std::string Unmistakable(size_t nLen)
{
    std::string bytes;
    for (uint32_t i = 0; bytes.size() < nLen; ++i)
        bytes.append(reinterpret_cast<const char*>(&i), sizeof i);
    bytes.resize(nLen);
    return bytes;
}

std::string Hex(size_t n)
{
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%zX", n);
    return text.data();
}

class Download : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(pair.client.SetTimeOut(5000)); }

    EDownload Get(const char* szAddP2p = nullptr)
    {
        return DownloadFile("f.dat", pair.client, '4', (dir + "/").c_str(), 0, 0, nullptr, szAddP2p);
    }
    std::string Content() const
    {
        std::ifstream file(dir + "/f.dat", std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /// Serves a body window by window; each must be acknowledged before a byte of the next goes out.
    void ServeWindows(const std::string& strBody, std::vector<size_t> windows)
    {
        std::string stream =
            "Hello:Yes\r\nFileTime:60000000\r\nSize:" + Hex(strBody.size()) + "\r\n\r\n" + strBody;
        for (size_t i = 0; !stream.empty(); ++i) {
            const size_t nWindow = windows[std::min(i, windows.size() - 1)];
            Send(pair.server, std::string_view(stream).substr(0, nWindow));
            stream.erase(0, std::min(stream.size(), nWindow));
            if (!stream.empty())
                Want(pair.server, "4Hello" + Hex(nWindow) + '\0');
        }
    }

    const CTempDir temp;
    const std::string dir = temp.Path();
    SPair pair;
};

TEST_F(Download, AcknowledgesEachWindowBeforeTheNextComes)
{
    const std::string strBody = Unmistakable(1200000);
    std::thread server([&] {
        Want(pair.server, "4f.dat\r\nHello:Yes\r\n\r\n");
        ServeWindows(strBody, {131072, 120832, 110592, 100352, 90112, 79872, 69632, 59392, 49152, 38912,
                               28672, 18432, 8192});
        WantEnd(pair.server);
    });
    EXPECT_EQ(Get(), EDownload::Complete);
    pair.client.Close();
    server.join();
    EXPECT_TRUE(Content() == strBody);
}

TEST_F(Download, ThroughARelayHasSmallerWindows)
{
    const std::string strBody = Unmistakable(150000);
    std::thread server([&] {
        Want(pair.server, "4via/f.dat\r\nHello:Yes\r\n\r\n");
        ServeWindows(strBody, {38912, 28672, 18432, 8192});
        WantEnd(pair.server);
    });
    EXPECT_EQ(Get("via/"), EDownload::Complete);
    pair.client.Close();
    server.join();
    EXPECT_TRUE(Content() == strBody);
}

TEST_F(Download, WithoutHelloIsNeverAcknowledged)
{
    const std::string strBody = Unmistakable(400000);
    std::thread server([&] {
        Want(pair.server, "4f.dat\r\nHello:Yes\r\n\r\n");
        Send(pair.server, "Size:" + Hex(strBody.size()) + "\r\n\r\n" + strBody);
        WantEnd(pair.server);
    });
    EXPECT_EQ(Get(), EDownload::Complete);
    pair.client.Close();
    server.join();
    EXPECT_TRUE(Content() == strBody);
}

TEST_F(Download, SurvivesSignals)
{
    const std::string strBody = Unmistakable(300000);
    EDownload eResult = EDownload::Failed;
    CDisturbedCall call([&] { eResult = Get(); });
    EXPECT_TRUE(call.Disturb(10)) << "it waits for the header";
    Want(pair.server, "4f.dat\r\nHello:Yes\r\n\r\n");
    Send(pair.server, "Size:" + Hex(strBody.size()) + "\r\n\r\n" + strBody.substr(0, 1000));
    EXPECT_TRUE(call.Disturb(10)) << "it waits for the body";
    Send(pair.server, std::string_view(strBody).substr(1000));
    call.Join();
    EXPECT_EQ(eResult, EDownload::Complete);
    EXPECT_TRUE(Content() == strBody);
}

TEST_F(Download, OfWhichNothingComesFailsByTheTimeOut)
{
    ASSERT_TRUE(pair.client.SetTimeOut(100));
    EXPECT_EQ(Get(), EDownload::Failed);
    EXPECT_TRUE(pair.client.HasTimedOut());
    EXPECT_FALSE(fs::exists(dir + "/f.dat"));
}

TEST_F(Download, ThatStopsInTheMiddleFailsByTheTimeOutAndLeavesItsPart)
{
    ASSERT_TRUE(pair.client.SetTimeOut(100));
    Send(pair.server, "FileTime:60000000\r\nSize:6\r\n\r\nabc");
    EXPECT_EQ(Get(), EDownload::Failed);
    EXPECT_TRUE(pair.client.HasTimedOut());
    struct stat st = {};
    ASSERT_EQ(::stat((dir + "/f.dat").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 0x60000000);
    EXPECT_EQ(st.st_atime, 0x60000000);
    EXPECT_EQ(Content(), "abc");
}

TEST_F(Download, OnAConnectionThatIsGoneFails)
{
    pair.client.Close();
    EXPECT_EQ(Get(), EDownload::Failed);
}

} // namespace
