// The download exchange: requests byte for byte, headers, windows, and transfers that break.
#include "DownFile.h"

#include "loopback.h"
#include "temp_dir.h"

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sys/stat.h>
#include <utime.h>

namespace {

namespace fs = std::filesystem;

constexpr time_t SERVER_TIME = 0x60000000;
const std::string FILE_TIME = "FileTime:60000000\r\n";

/// A server that answers with prepared receives; "" is a receive of 0 bytes, and behind the last one come
/// errors.
class CScriptedSocket : public CSyncSocket
{
public:
    int _Send(const void* pBuf, int nLen, int) override
    {
        sent.emplace_back(static_cast<const char*>(pBuf), static_cast<size_t>(nLen));
        receivedAtSend.push_back(nReceived);
        if (sent.size() > nSendsThatWork)
            return -1;
        return nSendResult < 0 ? nLen : nSendResult;
    }
    int _Recv(void* pBuf, int nLen, int) override
    {
        wanted.push_back(nLen);
        if (replies.empty())
            return -1;
        std::string& next = replies.front();
        const size_t nGot = std::min(next.size(), static_cast<size_t>(nLen));
        next.copy(static_cast<char*>(pBuf), nGot);
        next.erase(0, nGot);
        nReceived += nGot;
        if (next.empty())
            replies.pop_front();
        return static_cast<int>(nGot);
    }

