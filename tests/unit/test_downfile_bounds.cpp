// Downloads that must end: peers that are slow without end, disks that are full, copies that were planted,
// and parts of files that must never be taken for files.
#include "DownFile.h"

#include "MirrorDir.h"
#include "loopback.h"
#include "temp_dir.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class BoundDownload : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(pair.client.SetTimeOut(5000)); }

    EDownload Get(unsigned long mtime = 0, unsigned long size = 0)
    {
        copy.Close();
        return DownloadFile("f.dat", pair.client, '4', (dir + "/").c_str(), mtime, size, nullptr, nullptr,
                            &copy);
    }
    EDownload Answered(const std::string& strReply)
    {
        Send(pair.server, strReply);
        return Get();
    }
    std::string Path() const { return dir + "/f.dat"; }
    std::string Content() const
    {
        std::ifstream file(Path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string Copied()
    {
        std::string strCopy(copy.IsOpen() ? static_cast<size_t>(copy.GetFileSize64()) : 0, '\0');
        EXPECT_EQ(copy.Read(strCopy.data(), static_cast<UINT>(strCopy.size())),
                  static_cast<int>(strCopy.size()));
        return strCopy;
    }
    size_t Names() const
    {
        return static_cast<size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
    }

    const CTempDir temp;
    const std::string dir = temp.Path();
    SPair pair;
    XFile copy;
};

/// Sends a text byte by byte until the other end has had enough or the text is over.
class CDribble
{
public:
    CDribble(CSyncSocket& sock, std::string strText, std::chrono::milliseconds step)
        : m_thread([this, &sock, strText = std::move(strText), step] {
              for (size_t i = 0; i < strText.size() && !m_bEnough; ++i) {
                  if (sock._Send(&strText[i], 1) != 1)
                      return;
                  std::this_thread::sleep_for(step);
              }
          })
    {
    }
    ~CDribble()
    {
        m_bEnough = true;
        m_thread.join();
    }
    CDribble(const CDribble&) = delete;
    CDribble& operator=(const CDribble&) = delete;

private:
    std::atomic<bool> m_bEnough{false};
    std::thread m_thread;
};

TEST_F(BoundDownload, OfABodyThatDribblesEndsByTheTimeOutAndTheConnectionIsNotTrusted)
{
    ASSERT_TRUE(pair.client.SetTimeOut(400));
    const CDribble dribble(pair.server, "FileTime:60000000\r\nSize:100000\r\n\r\n" + std::string(5000, 'x'),
                           20ms);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Get(), EDownload::Failed);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 390ms);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s) << "the text takes 100 s";
}

TEST_F(BoundDownload, OfAHeaderThatDribblesEndsByTheTimeOutAndLeavesNoFile)
{
    ASSERT_TRUE(pair.client.SetTimeOut(400));
    const CDribble dribble(pair.server, "Size:" + std::string(1900, ' '), 20ms);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Get(), EDownload::Failed);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 390ms);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
    EXPECT_EQ(Names(), 0U);
}

TEST_F(BoundDownload, ThatBringsEnoughInEachPeriodMayTakeManyOfThem)
{
    ASSERT_TRUE(pair.client.SetTimeOut(2000));
    const std::string strBody(12 * MIN_PROGRESS, 'x');
    std::thread server([&] {
        Send(pair.server, "Size:C000\r\n\r\n");
        for (size_t n = 0; n < strBody.size(); n += MIN_PROGRESS) {
            std::this_thread::sleep_for(400ms);
            Send(pair.server, std::string_view(strBody).substr(n, MIN_PROGRESS));
        }
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Get(), EDownload::Complete);
    EXPECT_GT(std::chrono::steady_clock::now() - begin, 4s);
    server.join();
    EXPECT_EQ(Content(), strBody);
}

TEST_F(BoundDownload, LimitsNoLaterCall)
{
    ASSERT_TRUE(pair.client.SetTimeOut(300));
    EXPECT_EQ(Answered("Size:1\r\n\r\na"), EDownload::Complete);
    std::this_thread::sleep_for(400ms);
    Want(pair.server, "4f.dat\r\nHello:Yes\r\n\r\n");
    Send(pair.server, "b");
    char ch = 0;
    EXPECT_EQ(pair.client._Recv(&ch, 1), 1);
    EXPECT_EQ(ch, 'b');
}

/// Files of this process can have this many bytes while the scope lasts.
class CFullDisk
{
public:
    explicit CFullDisk(rlim_t nBytes) : m_pHandler(std::signal(SIGXFSZ, SIG_IGN))
    {
        EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &m_before), 0);
        const rlimit limit{nBytes, m_before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~CFullDisk()
    {
        ::setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_pHandler);
    }
    CFullDisk(const CFullDisk&) = delete;
    CFullDisk& operator=(const CFullDisk&) = delete;

private:
    rlimit m_before{};
    void (*m_pHandler)(int);
};

TEST_F(BoundDownload, ThatCannotBeWrittenKeepsTheCopyThatWasAndACleanConnection)
{
    ASSERT_EQ(Answered("FileTime:60000000\r\nSize:3\r\n\r\nold"), EDownload::Complete);
    EDownload eResult = EDownload::Complete;
    {
        const CFullDisk disk(1000);
        eResult = Answered("Size:1388\r\n\r\n" + std::string(5000, 'x'));
    }
    EXPECT_EQ(eResult, EDownload::NotStored);
    EXPECT_FALSE(copy.IsOpen());
    EXPECT_EQ(Content(), "old");
    EXPECT_EQ(Names(), 1U);
    EXPECT_EQ(Answered("Size:3\r\n\r\nnew"), EDownload::Complete) << "nothing of the body is left over";
    EXPECT_EQ(Content(), "new");
}

