// See XFile.h.
#include "XFile.h"

#include "cstring.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t NEW_FILE_MODE = 0600;

} // namespace

bool XFile::OpenA(LPCSTR path, int flags, bool)
{
    return OpenAt(AT_FDCWD, path, flags);
}

bool XFile::OpenAt(int hDir, LPCSTR name, int flags)
{
    if (IsOpen())
        return true;
    do
        m_fh = ::openat(hDir, name, flags | O_CLOEXEC, flags & O_CREAT ? NEW_FILE_MODE : 0);
    while (m_fh == -1 && errno == EINTR);
    return m_fh != -1;
}

bool XFile::OpenT(LPCSTR path, int flags, bool bUnused)
{
    CString strUtf8;
    ToUtf8(path, strUtf8, 0);
    return OpenA(strUtf8.c_str(), flags, bUnused);
}

void XFile::Close() noexcept
{
    if (!IsOpen())
        return;
    ::close(m_fh);
    m_fh = -1;
}

int XFile::Read(void* buf, UINT len)
{
    ssize_t nRead = 0;
    do
        nRead = ::read(m_fh, buf, len);
    while (nRead < 0 && errno == EINTR);
    return static_cast<int>(nRead);
}

int XFile::Write(const void* buf, UINT len)
{
    ssize_t nWritten = 0;
    do
        nWritten = ::write(m_fh, buf, len);
    while (nWritten < 0 && errno == EINTR);
    return static_cast<int>(nWritten);
}

bool XFile::WriteAll(const void* buf, size_t len)
{
    const auto* pFrom = static_cast<const BYTE*>(buf);
    while (len > 0) {
        const int nWritten = Write(pFrom, static_cast<UINT>(std::min<size_t>(len, 1 << 20)));
        if (nWritten < 1)
            return false;
        pFrom += nWritten;
        len -= static_cast<size_t>(nWritten);
    }
    return true;
}

int64_t XFile::GetFileSize64() const
{
    struct stat st = {};
    ::fstat(m_fh, &st);
    return st.st_size;
}

void XFile::SetFileSize64(int64_t nSize)
{
    static_cast<void>(!::ftruncate(m_fh, nSize));
}

bool XFile::Seek64(int64_t offset, int whence)
{
    return ::lseek(m_fh, offset, whence) != -1;
}

UINT XFile::GetCurPos() const
{
    return static_cast<UINT>(::lseek(m_fh, 0, SEEK_CUR));
}

void XFile::Flush()
{
    ::fsync(m_fh);
}
