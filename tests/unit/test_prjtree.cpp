// The project directory: the server's own, or a mirror that is built.
#include "peer.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <sys/inotify.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

TEST(IsMirrorName, RefusesWhatWouldLeaveTheMirror)
{
    for (const char* szName :
         {".", "..", "/", "a/b", "../x", "/x", "x/", "..\xFF", ".\xFF", "\xFF", "", "..\x80x"})
        EXPECT_FALSE(CClientSock::IsMirrorName(szName)) << szName;
    for (const char* szName :
         {"demo", "...", ". ", "a.b", "..x", "\\", "\xCA\xBE\xB7\xB6", "\xA3\xAF", "\xA3\xAE"})
        EXPECT_TRUE(CClientSock::IsMirrorName(szName)) << szName; // the last two: full-width slash and dot
}

TEST(IsMirrorName, RefusesWhatWouldBeCutToAnotherProjectsName)
{
    for (const char* szName : {"a\xFF\xFF", "demo\xA1", "demo\x80", "\xCA\xBE\xB7\xB6\xFF", "a\xFF,b"})
        EXPECT_FALSE(CClientSock::IsMirrorName(szName)) << szName;
    for (const char* szName : {"a", "demo", "\xA1\xAA", "\xA1\xA4\xA1\xAA"}) // the last: a dot and a dash
        EXPECT_TRUE(CClientSock::IsMirrorName(szName)) << szName;
}

/// The four paths in one text.
struct SPaths
{
    CString strPrj = "p";
    CString strEvent = "e";
    CString strAlarm = "a";
    CString strHist = "h";

    bool Ask(CClientSock& client) { return client.GetPrjPath(strPrj, strEvent, strAlarm, strHist); }
    std::string All() const { return strPrj + '|' + strEvent + '|' + strAlarm + '|' + strHist; }
};

/// Asks a server that gives one reply.
SPaths Asked(const std::string& strReply, bool bWanted)
{
    SRequests requests;
    std::thread server([&] {
        Want(requests.server, "3");
        if (strReply.empty())
            requests.server.ShutDown();
        else
            Send(requests.server, strReply);
    });
    SPaths paths;
    EXPECT_EQ(paths.Ask(requests.client), bWanted);
    requests.client.StopSock();
    server.join();
    if (!strReply.empty())
        WantEnd(requests.server);
    return paths;
}

TEST(GetPrjPath, TakesFourTexts)
{
    EXPECT_EQ(Asked(std::string("3/p/\0/e/\0/a/\0/h/\0", 17), true).All(), "/p/|/e/|/a/|/h/");
    EXPECT_EQ(Asked(std::string("3/p/\0/e/\0/a/\0/h/\0more\0", 22), true).All(), "/p/|/e/|/a/|/h/");
    EXPECT_EQ(Asked(std::string("3\0\0\0\0", 5), true).All(), "|||");
}

TEST(GetPrjPath, TakesWhatThereIsOfAReplyThatIsTooShort)
{
    EXPECT_EQ(Asked("3", true).All(), "|||");
    EXPECT_EQ(Asked(std::string("3/p/\0/e", 7), true).All(), "/p/|/e||");
}

TEST(GetPrjPath, ReadsNothingBehindTheLargestReply)
{
    EXPECT_EQ(Asked('3' + std::string(2046, 'x') + '\0', true).All(), std::string(2046, 'x') + "|||");
    EXPECT_EQ(Asked('3' + std::string(2047, 'x'), true).All(), "|||") << "a text without an end";
}

TEST(GetPrjPath, ChangesNothingOnAnyOtherReply)
{
    for (const std::string& strReply :
         {std::string("4/p/\0/e/\0/a/\0/h/\0", 17), std::string("0"), std::string()})
        EXPECT_EQ(Asked(strReply, false).All(), "p|e|a|h");
    CClientSock unconnected;
    SPaths paths;
    EXPECT_FALSE(paths.Ask(unconnected));
    EXPECT_EQ(paths.All(), "p|e|a|h");
}

