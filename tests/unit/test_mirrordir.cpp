// The way to a file of the mirror: what is trusted, what is refused, and how a new version takes its place.
#include "MirrorDir.h"

#include "temp_dir.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr uid_t SOMEBODY = 65534;

class MirrorDir : public testing::Test
{
protected:
    void SetUp() override
    {
        Make(root);
        Make(root + "host");
        Put("f", "content");
    }

    static void Make(const std::string& strFolder)
    {
        fs::create_directory(strFolder);
        fs::permissions(strFolder, fs::perms::owner_all);
    }
    std::string Path(const std::string& strName = "f") const { return root + "host/" + strName; }
    void Put(const std::string& strName, const std::string& strContent) const
    {
        std::ofstream(Path(strName), std::ios::binary) << strContent;
        fs::permissions(Path(strName), fs::perms::owner_read | fs::perms::owner_write);
    }
    std::string Content(const std::string& strName = "f") const
    {
        std::ifstream file(Path(strName), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    EMirror Find() const
    {
        XFile file;
        struct stat st = {};
        return CMirrorDir::Of(Path(), root).OpenFile("f", file, st);
    }
    std::vector<std::string> Names() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(root + "host"))
            names.push_back(entry.path().filename());
        std::ranges::sort(names);
        return names;
    }

    const CTempDir temp;
    const std::string base = temp.Path();
    const std::string root = base + "/root/";
};

TEST_F(MirrorDir, FindsAFileOfOurs)
{
    EXPECT_EQ(Find(), EMirror::Found);
    fs::remove(Path());
    EXPECT_EQ(Find(), EMirror::Missing);
    fs::remove(root + "host");
    EXPECT_EQ(Find(), EMirror::Missing);
    fs::remove(root);
    EXPECT_EQ(Find(), EMirror::Missing);
}

TEST_F(MirrorDir, FollowsNoLinkOnTheWay)
{
    fs::rename(root + "host", base + "/moved");
    fs::create_directory_symlink(base + "/moved", root + "host");
    EXPECT_EQ(Find(), EMirror::Refused);
    fs::remove(root + "host");
    fs::rename(base + "/moved", root + "host");
    EXPECT_EQ(Find(), EMirror::Found);
    fs::rename(root.substr(0, root.size() - 1), base + "/moved");
    fs::create_directory_symlink(base + "/moved", root.substr(0, root.size() - 1));
    EXPECT_EQ(Find(), EMirror::Refused) << "nor for the root";
}

TEST_F(MirrorDir, LeavesTheRootByNoName)
{
    Put("../../outside", "x");
    for (const std::string strWay : {"../outside", "host/../../outside", "./host/f", "host//f"}) {
        XFile file;
        struct stat st = {};
        const CMirrorDir dir = CMirrorDir::Of(root + strWay, root);
        EXPECT_EQ(dir.OpenFile(FileNameOf(strWay), file, st), EMirror::Refused) << strWay;
    }
    XFile file;
    struct stat st = {};
    EXPECT_EQ(CMirrorDir::Of(Path(), root).OpenFile("..", file, st), EMirror::Refused);
    fs::remove(base + "/outside");
}

TEST_F(MirrorDir, BelievesNothingThatOthersMayWrite)
{
    for (const std::string& strPath : {Path(), root + "host"}) {
        for (const auto nBit : {fs::perms::group_write, fs::perms::others_write}) {
            fs::permissions(strPath, nBit, fs::perm_options::add);
            EXPECT_EQ(Find(), EMirror::Refused) << strPath;
            fs::permissions(strPath, nBit, fs::perm_options::remove);
            EXPECT_EQ(Find(), EMirror::Found) << strPath;
        }
    }
}

TEST_F(MirrorDir, SharesARootOnlyIfItIsSticky)
{
    fs::permissions(root, fs::perms::all);
    EXPECT_EQ(Find(), EMirror::Refused);
    fs::permissions(root, fs::perms::all | fs::perms::sticky_bit);
    EXPECT_EQ(Find(), EMirror::Found);
    fs::permissions(root + "host", fs::perms::all | fs::perms::sticky_bit);
    EXPECT_EQ(Find(), EMirror::Refused) << "which helps no other folder";
}

/// As the superuser by giving things away, as anyone else with what is the system's.
TEST_F(MirrorDir, BelievesNothingOfAnotherUser)
{
    if (::geteuid() == 0) {
        for (const std::string& strPath : {Path(), root + "host", root}) {
            ASSERT_EQ(::chown(strPath.c_str(), SOMEBODY, SOMEBODY), 0);
            EXPECT_EQ(Find(), EMirror::Refused) << strPath;
            ASSERT_EQ(::chown(strPath.c_str(), 0, 0), 0);
            EXPECT_EQ(Find(), EMirror::Found) << strPath;
        }
    } else {
        XFile file;
        struct stat st = {};
        EXPECT_EQ(CMirrorDir::Of("/etc/passwd", "/etc/").OpenFile("passwd", file, st), EMirror::Refused);
        EXPECT_EQ(CMirrorDir::Of("/usr/lib/x", "/usr/").State(), EMirror::Refused);
    }
}

