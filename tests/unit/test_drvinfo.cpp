// The driver directory file.
#include "DrvInfo.h"

#include "temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

struct SEntry : SNDrvInfo
{
    int* pDriver = nullptr;
};

class DrvInfo : public testing::Test
{
protected:
    void SetUp() override { fs::create_directory(dir + "/RecData"); }

    bool Load() { return LoadPrjDrvInfo(CString(dir + "/"), map); }
    void Load(const std::string& strBytes)
    {
        std::ofstream(Path(), std::ios::binary) << strBytes;
        EXPECT_TRUE(Load());
    }
    std::string Path() const { return dir + "/RecData/drvinfo.dat"; }

    const CTempDir temp;
    const std::string dir = temp.Path();
    std::map<CString, SEntry> map;
};

TEST_F(DrvInfo, ReadsRecordsOneBehindTheOther)
{
    Load(std::string("A\0\0\0\5\0B\0\1\0\xA\0", 12));
    ASSERT_EQ(map.size(), 2U);
    EXPECT_EQ(map["A"].id, 0);
    EXPECT_EQ(map["A"].tagNum, 5);
    EXPECT_EQ(map["B"].id, 1);
    EXPECT_EQ(map["B"].tagNum, 10);
}

TEST_F(DrvInfo, KeepsNamesAsTheirBytesAreAndInTheirOrder)
{
    Load(std::string("b\0\1\0\1\0\xC7\xFD\xB6\xAF\0\xFF\xFF\xFE\xFF"
                     "B\0\2\0\3\0",
                     21));
    std::vector<std::string> names;
    for (const auto& [strName, info] : map)
        names.push_back(strName);
    EXPECT_EQ(names, (std::vector<std::string>{"B", "b", "\xC7\xFD\xB6\xAF"})); // 驱动
    EXPECT_EQ(map["\xC7\xFD\xB6\xAF"].id, 0xFFFF);
    EXPECT_EQ(map["\xC7\xFD\xB6\xAF"].tagNum, 0xFFFE);
}

TEST_F(DrvInfo, IsReadFromAFolderWhoseNameIsInGb2312)
{
    fs::create_directories(dir + "/示范/RecData");
    std::ofstream(dir + "/示范/RecData/drvinfo.dat", std::ios::binary) << std::string("A\0\0\0\5\0", 6);
    LoadPrjDrvInfo(CString(dir + "/\xCA\xBE\xB7\xB6/"), map);
    EXPECT_EQ(map.count("A"), 1U);
}

TEST_F(DrvInfo, CutAnywhereHoldsItsWholeRecordsOnly)
{
    const std::string strWhole("AB\0\0\0\5\0C\0\1\0\xA\0", 13);
    for (size_t n = 0; n <= strWhole.size(); ++n) {
        map.clear();
        Load(strWhole.substr(0, n));
        EXPECT_EQ(map.size(), n < 7 ? 0U : n < 13 ? 1U : 2U) << n;
    }
}

TEST_F(DrvInfo, OfFourBytesIsEmptyAndOfFiveHoldsANamelessDriver)
{
    Load(std::string(4, '\0'));
    EXPECT_TRUE(map.empty());
    Load(std::string("\0\1\2\3\4", 5));
    ASSERT_EQ(map.size(), 1U);
    EXPECT_EQ(map[""].id, 0x0201);
    EXPECT_EQ(map[""].tagNum, 0x0403);
}

TEST_F(DrvInfo, IgnoresALastRecordThatLacksAByte)
{
    Load(std::string("A\0\0\0\5\0B\0\1\0\xA", 11));
    EXPECT_EQ(map.size(), 1U);
    Load(std::string("C\0\0\0\5\0no end", 12));
    EXPECT_EQ(map.size(), 2U);
}

TEST_F(DrvInfo, KeepsTheLaterOfTwoRecordsAndEmptiesTheDriver)
{
    int nDriver = 0;
    map["A"].pDriver = &nDriver;
    Load(std::string("A\0\0\0\5\0A\0\1\0\6\0", 12));
    ASSERT_EQ(map.size(), 1U);
    EXPECT_EQ(map["A"].id, 1);
    EXPECT_EQ(map["A"].tagNum, 6);
    EXPECT_EQ(map["A"].pDriver, nullptr);
}

TEST_F(DrvInfo, ThatIsMissingOrEmptyLeavesTheMapAsItWas)
{
    map["A"].id = 7;
    EXPECT_TRUE(LoadPrjDrvInfo(CString(dir + "/nowhere/"), map));
    EXPECT_TRUE(Load());
    Load("");
    EXPECT_EQ(map.size(), 1U);
    EXPECT_EQ(map["A"].id, 7);
}

TEST_F(DrvInfo, LargerThanAnyDirectoryIsNotRead)
{
    Load(std::string("A\0\0\0\5\0", 6));
    map.clear();
    fs::resize_file(Path(), static_cast<uintmax_t>(MAX_DRVINFO_SIZE) + 1);
    EXPECT_FALSE(Load());
    EXPECT_TRUE(map.empty());
}

TEST_F(DrvInfo, ThatIsNoFileOfOursIsNotBelieved)
{
    const std::string strElsewhere = dir + "/elsewhere";
    const auto plant = [&](auto fnPlant) {
        fs::remove_all(Path());
        fnPlant();
        EXPECT_FALSE(Load());
        EXPECT_TRUE(map.empty());
    };
    std::ofstream(strElsewhere) << std::string("A\0\0\0\5\0", 6);
    plant([&] { fs::create_symlink(strElsewhere, Path()); });
    plant([&] { fs::create_symlink(dir + "/missing", Path()); });
    plant([&] { EXPECT_EQ(::mkfifo(Path().c_str(), 0600), 0); });
    plant([&] { fs::create_directory(Path()); });
    plant([&] {
        fs::copy_file(strElsewhere, Path());
        fs::permissions(Path(), fs::perms::owner_all | fs::perms::group_write);
    });
    plant([&] {
        fs::copy_file(strElsewhere, Path());
        EXPECT_EQ(::chmod(Path().c_str(), 0600 | S_ISVTX), 0) << "a part that a transfer has left";
    });
    fs::remove(Path());
    fs::rename(strElsewhere, Path());
    EXPECT_TRUE(Load());
    EXPECT_EQ(map.size(), 1U);
}

TEST_F(DrvInfo, HasABoundOfItsEntries)
{
    std::string strBytes;
    for (int i = 0; i < 70000; ++i)
        strBytes += std::to_string(i) + std::string("\0\1\0\1\0", 5);
    Load(strBytes + std::string("7\0\2\0\1\0", 6));
    EXPECT_EQ(map.size(), MAX_DRVINFO_ENTRIES);
    EXPECT_EQ(map.count("65535"), 1U);
    EXPECT_EQ(map.count("65536"), 0U);
    EXPECT_EQ(map["7"].id, 2) << "a name that is there is still brought up to date";
}

} // namespace