TEST(GetPrjPath, FailsWhenNoReplyComesAndEndsTheConnection)
{
    SRequests requests;
    requests.client.m_reqSock.SetTimeOut(100);
    SPaths paths;
    EXPECT_FALSE(paths.Ask(requests.client));
    EXPECT_EQ(paths.All(), "p|e|a|h");
    EXPECT_FALSE(requests.client.m_reqSock.IsSocket()) << "the reply could still come";
}

TEST(AfterConnect, AsksAServerOfThisMachineForItsPaths)
{
    SRequests requests;
    std::thread server([&] {
        Want(requests.server, "3");
        Send(requests.server, std::string("3/p/\0/e/\0/a/\0/h/\0", 17));
    });
    requests.client.m_bLocalDB = true;
    CString strErr = "none";
    EXPECT_TRUE(requests.client.AfterConnect("host", "demo", strErr));
    EXPECT_EQ(strErr, "none");
    EXPECT_EQ(requests.client.m_strPrjPath, "/p/");
    EXPECT_EQ(requests.client.m_strEventPath, "/e/");
    EXPECT_EQ(requests.client.m_strAlarmPath, "/a/");
    EXPECT_EQ(requests.client.m_strHistPath, "/h/");
    server.join();
}

TEST(AfterConnect, SaysWhenAServerOfThisMachineHasNoPaths)
{
    SRequests requests;
    std::thread server([&] {
        Want(requests.server, "3");
        Send(requests.server, "0");
    });
    requests.client.m_bLocalDB = true;
    CString strErr;
    EXPECT_FALSE(requests.client.AfterConnect("host", "demo", strErr));
    EXPECT_EQ(strErr, "\xCE\xDE\xB7\xA8\xBB\xF1\xC8\xA1\xB9\xA4\xB3\xCC\xC2\xB7\xBE\xB6"); // 无法获取工程路径
    server.join();
}

constexpr std::array FOLDERS{"Window", "3DWnd",  "Report",  "CtmGph",  "ScnDrv",        "DBDrv",
                             "Media",  "SysCfg", "RecData", "ExtData", "RecData/Event", "RecData/Alarm2"};
constexpr const char* NAME_GB2312 = "\xCA\xBE\xB7\xB6";
constexpr const char* NAME_UTF8 = "示范";

/// A mirror of a host of its own.
class Mirror : public testing::Test
{
protected:
    Mirror() { client.m_bLocalDB = false; }
    void SetUp() override { fs::remove_all(root); }
    void TearDown() override { fs::remove_all(root); }

    void Build(const char* szName = NAME_GB2312)
    {
        CString strErr = "none";
        EXPECT_TRUE(client.AfterConnect(strHost.c_str(), szName, strErr));
        EXPECT_EQ(strErr, "none");
    }

    const std::string strHost = "unit:tree::" + std::to_string(::getpid());
    const fs::path root = std::string(RKDB_MIRROR_ROOT) + "unit_tree__" + std::to_string(::getpid());
    const fs::path project = root / NAME_UTF8;
    CClientSock client;
};

TEST_F(Mirror, IsNamedByHostAndProject)
{
    Build();
    EXPECT_TRUE(fs::is_directory(project)) << "named in UTF-8 on disk";
    EXPECT_EQ(client.m_strPrjPath, root.string() + '/' + NAME_GB2312 + '/') << "as it is held in here";
    EXPECT_EQ(client.m_strEventPath + client.m_strAlarmPath + client.m_strHistPath, "");
    Build("demo");
    EXPECT_TRUE(fs::is_directory(root / "demo"));
    EXPECT_EQ(client.m_strPrjPath, root.string() + "/demo/");
}

TEST_F(Mirror, OfARelayedServerIsNamedByTheWholeAddress)
{
    const std::string strEnd = std::to_string(::getpid());
    for (const std::string strStart : {"p2p_unit", "p2p(127.0.0.1)_unit"}) {
        const fs::path folder = RKDB_MIRROR_ROOT + strStart + strEnd;
        std::string strText = strStart + strEnd;
        strText[strText.rfind('_')] = ':';
        CString strErr;
        EXPECT_TRUE(client.AfterConnect(strText.c_str(), "demo", strErr));
        EXPECT_TRUE(fs::is_directory(folder / "demo/RecData")) << folder;
        EXPECT_EQ(client.m_strPrjPath, folder.string() + "/demo/");
        fs::remove_all(folder);
    }
}

