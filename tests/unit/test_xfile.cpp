// Files: opening by the rules that downloads rely on, reading and writing, sizes and positions, closing.
#include "XFile.h"
#include "disturbed_call.h"
#include "temp_dir.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr int READ_ONLY = 0;
constexpr int APPEND = 0x41;   // as downloads that go on
constexpr int REPLACE = 0x241; // as downloads that start anew
static_assert(APPEND == (O_WRONLY | O_CREAT) && REPLACE == (O_WRONLY | O_CREAT | O_TRUNC));

class XFileTest : public testing::Test
{
protected:
    std::string Path(const std::string& strName) const { return m_dir / strName; }

    std::string Put(const std::string& strName, const std::string& strContent) const
    {
        std::ofstream(Path(strName), std::ios::binary) << strContent;
        return Path(strName);
    }

    std::string Content(const std::string& strName) const
    {
        std::ifstream file(Path(strName), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    mode_t ModeOf(const std::string& strName) const
    {
        struct stat st = {};
        EXPECT_EQ(::stat(Path(strName).c_str(), &st), 0);
        return st.st_mode & 07777;
    }

    std::string MakeFifo() const
    {
        EXPECT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
        return Path("fifo");
    }

    /// The descriptor of this process that leads to the path, or -1.
    int DescriptorOf(const std::string& strPath) const
    {
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            if (fs::read_symlink(entry.path(), error) == strPath)
                return std::stoi(entry.path().filename());
        }
        return -1;
    }

private:
    const CTempDir m_temp;
    const fs::path m_dir = m_temp.Path();
};

/// Sets the mask of permission bits for one scope.
class CMask
{
public:
    explicit CMask(mode_t mask) : m_before(::umask(mask)) {}
    ~CMask() { ::umask(m_before); }
    CMask(const CMask&) = delete;
    CMask& operator=(const CMask&) = delete;

private:
    mode_t m_before;
};

// ---- opening

TEST_F(XFileTest, CreatedFilesBelongToTheirOwnerAlone)
{
    const CMask none(0);
    XFile file;
    EXPECT_TRUE(file.OpenA(Path("new").c_str(), REPLACE, false));
    EXPECT_TRUE(file.IsOpen());
    EXPECT_EQ(ModeOf("new"), 0600U);
    XFile other;
    EXPECT_TRUE(other.OpenA(Path("appended").c_str(), APPEND, true));
    EXPECT_EQ(ModeOf("appended"), 0600U);
}

TEST_F(XFileTest, ModeOfACreatedFileIsCutByTheProcessMask)
{
    const CMask noWriting(0222);
    XFile file;
    EXPECT_TRUE(file.OpenA(Path("new").c_str(), REPLACE, false));
    EXPECT_EQ(ModeOf("new"), 0400U);
}

TEST_F(XFileTest, MissingFileIsNotOpenedForReading)
{
    XFile file;
    EXPECT_FALSE(file.OpenA(Path("missing").c_str(), READ_ONLY, false));
    EXPECT_FALSE(file.IsOpen());
    EXPECT_FALSE(fs::exists(Path("missing")));
    EXPECT_FALSE(file.OpenA(Path("no/such/folder").c_str(), REPLACE, false));
    EXPECT_FALSE(file.IsOpen());
}

TEST_F(XFileTest, OpenedAgainStaysWithItsFirstFile)
{
    const std::string strFirst = Put("first", "1st");
    const std::string strSecond = Put("second", "2nd");
    XFile file;
    ASSERT_TRUE(file.OpenA(strFirst.c_str(), READ_ONLY, false));
    EXPECT_TRUE(file.OpenA(strSecond.c_str(), REPLACE, false));
    EXPECT_TRUE(file.OpenT(Path("missing").c_str(), READ_ONLY, false));
    std::array<char, 3> bytes{};
    EXPECT_EQ(file.Read(bytes.data(), 3), 3);
    EXPECT_EQ(std::string(bytes.data(), 3), "1st");
    EXPECT_EQ(Content("second"), "2nd") << "the second file was not even truncated";
    file.Close();
    EXPECT_TRUE(file.OpenA(strSecond.c_str(), READ_ONLY, false));
    EXPECT_EQ(file.Read(bytes.data(), 3), 3);
    EXPECT_EQ(std::string(bytes.data(), 3), "2nd");
}

TEST_F(XFileTest, PathInGb2312OpensTheFileNamedInUtf8)
{
    Put("\xE6\xB8\xA9\xE5\xBA\xA6", "warm");
    XFile file;
    EXPECT_FALSE(file.OpenA(Path("\xCE\xC2\xB6\xC8").c_str(), READ_ONLY, false));
    ASSERT_TRUE(file.OpenT(Path("\xCE\xC2\xB6\xC8").c_str(), READ_ONLY, false));
    EXPECT_EQ(file.GetFileSize(), 4U);
    file.Close();
    EXPECT_TRUE(file.Open(Path("\xCE\xC2\xB6\xC8").c_str(), READ_ONLY, false));
    EXPECT_EQ(file.GetFileSize(), 4U);
}

TEST_F(XFileTest, FlagsReachTheSystemUnchangedButForCloseOnExec)
{
    for (const int nFlags : {READ_ONLY, APPEND, REPLACE, O_RDWR | O_APPEND}) {
        SCOPED_TRACE(nFlags);
        const std::string strPath = Put("file", "x");
        XFile file;
        ASSERT_TRUE(file.OpenA(strPath.c_str(), nFlags, false));
        const int fd = DescriptorOf(strPath);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND), nFlags & (O_ACCMODE | O_APPEND));
        EXPECT_EQ(file.GetFileSize(), nFlags == REPLACE ? 0U : 1U);
    }
}

