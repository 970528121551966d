// Texts and files of a mirror: conversions there and back, tokens, the driver directory.
#include "DrvInfo.h"
#include "cstring.h"
#include "fuzz.h"

#include <memory>

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    const std::string strInput(reinterpret_cast<const char*>(pData), nSize);
    CString strGb;
    strGb.FromUtf8(strInput.data(), strInput.size());
    CString strUtf8;
    strGb.ToUtf8(strUtf8);
    FUZZ_CHECK(strInput.compare(0, strUtf8.size(), strUtf8) == 0); // what could be converted comes back
    CString strAny(strInput);
    CString strOther;
    strAny.ToUtf8(strOther);
    size_t nUnits = 0;
    const std::unique_ptr<WORD[]> units(ToUtf16(strAny.c_str(), nUnits, 0));
    FUZZ_CHECK(nUnits <= std::char_traits<char>::length(strAny.c_str()));

    size_t nTokens = 0;
    int iStart = 0;
    for (CString strToken = strAny.Tokenize(",", iStart); iStart != -1;
         strToken = strAny.Tokenize(",", iStart)) {
        FUZZ_CHECK(!strToken.empty() || strAny.find('\0') != std::string::npos);
        if (strToken.empty() || ++nTokens > nSize)
            break;
    }
    FUZZ_CHECK(nTokens <= nSize);

    CWireReader reader({pData, nSize});
    size_t nRead = 0;
    while (const auto record = ReadDrvInfo(reader))
        nRead += record->first.size() + 5;
    FUZZ_CHECK(nRead <= nSize);
    return 0;
}