/// A file is opened by the UTF-8 form of its whole path: that must lead into the folder that was made.
TEST_F(Mirror, OfAHostThatIsNotAsciiIsItsOwnAndItsFilesLieInIt)
{
    const std::string strEnd = std::to_string(::getpid());
    const std::vector<std::pair<std::string, std::string>> folders{
        {"p2p(127.0.0.1):锅炉", "p2p(127.0.0.1)_锅炉"},
        {"p2p(127.0.0.1):隧道", "p2p(127.0.0.1)_隧道"},
        {"p2p:ö", "p2p_%C3%B6"},
        {"p2p:a\xFF", "p2p_a%FF"}};
    for (const auto& [strHostText, strFolder] : folders) {
        const fs::path folder = RKDB_MIRROR_ROOT + strFolder + strEnd;
        CString strErr;
        EXPECT_TRUE(client.AfterConnect((strHostText + strEnd).c_str(), NAME_GB2312, strErr));
        EXPECT_TRUE(fs::is_directory(folder / NAME_UTF8 / "RecData")) << folder;
        CString strOpened;
        client.m_strPrjPath.ToUtf8(strOpened);
        EXPECT_EQ(strOpened, (folder / NAME_UTF8).string() + '/');
        fs::remove_all(folder);
    }
}

TEST_F(Mirror, HoldsTheTwelveFoldersForTheirOwnerAlone)
{
    const mode_t nUmask = ::umask(0);
    Build();
    ::umask(nUmask);
    for (const char* szFolder : FOLDERS)
        EXPECT_EQ(fs::status(project / szFolder).permissions(), fs::perms::owner_all) << szFolder;
    EXPECT_EQ(fs::status(root).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(project).permissions(), fs::perms::owner_all);
    const auto nFolders = std::distance(fs::recursive_directory_iterator(project), {});
    EXPECT_EQ(static_cast<size_t>(nFolders), FOLDERS.size()) << "and nothing else";
}

TEST_F(Mirror, IsOpenToItsOwnerWhateverTheUmask)
{
    fs::create_directories(RKDB_MIRROR_ROOT); // is no folder of this test alone
    for (const mode_t nMask : {0777, 0477, 0}) {
        fs::remove_all(root);
        const mode_t nUmask = ::umask(nMask);
        Build();
        ::umask(nUmask);
        for (const fs::path& folder : {root, project})
            EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all) << folder;
        for (const char* szFolder : FOLDERS)
            EXPECT_EQ(fs::status(project / szFolder).permissions(), fs::perms::owner_all) << szFolder;
    }
}

TEST_F(Mirror, IsReusedWithItsContentsAndTheModesOfMostFolders)
{
    Build();
    std::ofstream(project / "RecData/drvinfo.dat") << "kept";
    constexpr auto OPEN = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec;
    for (const char* szFolder : FOLDERS)
        fs::permissions(project / szFolder, OPEN);
    fs::permissions(project, OPEN);
    fs::permissions(root, OPEN);
    Build();
    std::string strKept;
    std::ifstream(project / "RecData/drvinfo.dat") >> strKept;
    EXPECT_EQ(strKept, "kept");
    EXPECT_EQ(fs::status(root).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(project).permissions(), fs::perms::owner_all);
    for (const std::string strFolder : FOLDERS) {
        const bool bChmod = strFolder == "RecData/Event" || strFolder == "RecData/Alarm2";
        EXPECT_EQ(fs::status(project / strFolder).permissions(), bChmod ? fs::perms::owner_all : OPEN)
            << strFolder;
    }
}

/// The names that are made in a folder while the scope lasts, in their order.
class CWatch
{
public:
    explicit CWatch(const fs::path& folder) : m_hWatch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
    {
        EXPECT_GE(::inotify_add_watch(m_hWatch, folder.c_str(), IN_CREATE), 0);
    }
    ~CWatch() { ::close(m_hWatch); }
    CWatch(const CWatch&) = delete;
    CWatch& operator=(const CWatch&) = delete;