// ---- reading and writing

TEST_F(XFileTest, ReadsToTheEndAndThenNothing)
{
    const std::string strPath = Put("file", "abcde");
    XFile file;
    ASSERT_TRUE(file.OpenA(strPath.c_str(), READ_ONLY, false));
    std::array<char, 4> bytes{};
    EXPECT_EQ(file.Read(bytes.data(), 4), 4);
    EXPECT_EQ(std::string(bytes.data(), 4), "abcd");
    EXPECT_EQ(file.GetCurPos(), 4U);
    EXPECT_EQ(file.Read(bytes.data(), 4), 1);
    EXPECT_EQ(bytes[0], 'e');
    EXPECT_EQ(file.Read(bytes.data(), 4), 0);
    EXPECT_EQ(file.Write("x", 1), -1) << "opened for reading only";
}

TEST_F(XFileTest, WritesAndReplacesOrGoesOn)
{
    XFile file;
    ASSERT_TRUE(file.OpenA(Path("file").c_str(), REPLACE, false));
    EXPECT_EQ(file.Write("abcdef", 6), 6);
    EXPECT_EQ(file.Write("abc", 0), 0);
    file.Flush();
    char chByte = 0;
    EXPECT_EQ(file.Read(&chByte, 1), -1) << "opened for writing only";
    file.Close();
    EXPECT_EQ(Content("file"), "abcdef");
    ASSERT_TRUE(file.OpenA(Path("file").c_str(), APPEND, false));
    EXPECT_TRUE(file.Seek(0, SEEK_END));
    EXPECT_EQ(file.Write("gh", 2), 2);
    file.Close();
    EXPECT_EQ(Content("file"), "abcdefgh");
    ASSERT_TRUE(file.OpenA(Path("file").c_str(), REPLACE, false));
    EXPECT_EQ(file.Write("z", 1), 1);
    file.Close();
    EXPECT_EQ(Content("file"), "z");
}

