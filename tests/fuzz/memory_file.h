// A file that is nowhere on a disk, for the readers that take a path.
#pragma once

#include "fuzz.h"

#include <string>
#include <sys/mman.h>
#include <unistd.h>

class CMemoryFile
{
public:
    explicit CMemoryFile(std::span<const BYTE> content) : m_fd(::memfd_create("fuzz", MFD_CLOEXEC))
    {
        FUZZ_CHECK(m_fd != -1);
        FUZZ_CHECK(::write(m_fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    }
    ~CMemoryFile() { ::close(m_fd); }
    CMemoryFile(const CMemoryFile&) = delete;
    CMemoryFile& operator=(const CMemoryFile&) = delete;

    /// Opened anew, it is read from its start.
    std::string Path() const { return "/proc/self/fd/" + std::to_string(m_fd); }

private:
    int m_fd;
};
