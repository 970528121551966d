// The driver directory of a mirror: every whole record is taken, the last of a name counts, and what is no
// record ends the reading.
#include "DrvInfo.h"
#include "fuzz.h"

#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace {

struct SDriver : SNDrvInfo
{
    const void* pDriver = this; // must be emptied by the reader
};

/// The folder of one process, gone at its end.
struct SFolder
{
    SFolder()
    {
        const auto base =
            std::filesystem::exists("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
        path = base / ("rkdb_fuzz_directory_" + std::to_string(::getpid()));
        std::filesystem::create_directories(path / "RecData");
        std::filesystem::permissions(path / "RecData", std::filesystem::perms::owner_all);
    }
    ~SFolder()
    {
        std::error_code error;
        std::filesystem::remove_all(path, error);
    }
    SFolder(const SFolder&) = delete;
    SFolder& operator=(const SFolder&) = delete;
    std::filesystem::path path;
};

std::map<std::string, std::pair<unsigned, unsigned>> ReadAgain(const std::string& strContent)
{
    std::map<std::string, std::pair<unsigned, unsigned>> drivers;
    const auto wordAt = [&](size_t n) {
        return static_cast<BYTE>(strContent[n]) | static_cast<unsigned>(static_cast<BYTE>(strContent[n + 1]))
                                                      << 8;
    };
    for (size_t nPos = 0;;) {
        const size_t nNul = strContent.find('\0', nPos);
        if (nNul == std::string::npos || nNul + 4 >= strContent.size())
            return drivers;
        const std::string strName = strContent.substr(nPos, nNul - nPos);
        if (drivers.size() < MAX_DRVINFO_ENTRIES || drivers.contains(strName))
            drivers[strName] = {wordAt(nNul + 1), wordAt(nNul + 3)};
        nPos = nNul + 5;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    static const SFolder folder;
    const std::string strContent(reinterpret_cast<const char*>(pData), nSize);
    std::ofstream(folder.path / "RecData" / "drvinfo.dat", std::ios::binary) << strContent;
    std::map<CString, SDriver> drivers;
    FUZZ_CHECK(LoadPrjDrvInfo(CString(folder.path.string() + "/"), drivers));
    std::map<std::string, std::pair<unsigned, unsigned>> found;
    for (const auto& [strName, info] : drivers) {
        found[strName] = {info.id, info.tagNum};
        FUZZ_CHECK(!info.pDriver);
    }
    FUZZ_CHECK(found == ReadAgain(strContent));
    return 0;
}
