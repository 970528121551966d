// What the two programs of the benchmark share: a descriptor that closes itself, whole sends and receives
// over loopback, whole files. Independent of the code that is measured. Failures throw.
#pragma once

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

using Bytes = std::vector<char>;

inline int Check(int nResult, const char* szWhat)
{
    if (nResult < 0)
        throw std::system_error(errno, std::generic_category(), szWhat);
    return nResult;
}

class CSocket
{
public:
    explicit CSocket(int fd) : m_fd(Check(fd, "socket")) {}
    ~CSocket()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    CSocket(CSocket&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    CSocket& operator=(CSocket&&) = delete;

    int Get() const { return m_fd; }
    /// Requests and replies alternate: none shall wait for more to be sent with it.
    void SendAtOnce() const
    {
        const int nOn = 1;
        Check(::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn), "TCP_NODELAY");
    }

    void SendAll(const Bytes& bytes) const
    {
        for (size_t nDone = 0; nDone < bytes.size();)
            nDone += static_cast<size_t>(Check(
                static_cast<int>(::send(m_fd, bytes.data() + nDone, bytes.size() - nDone, MSG_NOSIGNAL)),
                "send"));
    }

    /// One receive: the bytes that came, 0 at the end of the stream.
    size_t Receive(char* pBuf, size_t nLen) const
    {
        return static_cast<size_t>(Check(static_cast<int>(::recv(m_fd, pBuf, nLen, 0)), "recv"));
    }

    /// False when the stream ends before the first byte; one that ends later throws.
    bool ReceiveAll(char* pBuf, size_t nLen) const
    {
        size_t nDone = 0;
        while (nDone < nLen) {
            const size_t nGot = Receive(pBuf + nDone, nLen - nDone);
            if (nGot == 0 && nDone == 0)
                return false;
            if (nGot == 0)
                throw std::runtime_error("the stream ends inside a message");
            nDone += nGot;
        }
        return true;
    }

private:
    int m_fd;
};

inline sockaddr_in Loopback(uint16_t nPort)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

inline Bytes ReadFile(const char* szPath)
{
    std::ifstream file(szPath, std::ios::binary);
    file.exceptions(std::ios::badbit | std::ios::failbit);
    Bytes bytes(std::filesystem::file_size(szPath));
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}