TEST_F(XFileTest, ReadInterruptedBySignalsIsResumed)
{
    XFile file;
    ASSERT_TRUE(file.OpenA(MakeFifo().c_str(), O_RDWR, false)); // both ways, so that opening does not wait
    std::atomic<int> nRead{-2};
    char chByte = 0;
    CDisturbedCall call([&] { nRead = file.Read(&chByte, 1); });
    EXPECT_TRUE(call.Disturb(10));
    const int fd = ::open(Path("fifo").c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(::write(fd, "x", 1), 1);
    call.Join();
    ::close(fd);
    EXPECT_EQ(nRead, 1);
    EXPECT_EQ(chByte, 'x');
}

TEST_F(XFileTest, WriteInterruptedBySignalsIsResumed)
{
    XFile file;
    ASSERT_TRUE(file.OpenA(MakeFifo().c_str(), O_RDWR, false));
    const int fd = ::open(Path("fifo").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    std::array<char, 4096> page{};
    while (::write(fd, page.data(), page.size()) > 0) {
        // until it is full and the next writer has to wait
    }
    std::atomic<int> nWritten{-2};
    CDisturbedCall call([&] { nWritten = file.Write("x", 1); });
    EXPECT_TRUE(call.Disturb(10));
    EXPECT_EQ(::read(fd, page.data(), page.size()), static_cast<ssize_t>(page.size()));
    call.Join();
    ::close(fd);
    EXPECT_EQ(nWritten, 1);
}

TEST_F(XFileTest, OpenInterruptedBySignalsIsResumed)
{
    const std::string strPath = MakeFifo();
    XFile file;
    std::atomic<bool> bOpened{false};
    CDisturbedCall call([&] { bOpened = file.OpenA(strPath.c_str(), READ_ONLY, false); });
    EXPECT_TRUE(call.Disturb(10)) << "it waits for somebody who writes";
    const int fd = ::open(strPath.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    call.Join();
    ::close(fd);
    EXPECT_TRUE(bOpened);
    EXPECT_TRUE(file.IsOpen());
}

// ---- sizes and positions

TEST_F(XFileTest, TellsAndSetsItsSize)
{
    const std::string strPath = Put("file", "abcdef");
    XFile file;
    ASSERT_TRUE(file.OpenA(strPath.c_str(), O_RDWR, false));
    EXPECT_EQ(file.GetFileSize(), 6U);
    EXPECT_EQ(file.GetFileSize64(), 6);
    file.SetFileSize(3);
    EXPECT_EQ(Content("file"), "abc");
    file.SetFileSize64(5);
    EXPECT_EQ(Content("file"), std::string("abc\0\0", 5));
    file.SetFileSize64(-1);
    EXPECT_EQ(file.GetFileSize64(), 5) << "the failure changes nothing";
}

TEST_F(XFileTest, BeyondFourGigabytesIsCutTo32BitsWhereTheInterfaceIs)
{
    constexpr int64_t SIZE = 0x1'0000'0005;
    XFile file;
    ASSERT_TRUE(file.OpenA(Path("sparse").c_str(), REPLACE, false));
    file.SetFileSize64(SIZE);
    EXPECT_EQ(file.GetFileSize64(), SIZE);
    EXPECT_EQ(file.GetFileSize(), 5U);
    EXPECT_TRUE(file.Seek64(SIZE - 2, SEEK_SET));
    EXPECT_EQ(file.GetCurPos(), 3U);
    EXPECT_EQ(file.Write("abcd", 4), 4);
    EXPECT_EQ(file.GetFileSize64(), SIZE + 2);
}

TEST_F(XFileTest, SeeksFromEveryOriginAndRefusesWhatIsNoPosition)
{
    const std::string strPath = Put("file", "abcdef");
    XFile file;
    EXPECT_FALSE(file.Seek(0, SEEK_END)) << "closed";
    EXPECT_FALSE(file.Seek64(0, SEEK_END)) << "closed";
    ASSERT_TRUE(file.OpenA(strPath.c_str(), READ_ONLY, false));
    EXPECT_TRUE(file.Seek(0, SEEK_END));
    EXPECT_EQ(file.GetCurPos(), 6U);
    EXPECT_TRUE(file.Seek(-2, SEEK_END));
    EXPECT_EQ(file.GetCurPos(), 4U);
    EXPECT_TRUE(file.Seek(1, SEEK_SET));
    EXPECT_TRUE(file.Seek(2, SEEK_CUR));
    EXPECT_EQ(file.GetCurPos(), 3U);
    EXPECT_FALSE(file.Seek(-1, SEEK_SET));
    EXPECT_FALSE(file.Seek64(-10, SEEK_CUR));
    EXPECT_EQ(file.GetCurPos(), 3U);
    char chByte = 0;
    EXPECT_EQ(file.Read(&chByte, 1), 1);
    EXPECT_EQ(chByte, 'd');
}

// ---- closing

TEST_F(XFileTest, ClosedTwiceLeavesAFileThatTookTheSameDescriptor)
{
    const std::string strPath = Put("file", "abc");
    XFile file;
    ASSERT_TRUE(file.OpenA(strPath.c_str(), READ_ONLY, false));
    const int fd = DescriptorOf(strPath);
    file.Close();
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(DescriptorOf(strPath), -1);
    XFile other;
    ASSERT_TRUE(other.OpenA(strPath.c_str(), READ_ONLY, false));
    ASSERT_EQ(DescriptorOf(strPath), fd);
    file.Close();
    EXPECT_EQ(other.GetFileSize(), 3U);
}

TEST_F(XFileTest, DestroyedClosesItsFileAndNoOther)
{
    const std::string strPath = Put("file", "abc");
    {
        const XFile unopened;
        EXPECT_FALSE(unopened.IsOpen());
    }
    EXPECT_NE(::fcntl(STDIN_FILENO, F_GETFD), -1);
    {
        XFile file;
        ASSERT_TRUE(file.OpenA(strPath.c_str(), READ_ONLY, false));
        EXPECT_GE(DescriptorOf(strPath), 0);
    }
    EXPECT_EQ(DescriptorOf(strPath), -1);
}

TEST_F(XFileTest, ClosedRefusesReadingAndWriting)
{
    XFile file;
    char chByte = 0;
    EXPECT_EQ(file.Read(&chByte, 1), -1);
    EXPECT_EQ(file.Write(&chByte, 1), -1);
    file.SetFileSize(5);
    file.Flush();
    EXPECT_FALSE(file.IsOpen());
}

TEST_F(XFileTest, OpensANameInAFolder)
{
    Put("named", "content");
    const int hDir = ::open(Path("").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(hDir, 0);
    XFile file;
    EXPECT_TRUE(file.OpenAt(hDir, "named", READ_ONLY));
    EXPECT_TRUE(file.OpenAt(hDir, "none", READ_ONLY)) << "it stays with its file";
    EXPECT_EQ(file.GetFileSize(), 7U);
    XFile other;
    EXPECT_FALSE(other.OpenAt(hDir, "none", READ_ONLY));
    ::close(hDir);
}

TEST_F(XFileTest, MovesWithItsDescriptor)
{
    Put("moved", "content");
    XFile file;
    ASSERT_TRUE(file.OpenA(Path("moved").c_str(), READ_ONLY, false));
    const int hFile = file.Handle();
    XFile taker(std::move(file));
    EXPECT_EQ(taker.Handle(), hFile);
    file = std::move(taker);
    EXPECT_EQ(file.Handle(), hFile);
    EXPECT_EQ(file.GetFileSize(), 7U);
}

TEST_F(XFileTest, WritesAllOrSaysThatItCouldNot)
{
    XFile file;
    ASSERT_TRUE(file.OpenA(Path("all").c_str(), REPLACE, false));
    const std::string strText(3000000, 'x');
    EXPECT_TRUE(file.WriteAll(strText.data(), strText.size()));
    EXPECT_TRUE(file.WriteAll(strText.data(), 0));
    EXPECT_TRUE(Content("all") == strText);
    XFile full;
    ASSERT_TRUE(full.OpenA("/dev/full", O_WRONLY, false));
    EXPECT_FALSE(full.WriteAll("x", 1));
}

} // namespace