TEST_F(MirrorDir, TakesARootOfTheSystem)
{
    struct stat st = {};
    ASSERT_EQ(::stat("/tmp", &st), 0);
    EXPECT_EQ(CMirrorDir::Root("/tmp/", false).IsOpen(),
              (st.st_uid == 0 || st.st_uid == ::geteuid()) && (!(st.st_mode & 022) || st.st_mode & S_ISVTX));
}

TEST_F(MirrorDir, WaitsForNoPipe)
{
    fs::remove(Path());
    ASSERT_EQ(::mkfifo(Path().c_str(), 0600), 0);
    EXPECT_EQ(Find(), EMirror::Refused);
}

TEST_F(MirrorDir, PutsANewVersionInPlaceOfTheOld)
{
    const CMirrorDir dir = CMirrorDir::Of(Path(), root);
    {
        CNewFile file(dir, "f");
        ASSERT_TRUE(file.Begin());
        EXPECT_TRUE(file.Write("new", 3));
        EXPECT_EQ(Content(), "content") << "not before its end";
        EXPECT_EQ(Names().size(), 2U);
    }
    EXPECT_EQ(Names(), std::vector<std::string>{"f"}) << "what was not placed is gone";
    const mode_t nUmask = ::umask(0777);
    CNewFile file(dir, "f");
    ASSERT_TRUE(file.Begin());
    ::umask(nUmask);
    EXPECT_TRUE(file.Write("new", 3) && file.Place(1000, true));
    EXPECT_EQ(Content(), "new");
    EXPECT_EQ(Names(), std::vector<std::string>{"f"});
    struct stat st = {};
    ASSERT_EQ(::stat(Path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    EXPECT_EQ(st.st_mtime, 1000);
    EXPECT_FALSE(IsPartOnly(st));
}

TEST_F(MirrorDir, FollowsNoLinkWhereItWrites)
{
    fs::remove(Path());
    std::ofstream(base + "/victim") << "safe";
    fs::create_symlink(base + "/victim", Path());
    const CMirrorDir dir = CMirrorDir::Of(Path(), root);
    CNewFile file(dir, "f");
    ASSERT_TRUE(file.Begin() && file.Write("new", 3) && file.Place(1, true));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(Path())));
    std::string strVictim;
    std::ifstream(base + "/victim") >> strVictim;
    EXPECT_EQ(strVictim, "safe");
}

TEST_F(MirrorDir, SweepsUpWhatTheDeadHaveLeftOfTheSameFile)
{
    const CMirrorDir dir = CMirrorDir::Of(Path(), root);
    CNewFile alive(dir, "f");
    ASSERT_TRUE(alive.Begin() && alive.Write("living", 6));
    for (const char* szName : {".f~1-1-1", ".g~1-1-1", "f~"})
        Put(szName, "x");
    fs::create_symlink(Path(), Path(".f~link"));
    CNewFile file(dir, "f");
    ASSERT_TRUE(file.Begin() && file.Place(1, true));
    EXPECT_TRUE(alive.Place(1, true)) << "whose writer is still at it";
    EXPECT_EQ(Content(), "living");
    EXPECT_EQ(Names(), (std::vector<std::string>{".f~link", ".g~1-1-1", "f", "f~"}));
}

TEST_F(MirrorDir, HasOneVersionOrAnotherWhoeverWritesMeanwhile)
{
    const std::array contents{std::string(300000, 'a'), std::string(200000, 'b'), std::string(400000, 'c')};
    Put("f", contents[0]);
    std::atomic<bool> bEnough{false};
    std::vector<std::thread> writers;
    for (const std::string& strContent : contents) {
        writers.emplace_back([&, this] {
            const CMirrorDir dir = CMirrorDir::Of(Path(), root);
            while (!bEnough) {
                CNewFile file(dir, "f");
                EXPECT_TRUE(file.Begin());
                for (size_t n = 0; n < strContent.size(); n += 50000)
                    EXPECT_TRUE(file.Write(strContent.data() + n, 50000));
                EXPECT_TRUE(file.Place(1, true));
            }
        });
    }
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(std::ranges::count(contents, Content()) == 1);
    bEnough = true;
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ(Names(), std::vector<std::string>{"f"});
}

} // namespace
