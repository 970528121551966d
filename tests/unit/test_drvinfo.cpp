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
