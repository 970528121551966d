// A download from a server that answers anything, in pieces of any size: the result fits what happened.
#include "DownFile.h"
#include "fuzz.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace {

/// The first byte of the input says how large the pieces are; errors come behind the last one.
class CInputSocket : public CSyncSocket
{
public:
    explicit CInputSocket(std::span<const BYTE> input) : m_left(input) {}
    int _Send(const void*, int nLen, int) override { return nLen; }
    int _Recv(void* pBuf, int nLen, int) override
    {
        if (m_left.empty())
            return -1;
        const size_t nPiece = 1 + m_left[0] * size_t{9};
        const size_t nGot = std::min({nPiece, static_cast<size_t>(nLen), m_left.size()});
        std::memcpy(pBuf, m_left.data(), nGot);
        m_left = m_left.subspan(nGot);
        return static_cast<int>(nGot);
    }

private:
    std::span<const BYTE> m_left;
};

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    SCFileInfo fi;
    const int nHeader = GetFileInfoByBuf(reinterpret_cast<const char*>(pData), static_cast<int>(nSize), fi);
    FUZZ_CHECK(nHeader >= 0 && static_cast<size_t>(nHeader) <= nSize);

    static const std::string dir = "/tmp/rkdb_fuzz_" + std::to_string(::getpid()) + "/";
    std::filesystem::create_directories(dir);
    CInputSocket sock({pData, nSize});
    const auto eResult = DownloadFile("f", sock, '4', dir.c_str(), 1, 1, nullptr, nullptr);
    FUZZ_CHECK(nSize > 0 || eResult == EDownload::Failed);
    std::filesystem::remove_all(dir);
    return 0;
}
