// Text from outside: conversions there and back, and tokens.
#include "cstring.h"
#include "fuzz.h"

#include <memory>
#include <vector>

namespace {

/// What can be converted comes back as it was, the dash and the middle dot in their usual form, and what
/// follows it cuts the result.
void CheckUtf8(const std::string& strRaw)
{
    CString strGb;
    strGb.FromUtf8(strRaw.data(), strRaw.size());
    CString strUtf8;
    strGb.ToUtf8(strUtf8);
    CString strInput(strRaw);
    strInput.Replace("\xE2\x80\x95", "\xE2\x80\x94");
    strInput.Replace("\xE3\x83\xBB", "\xC2\xB7");
    FUZZ_CHECK(strInput.compare(0, strUtf8.size(), strUtf8) == 0);
    FUZZ_CHECK(strUtf8.empty() == strGb.empty() && strUtf8.size() >= strGb.size());
}

void CheckGb(const CString& strInput)
{
    CString strUtf8;
    strInput.ToUtf8(strUtf8);
    CString strBack;
    strBack.FromUtf8(strUtf8.data(), strUtf8.size());
    FUZZ_CHECK(strInput.compare(0, strBack.size(), strBack) == 0);

    size_t nUnits = 0;
    const std::unique_ptr<WORD[]> units(strInput.ToUtf16(nUnits));
    const CString strText(strInput.c_str()); // the conversion ends at a NUL
    if (units) {
        FUZZ_CHECK(CString(units.get(), nUnits) == strText);
    } else {
        FUZZ_CHECK(nUnits == 0);
        FUZZ_CHECK(CT2UTF8(CUTF82T(CT2UTF8(strText))) == CT2UTF8(strText));
    }
}

std::vector<std::string> SplitAgain(const std::string& strText, const std::string& strSet)
{
    std::vector<std::string> tokens(1);
    for (const char ch : strText) {
        if (strSet.find(ch) != std::string::npos)
            tokens.emplace_back();
        else
            tokens.back() += ch;
    }
    std::erase(tokens, "");
    return tokens;
}

void CheckTokens(const CString& strText, const char* szSet)
{
    std::vector<std::string> tokens;
    int iStart = 0;
    for (CString strToken = strText.Tokenize(szSet, iStart); iStart != -1;
         strToken = strText.Tokenize(szSet, iStart))
        tokens.push_back(strToken);
    FUZZ_CHECK(tokens == SplitAgain(strText, szSet));
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    const std::string strInput(reinterpret_cast<const char*>(pData), nSize);
    CheckUtf8(strInput);
    CheckGb(CString(strInput));
    // Names come as C strings: nothing stands behind a NUL.
    for (const char* szSet : {",", ", \t\r\n"})
        CheckTokens(CString(strInput.c_str()), szSet);
    return 0;
}