    std::deque<std::string> replies;
    std::vector<std::string> sent;
    std::vector<int> wanted;
    std::vector<size_t> receivedAtSend;
    size_t nReceived = 0;
    int nSendResult = -1;
    size_t nSendsThatWork = std::numeric_limits<size_t>::max();
};

class CProgress : public IGetFileCB
{
public:
    void OnProgress(int nBytes, bool bFinished) override { calls.emplace_back(nBytes, bFinished); }
    std::vector<std::pair<int, bool>> calls;
};

class GetFileTest : public testing::Test
{
protected:
    int Get(unsigned long mtime = 0, unsigned long size = 0, const char* szAddP2p = nullptr)
    {
        return GetFile("f.dat", sock, '4', (dir + "/").c_str(), mtime, size, &progress, szAddP2p);
    }
    std::string Path(const char* szName = "f.dat") const { return dir + "/" + szName; }
    void Write(const std::string& strText, time_t t, const char* szName = "f.dat") const
    {
        std::ofstream(Path(szName), std::ios::binary) << strText;
        const utimbuf times{t, t};
        ASSERT_EQ(::utime(Path(szName).c_str(), &times), 0);
    }
    std::string Content(const char* szName = "f.dat") const
    {
        std::ifstream file(Path(szName), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    time_t Time(const char* szName = "f.dat") const
    {
        struct stat st = {};
        EXPECT_EQ(::stat(Path(szName).c_str(), &st), 0);
        return st.st_mtime;
    }

    const CTempDir temp;
    const std::string dir = temp.Path();
    CScriptedSocket sock;
    CProgress progress;
};

TEST_F(GetFileTest, ACopyOfTheSameSizeWithinThreeSecondsIsCurrent)
{
    Write("12345", 1000000);
    for (const unsigned long t : {999997UL, 1000000UL, 1000003UL})
        EXPECT_EQ(Get(t, 5), 1) << t;
    EXPECT_TRUE(sock.sent.empty());
    EXPECT_TRUE(progress.calls.empty());
}

TEST_F(GetFileTest, ACopyOfAnotherTimeOrSizeIsAskedFor)
{
    Write("12345", 1000000);
    for (const auto& [t, size] : {std::pair{999996UL, 5UL}, {1000004UL, 5UL}, {1000000UL, 6UL}}) {
        sock.replies = {"UseLast:Yes\r\n\r\n"};
        EXPECT_EQ(Get(t, size), 1);
        EXPECT_EQ(sock.sent.back(), "4f.dat\r\nLastTime:F4240\r\nSize:5\r\nHello:Yes\r\n\r\n");
    }
    EXPECT_EQ(sock.sent.size(), 3U);
    EXPECT_EQ(Content(), "12345");
}

TEST_F(GetFileTest, WithoutACopyTheRequestSaysNothingOfOne)
{
    sock.replies = {"UseLast:Yes\r\n\r\n"};
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(sock.sent, std::vector<std::string>{"4f.dat\r\nHello:Yes\r\n\r\n"});
    EXPECT_FALSE(fs::exists(Path()));
}

TEST_F(GetFileTest, TimesAreComparedAsThirtyTwoBitsAndSizesWhole)
{
    Write("12345", 2);
    EXPECT_EQ(Get(0xFFFFFFFF, 5), 1) << "three seconds before 2 is the largest number";
    EXPECT_TRUE(sock.sent.empty());
    sock.replies = {"UseLast:Yes\r\n\r\n"};
    EXPECT_EQ(Get(0xFFFFFFFE, 5), 1);
    EXPECT_EQ(sock.sent.size(), 1U);
    sock.replies = {"UseLast:Yes\r\n\r\n"};
    EXPECT_EQ(Get(2, 0x100000005), 1);
    EXPECT_EQ(sock.sent.size(), 2U);
    sock.replies = {"UseLast:Yes\r\n\r\n"};
    EXPECT_EQ(Get(0xFFFFFFFF, 0xFFFFFFFF), 1) << "what no copy has is always asked for";
    EXPECT_EQ(sock.sent.size(), 3U);
}

TEST_F(GetFileTest, OfACopyBeyondFourGigabytesTheLowBitsAreSent)
{
    Write("", 0x1F);
    fs::resize_file(Path(), 0x1000000ABULL); // takes no room on the disk
    const utimbuf times{0x1F, 0x1F};
    ASSERT_EQ(::utime(Path().c_str(), &times), 0);
    sock.replies = {"UseLast:Yes\r\n\r\n"};
    EXPECT_EQ(Get(0x1F, 0xAB), 1);
    EXPECT_EQ(sock.sent, std::vector<std::string>{"4f.dat\r\nLastTime:1F\r\nSize:AB\r\nHello:Yes\r\n\r\n"});
}

TEST_F(GetFileTest, BothCopiesStandInTheRequest)
{
    Write("ab", 0xA);
    Write("abc", 0xB, "f.dat.gz");
    sock.replies = {"UseLast:Yes\r\n\r\n"};
    EXPECT_EQ(Get(0x100, 2), 1);
    EXPECT_EQ(sock.sent[0], "4f.dat\r\nLastTime:A\r\nSize:2\r\ngzTime:B\r\ngzSize:3\r\nHello:Yes\r\n\r\n");
}

TEST_F(GetFileTest, NamesAreSentAsTheyAreAndStoredInUtf8)
{
    const std::string strName = "\xCA\xBE\xB7\xB6.txt"; // 示范
    sock.replies = {FILE_TIME + "Size:2\r\n\r\nab"};
    EXPECT_EQ(GetFile(strName.c_str(), sock, 'Z', (dir + "/").c_str(), 0, 0, nullptr, nullptr), 1);
    EXPECT_EQ(sock.sent, std::vector<std::string>{'Z' + strName + "\r\nHello:Yes\r\n\r\n"});
    EXPECT_EQ(Content("示范.txt"), "ab");
}

TEST_F(GetFileTest, ACompressedCopyAndARelayPrefixStandInTheRequest)
{
    Write("abc", 0xABCDEF, "f.dat.gz");
    sock.replies = {"UseLast:Yes\r\n\r\n"};
    EXPECT_EQ(Get(0, 0, "via|"), 1);
    EXPECT_EQ(sock.sent[0], "4via|f.dat\r\ngzTime:ABCDEF\r\ngzSize:3\r\nHello:Yes\r\n\r\n");
}

TEST_F(GetFileTest, AFileThatDoesNotExistIsDeletedHereButNotItsCompressedCopy)
{
    Write("old", 1);
    Write("gz", 1, "f.dat.gz");
    sock.replies = {"Exist:no\r\n\r\n"};
    EXPECT_EQ(Get(), 1);
    EXPECT_FALSE(fs::exists(Path()));
    EXPECT_TRUE(fs::exists(Path("f.dat.gz")));
}

TEST_F(GetFileTest, AFileThatExistsNeitherHereNorThereIsDone)
{
    sock.replies = {"UseLast:Yes\r\nExist:No\r\n\r\n"};
    EXPECT_EQ(Get(), 1);
    Write("old", 1);
    sock.replies = {"UseLast:Yes\r\nExist:No\r\n\r\n"};
    EXPECT_EQ(Get(), 1);
    EXPECT_FALSE(fs::exists(Path())) << "not existing counts for more than being current";
}

TEST_F(GetFileTest, ABodyInTheFirstReceiveNeedsNoOther)
{
    const std::string strReply = FILE_TIME + "Size:5\r\n\r\nhello";
    sock.replies = {strReply};
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(sock.wanted, std::vector<int>{2048});
    EXPECT_EQ(Content(), "hello");
    EXPECT_EQ(Time(), SERVER_TIME);
    EXPECT_EQ(fs::status(Path()).permissions() & fs::perms::group_all, fs::perms::none);
    EXPECT_EQ(progress.calls, (std::vector<std::pair<int, bool>>{{static_cast<int>(strReply.size()), true}}));
}

TEST_F(GetFileTest, AnEmptyFileReplacesWhatWasThere)
{
    Write("old", 1);
    sock.replies = {FILE_TIME + "Size:0\r\n\r\n"};
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(Content(), "");
    EXPECT_EQ(Time(), SERVER_TIME);
}

TEST_F(GetFileTest, ABodyInPiecesTellsItsProgress)
{
    sock.replies = {FILE_TIME + "Size:9\r\n\r\n", "abc", "def", "ghi"};
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(Content(), "abcdefghi");
    EXPECT_EQ(progress.calls, (std::vector<std::pair<int, bool>>{{3, false}, {3, false}, {3, true}}));
}

TEST_F(GetFileTest, AppendingContinuesTheCopy)
{
    Write("abc", 1);
    sock.replies = {"Append:Yes\r\nSize:3\r\n" + FILE_TIME + "\r\ndef"};
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(Content(), "abcdef");
    EXPECT_EQ(Time(), SERVER_TIME);
}

TEST_F(GetFileTest, ACompressedBodyIsKeptAsItIsUnderItsOwnName)
{
    sock.replies = {"GZ:Yes\r\nSize:2\r\n" + FILE_TIME + "\r\n\x1F\x8B"};
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(Content("f.dat.gz"), "\x1F\x8B");
    EXPECT_EQ(Time("f.dat.gz"), SERVER_TIME);
    EXPECT_FALSE(fs::exists(Path()));
}

TEST_F(GetFileTest, AnErrorInTheMiddleFailsAndLeavesThePartWithTheServersTime)
{
    sock.replies = {FILE_TIME + "Size:9\r\n\r\nabc", "def"};
    EXPECT_EQ(Get(), 0);
    EXPECT_EQ(Content(), "abcdef");
    EXPECT_EQ(Time(), SERVER_TIME);
    EXPECT_EQ(progress.calls, (std::vector<std::pair<int, bool>>{{3, false}}));
}

TEST_F(GetFileTest, AFailedAppendOrCompressedBodyCarriesTheServersTimeToo)
{
    Write("abc", 1);
    sock.replies = {"Append:Yes\r\nSize:9\r\n" + FILE_TIME + "\r\nde"};
    EXPECT_EQ(Get(), 0);
    EXPECT_EQ(Content(), "abcde");
    EXPECT_EQ(Time(), SERVER_TIME);
    sock.replies = {"GZ:Yes\r\nSize:9\r\n" + FILE_TIME + "\r\nxy"};
    EXPECT_EQ(Get(), 0);
    EXPECT_EQ(Content("f.dat.gz"), "xy");
    EXPECT_EQ(Time("f.dat.gz"), SERVER_TIME);
}

TEST_F(GetFileTest, AHeaderWithoutATimeGivesTheFirstSecond)
{
    sock.replies = {"Size:2\r\n\r\nab"};
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(Time(), 0);
}

TEST_F(GetFileTest, WhatDoesNotFitIsNoHeaderAndNoFileEither)
{
    for (const std::string& strReply :
         {"Size:9\r\n" + std::string(64, 'n') + ":1\r\n\r\nabc",
          "Size:8\r\nname:" + std::string(256, 'v') + "\r\n\r\nabc", std::string(4096, '\0'),
          "Size:1\r\n" + std::string(2041, ' '), "c:" + std::string(250, 'c') + "\r\n\r\n",
          std::string("\r\n"), std::string(":1\r\n\r\n"), "Size:1\r\n" + std::string(8192, '\t')}) {
        sock.replies = {strReply};
        EXPECT_EQ(Get(), 0) << strReply.substr(0, 80);
        EXPECT_FALSE(fs::exists(Path()));
    }
}

TEST_F(GetFileTest, AHeaderMayComeInPieces)
{
    const std::string strReply = FILE_TIME + "Size:3\r\n\r\nabc";
    for (size_t nCut = 1; nCut < strReply.size(); ++nCut) {
        fs::remove(Path());
        sock.replies = {strReply.substr(0, nCut), strReply.substr(nCut)};
        EXPECT_EQ(Get(), 1) << nCut;
        EXPECT_EQ(Content(), "abc") << nCut;
        EXPECT_EQ(Time(), SERVER_TIME);
    }
    fs::remove(Path());
    for (const char ch : strReply)
        sock.replies.emplace_back(1, ch);
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(Content(), "abc");
}

TEST_F(GetFileTest, AHeaderOfTheWholeFirstReceiveIsRead)
{
    std::string strHeader = "Size:3\r\n" + FILE_TIME;
    while (strHeader.size() < 2048 - 60)
        strHeader += "Comment:" + std::string(40, 'c') + "\r\n";
    strHeader += "c:" + std::string(2048 - strHeader.size() - 6, 'c') + "\r\n\r\n";
    ASSERT_EQ(strHeader.size(), 2048U);
    sock.replies = {strHeader + "abc"};
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(Content(), "abc");
    EXPECT_EQ(Time(), SERVER_TIME);
}

TEST_F(GetFileTest, AnExchangeThatDoesNotBeginFails)
{
    EXPECT_EQ(Get(), 0); // no reply
    sock.replies = {""};
    EXPECT_EQ(Get(), 0); // closed
    sock.nSendResult = 0;
    EXPECT_EQ(Get(), 0);
    EXPECT_FALSE(fs::exists(Path()));
}

TEST_F(GetFileTest, AReceiveOfNothingIsNoEnd)
{
    sock.replies = {FILE_TIME + "Size:6\r\n\r\n", "", "abc", "", "", "def"};
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(Content(), "abcdef");
}

TEST_F(GetFileTest, ReceivesOfNothingAreNoSpin)
{
    ASSERT_TRUE(sock.Create()); // has a time-out, but is never connected
    ASSERT_TRUE(sock.SetTimeOut(300));
    sock.replies.assign(100000, "");
    sock.replies.front() = FILE_TIME + "Size:6\r\n\r\nabc";
    EXPECT_EQ(Get(), 0);
    EXPECT_GT(sock.wanted.size(), 2U);
    EXPECT_LT(sock.wanted.size(), 100U);
    EXPECT_EQ(Content(), "abc");
    EXPECT_EQ(Time(), SERVER_TIME);
}

TEST_F(GetFileTest, APeerThatHasClosedFailsTheTransferAfterTheTimeOut)
{
    SPair pair;
    ASSERT_TRUE(pair.client.SetTimeOut(200));
    Send(pair.server, FILE_TIME + "Size:6\r\n\r\nabc");
    pair.server.ShutDown();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(GetFile("f.dat", pair.client, '4', (dir + "/").c_str(), 0, 0, nullptr, nullptr), 0);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(190));
    EXPECT_LT(took, std::chrono::seconds(5));
    EXPECT_EQ(Content(), "abc");
}

TEST_F(GetFileTest, AnOverLongBodyFailsAndLeavesTheCopyThatWas)
{
    Write("old", 1);
    for (const auto& replies : {std::deque<std::string>{FILE_TIME + "Size:2\r\n\r\nabcdef"},
                                {FILE_TIME + "Size:4\r\n\r\nab", "cdef"},
                                {FILE_TIME + "Size:0\r\n\r\na"},
                                {FILE_TIME + "\r\nabc"}}) {
        sock.replies = replies;
        EXPECT_EQ(Get(), 0);
        EXPECT_EQ(Content(), "old");
        EXPECT_EQ(Time(), 1);
    }
}

TEST_F(GetFileTest, AnOverLongBodyTellsOfNoEnd)
{
    sock.replies = {FILE_TIME + "Size:5\r\n\r\n", "ab", "cdefg"};
    EXPECT_EQ(Get(), 0);
    EXPECT_EQ(progress.calls, (std::vector<std::pair<int, bool>>{{2, false}}));
}

TEST_F(GetFileTest, AFileThatIsTooLargeOrOfNoSizeIsRefusedAtItsHeader)
{
    Write("old", 1);
    for (const char* szSize : {"2000001", "FFFFFFFF", "1000000000000000", "FFFFFFFFFFFFFFFF",
                               "10000000000000002", "-FFFFFFFFFFFFFFFE", "+2", "zz", ""}) {
        sock.replies = {std::string("Size:") + szSize + "\r\n\r\nab", "never asked for"};
        EXPECT_EQ(Get(), 0) << szSize;
        EXPECT_EQ(sock.replies.size(), 1U) << szSize;
        EXPECT_EQ(Content(), "old") << szSize;
    }
    sock.replies = {"Append:Yes\r\nSize:1FFFFFE\r\n\r\nab", "never asked for"};
    EXPECT_EQ(Get(), 0) << "with what is there";
    EXPECT_EQ(Content(), "old");
    EXPECT_EQ(sock.replies.size(), 1U);
}

TEST_F(GetFileTest, AFolderThatIsMissingCountsAsDoneToo)
{
    sock.replies = {FILE_TIME + "Size:4\r\n\r\nab", "cd"};
    EXPECT_EQ(GetFile("no/f.dat", sock, '4', (dir + "/").c_str(), 0, 0, &progress, nullptr), 1);
    EXPECT_TRUE(sock.replies.empty()) << "the body is read, so that the connection stays clean";
    EXPECT_TRUE(progress.calls.empty());
}

TEST_F(GetFileTest, ATargetThatCannotBeOpenedCountsAsDone)
{
    fs::create_directory(Path());
    sock.replies = {FILE_TIME + "Size:2\r\n\r\nab"};
    EXPECT_EQ(Get(), 1);
    EXPECT_TRUE(fs::is_directory(Path()));
    EXPECT_TRUE(sock.sent.empty()) << "what is no file is not asked for";
}

TEST_F(GetFileTest, TheExchangeTellsWhetherTheConnectionIsCleanBehindIt)
{
    const auto download = [this](std::deque<std::string> replies) {
        sock.replies = std::move(replies);
        return DownloadFile("f.dat", sock, '4', (dir + "/").c_str(), 0, 0, nullptr, nullptr);
    };
    EXPECT_EQ(download({"UseLast:Yes\r\n\r\n"}), EDownload::NotStored) << "there is no copy";
    EXPECT_EQ(download({"Size:2\r\n\r\nab"}), EDownload::Complete);
    EXPECT_EQ(download({"UseLast:Yes\r\n\r\n"}), EDownload::Complete);
    for (const std::deque<std::string>& replies :
         std::initializer_list<std::deque<std::string>>{{"UseLast:Yes\r\n\r\nx"},
                                                        {"Exist:No\r\n\r\nx"},
                                                        {"Size:2\r\n\r\nabc"},
                                                        {"Size:2\r\n\r\n", "abc"},
                                                        {"UseLast:Yes\r\n"},
                                                        {"UseLast:Yes"},
                                                        {"Exist:No\r\n"},
                                                        {"Size:0\r\n"},
                                                        {"Size:0\r\nFileTime:600"}}) {
        EXPECT_EQ(download(replies), EDownload::Failed) << replies.front();
        EXPECT_EQ(Content(), "ab") << replies.front();
    }
    EXPECT_EQ(download({"Size:4\r\n\r\nabc"}), EDownload::Failed);
    EXPECT_EQ(Content(), "abc");
    fs::remove(Path());
    EXPECT_EQ(download({"Size:0\r\n\r\n"}), EDownload::Complete);
    fs::remove_all(Path());
    fs::create_directory(Path());
    EXPECT_EQ(download({"Size:4\r\n\r\nabcd"}), EDownload::NotStored);
}

/// Feeds a long body and gives the acknowledgements that were sent for it.
std::vector<std::string> Acknowledged(CScriptedSocket& sock, const std::string& strHeader, size_t nBody)
{
    for (size_t nLeft = nBody; nLeft > 0; nLeft -= std::min<size_t>(nLeft, 65536))
        sock.replies.emplace_back(std::min<size_t>(nLeft, 65536), 'x');
    sock.replies.front().insert(0, strHeader);
    return {sock.sent.begin(), sock.sent.end()};
}

/// What the acknowledgements must be: each window as large as the last less 10240, down to 8192.
std::vector<std::string> Windows(int nFirst, size_t nBytes)
{
    std::vector<std::string> acks;
    for (auto nMax = static_cast<size_t>(nFirst); nBytes > nMax;
         nMax = std::max<size_t>(nMax > 10240 ? nMax - 10240 : 0, 8192)) {
        std::array<char, 32> text{};
        std::snprintf(text.data(), text.size(), "4Hello%zX", nMax);
        acks.emplace_back(text.data(), std::char_traits<char>::length(text.data()) + 1);
        nBytes -= nMax;
    }
    return acks;
}

TEST_F(GetFileTest, WindowsAreAcknowledgedEverMoreOften)
{
    const std::string strHeader = "Hello:Yes\r\nSize:C3500\r\n" + FILE_TIME + "\r\n";
    Acknowledged(sock, strHeader, 0xC3500);
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(fs::file_size(Path()), 0xC3500U);
    sock.sent.erase(sock.sent.begin()); // the request
    EXPECT_EQ(sock.sent[0], std::string("4Hello20000\0", 12));
    EXPECT_EQ(sock.sent[1], std::string("4Hello1D800\0", 12));
    EXPECT_EQ(sock.sent, Windows(131072, 0xC3500 + strHeader.size()));
    EXPECT_LE(*std::max_element(sock.wanted.begin(), sock.wanted.end()), 2048);
}

TEST_F(GetFileTest, TheRelaysWindowsAreSmaller)
{
    const std::string strHeader = "Hello:Yes\r\nSize:20000\r\n" + FILE_TIME + "\r\n";
    Acknowledged(sock, strHeader, 0x20000);
    EXPECT_EQ(Get(0, 0, "r"), 1);
    sock.sent.erase(sock.sent.begin());
    EXPECT_EQ(sock.sent, Windows(38912, 0x20000 + strHeader.size()));
    EXPECT_EQ(sock.sent[3], std::string("4Hello2000\0", 11)) << "8192 is the smallest";
}

TEST_F(GetFileTest, AnAcknowledgementThatCannotBeSentIsNoFailure)
{
    Acknowledged(sock, "Hello:Yes\r\nSize:30000\r\n\r\n", 0x30000);
    sock.nSendsThatWork = 1; // the request
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(fs::file_size(Path()), 0x30000U);
    EXPECT_EQ(sock.sent.size(), 2U);
}

TEST_F(GetFileTest, NoReceiveReachesBeyondItsWindow)
{
    Acknowledged(sock, "Hello:Yes\r\nSize:60000\r\n\r\n", 0x60000);
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(sock.receivedAtSend,
              (std::vector<size_t>{0, 131072, 131072 + 120832, 131072 + 120832 + 110592}));
}

TEST_F(GetFileTest, ABodyThatEndsWithItsWindowIsNotAcknowledged)
{
    const std::string strHeader = "Hello:Yes\r\nSize:1FFE7\r\n\r\n";
    Acknowledged(sock, strHeader, 0x1FFE7);
    ASSERT_EQ(strHeader.size() + 0x1FFE7, 131072U);
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(sock.sent.size(), 1U);
}

TEST_F(GetFileTest, WithoutHelloNothingIsAcknowledged)
{
    Acknowledged(sock, "Size:30000\r\n\r\n", 0x30000);
    EXPECT_EQ(Get(), 1);
    EXPECT_EQ(sock.sent.size(), 1U);
}

SCFileInfo Parsed(const std::string& strHeader, int nOffset = -1)
{
    SCFileInfo fi;
    EXPECT_EQ(GetFileInfoByBuf(strHeader.data(), static_cast<int>(strHeader.size()), fi),
              nOffset < 0 ? static_cast<int>(strHeader.size()) : nOffset);
    return fi;
}

TEST(GetFileInfoByBuf, ReadsEveryNameInAnyCase)
{
    const SCFileInfo fi =
        Parsed("SIZE: 1F\r\nuselast:YES\r\nExist:\tno\r\ngz:yesterday\r\nAPPEND:Yes\r\nHello:y\r\n"
               "filetime:5F5E1000\r\nFileName:a b:c\r\nOther:1\r\n\r\n");
    EXPECT_EQ(fi.dwSize, 0x1FU);
    EXPECT_TRUE(fi.bUseLast && fi.bGZ && fi.bAppend);
    EXPECT_FALSE(fi.bExist || fi.bHello);
    EXPECT_EQ(fi.tt, 0x5F5E1000);
    EXPECT_EQ(fi.strName, "abc");
}

TEST(GetFileInfoByBuf, BeginsWithAFileThatExistsAndNothingElse)
{
    const SCFileInfo fi = Parsed("\r\n");
    EXPECT_TRUE(fi.bExist);
    EXPECT_FALSE(fi.bUseLast || fi.bGZ || fi.bAppend || fi.bHello);
    EXPECT_EQ(fi.dwSize, 0U);
    EXPECT_EQ(fi.tt, 0);
}

TEST(GetFileInfoByBuf, EndsEarlyAtWhatIsTooLong)
{
    Parsed(std::string(63, 'n') + ":" + std::string(255, 'v') + "\n\n");
    Parsed("Size:1\n" + std::string(64, 'n') + ":1\n\n", 7 + 64);
    Parsed("Size:1\nn:" + std::string(256, 'v') + "\n\n", 7 + 2 + 256);
}

TEST(ReadHttpCont, DropsColonsBlanksTabsAndReturns)
{
    std::array<char, 8> var{};
    std::array<char, 8> prop{};
    const std::string strLine = "N a\tm:12:34 \r\n";
    int nPos = 0;
    EXPECT_EQ(
        ReadHttpCont(strLine.data(), nPos, static_cast<int>(strLine.size()), var.data(), 7, prop.data(), 7),
        1);
    EXPECT_STREQ(var.data(), "Nam");
    EXPECT_STREQ(prop.data(), "1234");
    EXPECT_EQ(nPos, static_cast<int>(strLine.size()));
}

TEST(ReadHttpCont, ReadsNothingBeyondItsLength)
{
    std::array<char, 8> var{};
    std::array<char, 8> prop{};
    int nPos = 0;
    EXPECT_EQ(ReadHttpCont("a:b\n", nPos, 3, var.data(), 7, prop.data(), 7), 0);
    EXPECT_EQ(nPos, 3);
    nPos = 0;
    EXPECT_EQ(ReadHttpCont(":x\n", nPos, 3, var.data(), 7, prop.data(), 7), 0) << "a line without a name";
}

} // namespace
