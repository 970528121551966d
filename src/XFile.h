// A file handle: opens, reads, writes and closes, nothing more. Owns its descriptor. A call that a signal
// interrupts is resumed. One thread at a time.
#pragma once

#include "wintypes.h"

#include <cstddef>
#include <utility>

class XFile
{
public:
    XFile() = default;
    ~XFile() { Close(); }
    XFile(XFile&& other) noexcept : m_fh(std::exchange(other.m_fh, -1)) {}
    XFile& operator=(XFile&& other) noexcept
    {
        std::swap(m_fh, other.m_fh);
        return *this;
    }

    /// Opens with the system's flags, close-on-exec; new files get mode 0600. An object that is open already
    /// stays with its file and says true. The last argument has no effect.
    bool OpenA(LPCSTR path, int flags, bool bUnused);
    /// The same for a name in an open folder.
    bool OpenAt(int hDir, LPCSTR name, int flags);
    /// The same for a path in GB2312.
    bool OpenT(LPCSTR path, int flags, bool bUnused);
    bool Open(LPCTSTR path, int flags, bool bUnused) { return OpenT(path, flags, bUnused); }
    bool IsOpen() const noexcept { return m_fh >= 0; }
    void Close() noexcept;

    /// Bytes read, 0 at the end, -1 on error.
    int Read(void* buf, UINT len);
    int Write(const void* buf, UINT len);
    /// False when not all could be written, as on a full disk.
    bool WriteAll(const void* buf, size_t len);
    UINT GetFileSize() const { return static_cast<UINT>(GetFileSize64()); }
    int64_t GetFileSize64() const;
    void SetFileSize(UINT nSize) { SetFileSize64(nSize); }
    void SetFileSize64(int64_t nSize);
    bool Seek(int offset, int whence) { return Seek64(offset, whence); }
    bool Seek64(int64_t offset, int whence);
    UINT GetCurPos() const;
    void Flush();
    /// The descriptor, -1 for none; it stays this object's.
    int Handle() const noexcept { return m_fh; }

private:
    int m_fh = -1;
};