    std::vector<std::string> Made() const
    {
        std::vector<std::string> names;
        alignas(inotify_event) std::array<char, 8192> events{};
        const auto nGot = ::read(m_hWatch, events.data(), events.size());
        for (const char* p = events.data(); p < events.data() + nGot;) {
            const auto* pEvent = reinterpret_cast<const inotify_event*>(p);
            names.emplace_back(pEvent->name);
            p += sizeof *pEvent + pEvent->len;
        }
        return names;
    }

private:
    int m_hWatch;
};

TEST_F(Mirror, IsMadeInTheOrderOfItsTable)
{
    fs::create_directories(project);
    const CWatch watch(project);
    Build();
    EXPECT_EQ(watch.Made(), std::vector<std::string>(FOLDERS.begin(), FOLDERS.begin() + 10));
    fs::remove_all(project / "RecData/Event");
    fs::remove_all(project / "RecData/Alarm2");
    const CWatch inner(project / "RecData");
    Build();
    EXPECT_EQ(inner.Made(), (std::vector<std::string>{"Event", "Alarm2"}));
    EXPECT_TRUE(watch.Made().empty()) << "what exists is not made again";
}

/// Everything below a folder with its mode, for what must stay as it is.
std::map<std::string, mode_t> Everything(const fs::path& folder)
{
    std::map<std::string, mode_t> found;
    const auto note = [&found](const fs::path& path) {
        struct stat st = {};
        EXPECT_EQ(::lstat(path.c_str(), &st), 0);
        found[path] = st.st_mode;
    };
    note(folder);
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        note(entry);
    return found;
}

/// A mirror in which something was planted.
class PlantedMirror : public Mirror
{
protected:
    void SetUp() override
    {
        Mirror::SetUp();
        fs::create_directories(elsewhere / "inner");
        fs::permissions(elsewhere, fs::perms::owner_all | fs::perms::group_read);
        m_before = Everything(elsewhere);
    }
    void TearDown() override
    {
        Mirror::TearDown();
        fs::remove_all(elsewhere);
    }

    void IsRefused()
    {
        CString strErr;
        EXPECT_FALSE(client.AfterConnect(strHost.c_str(), NAME_GB2312, strErr));
        EXPECT_FALSE(strErr.empty());
        EXPECT_EQ(client.m_strPrjPath, "");
        EXPECT_EQ(Everything(elsewhere), m_before);
    }

    const fs::path elsewhere = testing::TempDir() + "unit_tree_elsewhere" + std::to_string(::getpid());

private:
    std::map<std::string, mode_t> m_before;
};

TEST_F(PlantedMirror, WithALinkForAFolderIsRefusedAndTheLinkIsNotFollowed)
{
    const std::array places{root, project, project / "Window", project / "RecData",
                            project / "RecData/Alarm2"};
    for (const fs::path& place : places) {
        fs::remove_all(root);
        fs::create_directories(place.parent_path());
        fs::create_directory_symlink(elsewhere, place);
        IsRefused();
    }
}

TEST_F(PlantedMirror, WithAFileForAFolderIsRefused)
{
    std::ofstream(root) << "a file where the folder should be";
    IsRefused();
    EXPECT_TRUE(fs::is_regular_file(root));
}

TEST_F(PlantedMirror, ThatOthersMayWriteToIsRefusedAndStaysAsItIs)
{
    for (const fs::path& place : {root, project, project / "Media", project / "RecData/Event"}) {
        for (const auto nBit : {fs::perms::group_write, fs::perms::others_write}) {
            fs::remove_all(root);
            fs::create_directories(place);
            fs::permissions(place, fs::perms::owner_all | nBit);
            IsRefused();
            EXPECT_EQ(fs::status(place).permissions(), fs::perms::owner_all | nBit) << place;
        }
    }
}

TEST_F(PlantedMirror, WithAHostTextThatIsNoNameIsRefused)
{
    for (const char* szHost : {"", ".", "..", "../x", "p2p(127.0.0.1):../../x", "a/b"}) {
        CString strErr;
        EXPECT_FALSE(client.AfterConnect(szHost, "demo", strErr)) << szHost;
    }
}

} // namespace
