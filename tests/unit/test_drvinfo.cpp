// The driver directory file.
#include "DrvInfo.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

struct SEntry : SNDrvInfo
{
    int* pDriver = nullptr;
};

class DrvInfo : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string strTemplate = (fs::temp_directory_path() / "rkdb_drv_XXXXXX").string();
        dir = ::mkdtemp(strTemplate.data());
        fs::create_directory(dir + "/RecData");
    }
    void TearDown() override { fs::remove_all(dir); }

    void Load(const std::string& strBytes)
    {
        std::ofstream(dir + "/RecData/drvinfo.dat", std::ios::binary) << strBytes;
        LoadPrjDrvInfo(CString(dir + "/"), map);
    }

    std::string dir;
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

TEST_F(DrvInfo, ThatCannotBeReadLeavesTheMapAsItWas)
{
    map["A"].id = 7;
    LoadPrjDrvInfo(CString(dir + "/nowhere/"), map);
    Load("");
    EXPECT_EQ(map.size(), 1U);
    EXPECT_EQ(map["A"].id, 7);
}

TEST_F(DrvInfo, LargerThanAnyDirectoryIsNotRead)
{
    Load(std::string("A\0\0\0\5\0", 6));
    map.clear();
    fs::resize_file(dir + "/RecData/drvinfo.dat", static_cast<uintmax_t>(MAX_DRVINFO_SIZE) + 1);
    LoadPrjDrvInfo(CString(dir + "/"), map);
    EXPECT_TRUE(map.empty());
}

} // namespace
