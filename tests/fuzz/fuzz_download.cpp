// A download from a server that answers anything, in pieces of any size, with or without a local copy: what
// is in the folder afterwards is what the exchange has announced and received, and nothing else is there.
#include "DownFile.h"
#include "fuzz.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

/// The first byte of the input says how large the pieces are; errors come behind the last one.
class CInputSocket : public CSyncSocket
{
public:
    explicit CInputSocket(std::span<const BYTE> input)
        : m_nPiece(1 + (input.empty() ? 0 : input[0] / 2 * size_t{37})), m_left(input.subspan(!input.empty()))
    {
    }
    int _Send(const void* pBuf, int nLen, int) override
    {
        m_sent.emplace_back(static_cast<const char*>(pBuf), static_cast<size_t>(nLen));
        return nLen;
    }
    int _Recv(void* pBuf, int nLen, int) override
    {
        FUZZ_CHECK(nLen > 0);
        if (m_left.empty())
            return -1;
        const size_t nGot = std::min({m_nPiece, static_cast<size_t>(nLen), m_left.size()});
        std::memcpy(pBuf, m_left.data(), nGot);
        m_strGot.append(reinterpret_cast<const char*>(m_left.data()), nGot);
        m_left = m_left.subspan(nGot);
        return static_cast<int>(nGot);
    }

    std::vector<std::string> m_sent;
    std::string m_strGot;

private:
    size_t m_nPiece;
    std::span<const BYTE> m_left;
};

using Files = std::map<std::string, std::string>;

/// The folder of one process, gone at its end.
class CFolder
{
public:
    CFolder()
    {
        const fs::path base = fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
        m_path = base / ("rkdb_fuzz_download_" + std::to_string(::getpid()));
        fs::create_directories(m_path);
        fs::permissions(m_path, fs::perms::owner_all);
    }
    ~CFolder()
    {
        std::error_code error;
        fs::remove_all(m_path, error);
    }
    CFolder(const CFolder&) = delete;
    CFolder& operator=(const CFolder&) = delete;

    std::string Path() const { return m_path.string() + "/"; }
    void Put(const Files& files) const
    {
        for (const auto& entry : fs::directory_iterator(m_path))
            fs::remove(entry);
        for (const auto& [strName, strContent] : files)
            std::ofstream(m_path / strName, std::ios::binary) << strContent;
    }
    Files Get() const
    {
        Files files;
        for (const auto& entry : fs::directory_iterator(m_path)) {
            std::ifstream file(entry.path(), std::ios::binary);
            files[entry.path().filename()] = std::string(std::istreambuf_iterator<char>(file), {});
        }
        return files;
    }

private:
    fs::path m_path;
};

/// A second reading of the header: the lines up to the first without a name, or with one that is too long.
struct SHeader
{
    explicit SHeader(const std::string& strText)
    {
        for (size_t nLine = 0;;) {
            const size_t nEnd = strText.find('\n', nLine);
            std::string strName;
            std::string strValue;
            bool bValue = false;
            for (nLength = nLine; nLength < std::min(nEnd, strText.size()); ++nLength) {
                const char ch = strText[nLength];
                if (ch == ':')
                    bValue = true;
                else if (ch != '\t' && ch != '\r' && ch != ' ')
                    (bValue ? strValue : strName) += ch;
                if (strName.size() > 63 || strValue.size() > 255) {
                    ++nLength;
                    return;
                }
            }
            if (nEnd == std::string::npos)
                return;
            nLine = ++nLength;
            if (strName.empty()) {
                bWhole = true;
                return;
            }
            Take(strName.c_str(), strValue.c_str());
        }
    }

    void Take(const std::string& strName, const std::string& strValue)
    {
        std::string strLower = strName;
        for (char& ch : strLower)
            ch = ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
        values[strLower] = strValue;
    }
    bool Says(const std::string& strName, bool bDefault) const
    {
        const auto it = values.find(strName);
        return it == values.end() ? bDefault : ::strncasecmp(it->second.c_str(), "yes", 3) == 0;
    }
    /// The largest number stands for what is none or does not fit.
    uint64_t Number(const std::string& strName) const
    {
        const auto it = values.find(strName);
        if (it == values.end())
            return 0;
        size_t nFrom = it->second.starts_with("0x") || it->second.starts_with("0X") ? 2 : 0;
        size_t nEnd =
            std::min(it->second.find_first_not_of("0123456789abcdefABCDEF", nFrom), it->second.size());
        const std::string strDigits = it->second.substr(nFrom, nEnd - nFrom);
        const size_t nDigits =
            strDigits.size() - std::min(strDigits.find_first_not_of('0'), strDigits.size());
        const bool bNumber = !strDigits.empty() && nDigits <= 16;
        return bNumber ? std::strtoull(strDigits.c_str(), nullptr, 16) : ~uint64_t{0};
    }
    bool SaysSomething() const
    {
        const auto is = [this](const char* szName) { return values.contains(szName); };
        return is("size") || is("uselast") || is("exist") || is("gz") || is("filetime") || is("filename") ||
               is("append") || is("hello");
    }

