// The list files of a project: entries are the lines, whatever the file holds, and each is UTF-8.
#include "DBCore.h"
#include "memory_file.h"

#include <sstream>

namespace {

constexpr size_t MAX_LINE = 255;
constexpr size_t MAX_ENTRIES = 65536;

/// A second reading of the file, line by line.
CStringList ReadAgain(const std::string& strContent)
{
    CStringList list;
    std::istringstream lines(strContent);
    for (std::string strLine; std::getline(lines, strLine);) {
        strLine.resize(std::min(strLine.size(), MAX_LINE));
        if (strLine.ends_with('\r'))
            strLine.pop_back();
        strLine.resize(std::char_traits<char>::length(strLine.c_str()));
        if (!strLine.empty() && list.size() < MAX_ENTRIES)
            list.push_back(CT2UTF8(strLine));
    }
    return list;
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    const CMemoryFile file({pData, nSize});
    CStringList list;
    XFile opened;
    FUZZ_CHECK(opened.OpenA(file.Path().c_str(), 0, false));
    ReadStringList(opened, list);
    FUZZ_CHECK(list == ReadAgain({reinterpret_cast<const char*>(pData), nSize}));
    for (const CString& strEntry : list) {
        CString strBack;
        strBack.FromUtf8(strEntry.c_str(), strEntry.size());
        FUZZ_CHECK(strBack.find_first_of(std::string("\n\0", 2)) == std::string::npos);
        FUZZ_CHECK(strBack.size() <= MAX_LINE);
    }
    // A path of the system leads through a link, which nobody believes.
    CStringList none;
    InitStringList(CString(file.Path()), none);
    FUZZ_CHECK(none.empty());
    return 0;
}