TEST_F(BoundDownload, LeavesOpenTheCopyThatItFoundRight)
{
    EXPECT_EQ(Answered("FileTime:60000000\r\nSize:3\r\n\r\nabc"), EDownload::Complete);
    fs::remove(Path()); // as another process may, or put another file there
    EXPECT_EQ(Copied(), "abc");
    EXPECT_EQ(Answered("FileTime:60000000\r\nSize:3\r\n\r\nabc"), EDownload::Complete);
    EXPECT_EQ(Get(0x60000000, 3), EDownload::Complete) << "current, so nothing is asked";
    EXPECT_EQ(Copied(), "abc");
    EXPECT_EQ(Answered("UseLast:Yes\r\n\r\n"), EDownload::Complete);
    EXPECT_EQ(Copied(), "abc");
    EXPECT_EQ(Answered("Append:Yes\r\nSize:1\r\n\r\nd"), EDownload::Complete);
    EXPECT_EQ(Copied(), "abcd");
    EXPECT_EQ(Answered("GZ:Yes\r\nSize:1\r\n\r\nz"), EDownload::Compressed);
    EXPECT_FALSE(copy.IsOpen()) << "the file that is there is an older one";
    EXPECT_EQ(Content(), "abcd");
    EXPECT_EQ(Answered("Exist:No\r\n\r\n"), EDownload::Complete);
    EXPECT_FALSE(copy.IsOpen());
}

class PartOfAFile : public BoundDownload
{
protected:
    /// A transfer that has broken off behind 3 of 6 bytes.
    void SetUp() override
    {
        BoundDownload::SetUp();
        Send(pair.server, "FileTime:60000000\r\nSize:6\r\n\r\nabc");
        ASSERT_TRUE(pair.client.SetTimeOut(200));
        ASSERT_EQ(Get(), EDownload::Failed);
        ASSERT_TRUE(pair.client.SetTimeOut(5000));
        ASSERT_EQ(Content(), "abc");
        Want(pair.server, "4f.dat\r\nHello:Yes\r\n\r\n");
    }
    EDownload Asked(const std::string& strReply)
    {
        Send(pair.server, strReply);
        const EDownload eResult = Get(0x60000000, 3);
        Want(pair.server, "4f.dat\r\nLastTime:60000000\r\nSize:3\r\nHello:Yes\r\n\r\n");
        return eResult;
    }
};

TEST_F(PartOfAFile, IsNamedInTheNextRequestAndReplaced)
{
    EXPECT_EQ(Asked("FileTime:60000000\r\nSize:6\r\n\r\nabcdef"), EDownload::Complete);
    EXPECT_EQ(Copied(), "abcdef");
    EXPECT_EQ(Get(0x60000000, 6), EDownload::Complete) << "no part any more";
}

TEST_F(PartOfAFile, IsContinued)
{
    EXPECT_EQ(Asked("FileTime:60000000\r\nAppend:Yes\r\nSize:3\r\n\r\ndef"), EDownload::Complete);
    EXPECT_EQ(Copied(), "abcdef");
    EXPECT_EQ(Get(0x60000000, 6), EDownload::Complete);
}

TEST_F(PartOfAFile, IsNeverCurrentThoughTheServerSaysSo)
{
    EXPECT_EQ(Asked("UseLast:Yes\r\n\r\n"), EDownload::NotStored);
    EXPECT_FALSE(copy.IsOpen());
    EXPECT_FALSE(fs::exists(Path())) << "it would be named, and said to be current, for ever";
}

TEST_F(PartOfAFile, IsReadByNobody)
{
    XFile file;
    EXPECT_EQ(OpenMirrorFile(Path(), file), EMirror::Refused);
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(Asked("GZ:Yes\r\nSize:1\r\n\r\nz"), EDownload::Compressed);
    EXPECT_FALSE(copy.IsOpen());
}

TEST_F(BoundDownload, IntoWhatWasPlantedIsNotBegun)
{
    const std::string strVictim = dir + "/victim";
    std::ofstream(strVictim) << "safe";
    for (const char* szName : {"/f.dat", "/f.dat.gz"}) {
        const std::string strPlace = dir + szName;
        for (const int nKind : {0, 1, 2}) {
            if (nKind == 0)
                fs::create_symlink(strVictim, strPlace);
            else if (nKind == 1)
                ASSERT_EQ(::mkfifo(strPlace.c_str(), 0600), 0);
            else
                fs::copy_file(strVictim, strPlace), fs::permissions(strPlace, fs::perms::all);
            EXPECT_EQ(Get(), EDownload::NotStored) << strPlace << nKind;
            EXPECT_EQ(Names(), 2U);
            fs::remove(strPlace);
        }
    }
    std::string strLeft;
    std::ifstream(strVictim) >> strLeft;
    EXPECT_EQ(strLeft, "safe");
    EXPECT_EQ(Answered("Size:1\r\n\r\na"), EDownload::Complete);
    Want(pair.server, "4f.dat\r\nHello:Yes\r\n\r\n"); // the only request of all
}

} // namespace