    size_t nLength = 0;
    bool bWhole = false; // its last line has come: no more of it is under way
    std::map<std::string, std::string> values;
};

void CheckHeader(const std::string& strText, const SHeader& header)
{
    SCFileInfo fi;
    const int nHeader = GetFileInfoByBuf(strText.data(), static_cast<int>(strText.size()), fi);
    FUZZ_CHECK(static_cast<size_t>(nHeader) == header.nLength);
    FUZZ_CHECK(fi.bUseLast == header.Says("uselast", false) && fi.bExist == header.Says("exist", true));
    FUZZ_CHECK(fi.bGZ == header.Says("gz", false) && fi.bAppend == header.Says("append", false));
    FUZZ_CHECK(fi.bHello == header.Says("hello", false));
    FUZZ_CHECK(fi.dwSize == header.Number("size"));
    const uint64_t nTime = header.Number("filetime");
    FUZZ_CHECK(fi.tt == (nTime >> 63 ? 0 : static_cast<time_t>(nTime)));
    const auto name = header.values.find("filename");
    FUZZ_CHECK(fi.strName == (name == header.values.end() ? std::string() : name->second));
}

/// What the exchange must come to.
struct SWanted
{
    SWanted(Files before, const CInputSocket& sock, const SHeader& header) : files(std::move(before))
    {
        const std::string& strGot = sock.m_strGot;
        if (!header.bWhole || !header.SaysSomething() || header.nLength > 2048)
            return;
        const bool bBody = header.Says("exist", true) && !header.Says("uselast", false);
        if (bBody && !header.values.contains("size"))
            return;
        const std::string strBody = strGot.substr(header.nLength);
        if (bBody)
            Fetch(strBody, header);
        if (bBody || !strBody.empty())
            return;
        const bool bKept = header.Says("exist", true);
        eResult = !bKept || files.contains("f") ? EDownload::Complete
                  : files.contains("f.gz")      ? EDownload::Compressed
                                                : EDownload::NotStored;
        if (!bKept)
            files.erase("f");
    }

    void Fetch(const std::string& strBody, const SHeader& header)
    {
        const uint64_t nSize = header.Number("size");
        const std::string strName = header.Says("gz", false) ? "f.gz" : "f";
        const bool bAppend = header.Says("append", false) && files.contains(strName);
        const std::string strOld = bAppend ? files[strName] : "";
        if (strBody.size() > nSize || nSize > MAX_DOWNLOAD_SIZE - strOld.size())
            return;
        files[strName] = strOld + strBody;
        if (strBody.size() == nSize)
            eResult = header.Says("gz", false) ? EDownload::Compressed : EDownload::Complete;
    }

    Files files;
    EDownload eResult = EDownload::Failed;
};

/// Acknowledgements are for a server that awaits them, each for less than a window and all for no more than
/// came.
void CheckSent(const CInputSocket& sock, const SHeader& header)
{
    FUZZ_CHECK(!sock.m_sent.empty() && sock.m_sent[0].ends_with("\r\nHello:Yes\r\n\r\n"));
    FUZZ_CHECK(header.Says("hello", false) || sock.m_sent.size() == 1);
    size_t nTotal = 0;
    for (size_t i = 1; i < sock.m_sent.size(); ++i) {
        FUZZ_CHECK(sock.m_sent[i].starts_with("4Hello") && sock.m_sent[i].ends_with('\0'));
        const size_t nWindow = std::strtoul(sock.m_sent[i].c_str() + 6, nullptr, 16);
        FUZZ_CHECK(nWindow >= 8192 && nWindow <= 131072);
        nTotal += nWindow;
    }
    FUZZ_CHECK(nTotal <= sock.m_strGot.size());
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    static const CFolder folder;
    const Files before = nSize > 0 && pData[0] & 1 ? Files{{"f", "old"}, {"f.gz", "packed"}} : Files{};
    folder.Put(before);
    CInputSocket sock({pData, nSize});
    const bool bRelay = nSize > 1 && nSize % 2; // smaller windows, and a prefix of the name
    const auto eResult =
        DownloadFile("f", sock, '4', folder.Path().c_str(), 1, 1, nullptr, bRelay ? "centre" : nullptr);

    const SHeader header(sock.m_strGot);
    CheckHeader(sock.m_strGot, header);
    const SWanted wanted(before, sock, header);
    FUZZ_CHECK(eResult == wanted.eResult);
    FUZZ_CHECK(folder.Get() == wanted.files);
    CheckSent(sock, header);
    return 0;
}
