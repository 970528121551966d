// The server of the benchmark: as little work as possible between a request and its reply, so that what is
// measured is the client. Every byte it sends was prepared before.
//
//   bench_peer STEPS...     one file of steps for each connection, in the order in which they are made
//
// Says its port on standard output. A step begins with a byte; numbers are 32 bits, little-endian:
//
//   'x'  n, n bytes                     these must come in
//   'n'  n                              so many must come in
//   's'  n, n bytes                     sends
//   'l'  n, n bytes, m, m bytes         answers each of these requests with this reply until the client ends
//   'o'  n, n bytes                     sends as often as each line of standard input says, until it ends
//
// Anything else that comes in ends the program with 1.
#include "loopback.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <span>
#include <thread>

namespace {

class CSteps
{
public:
    explicit CSteps(Bytes bytes) : m_bytes(std::move(bytes)), m_left(m_bytes) {}

    bool IsEmpty() const { return m_left.empty(); }
    char Kind() { return Take(1)[0]; }
    uint32_t Number()
    {
        uint32_t n = 0;
        std::memcpy(&n, Take(sizeof n).data(), sizeof n);
        return n;
    }
    Bytes Data()
    {
        const auto part = Take(Number());
        return {part.begin(), part.end()};
    }

private:
    std::span<const char> Take(size_t nLen)
    {
        if (nLen > m_left.size())
            throw std::runtime_error("a step is cut");
        const auto part = m_left.first(nLen);
        m_left = m_left.subspan(nLen);
        return part;
    }

    Bytes m_bytes;
    std::span<const char> m_left;
};

/// False when the client ends the connection instead.
bool Want(const CSocket& sock, const Bytes& wanted, Bytes& buffer)
{
    buffer.resize(wanted.size());
    if (!sock.ReceiveAll(buffer.data(), buffer.size()))
        return false;
    if (buffer != wanted)
        throw std::runtime_error("the client sent something else");
    return true;
}

void Require(bool bGone)
{
    if (!bGone)
        throw std::runtime_error("the client ended the connection early");
}

void Play(const CSocket& sock, CSteps steps)
{
    Bytes buffer;
    while (!steps.IsEmpty()) {
        switch (steps.Kind()) {
        case 'x':
            Require(Want(sock, steps.Data(), buffer));
            break;
        case 'n':
            buffer.resize(steps.Number());
            Require(sock.ReceiveAll(buffer.data(), buffer.size()));
            break;
        case 's':
            sock.SendAll(steps.Data());
            break;
        case 'l': {
            const Bytes request = steps.Data();
            const Bytes reply = steps.Data();
            while (Want(sock, request, buffer))
                sock.SendAll(reply);
            break;
        }
        case 'o': {
            const Bytes data = steps.Data();
            for (unsigned nTimes = 0; std::cin >> nTimes;) {
                for (; nTimes > 0; --nTimes)
                    sock.SendAll(data);
            }
            break;
        }
        default:
            throw std::runtime_error("unknown step");
        }
    }
}

[[noreturn]] void Fail(const std::exception& error)
{
    std::fprintf(stderr, "bench_peer: %s\n", error.what());
    std::_Exit(EXIT_FAILURE); // the other connections' threads wait for a client that goes on
}

} // namespace

int main(int argc, char** argv)
try {
    const CSocket server(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = Loopback(0);
    socklen_t nLen = sizeof addr;
    Check(::bind(server.Get(), reinterpret_cast<const sockaddr*>(&addr), nLen), "bind");
    Check(::listen(server.Get(), argc), "listen");
    Check(::getsockname(server.Get(), reinterpret_cast<sockaddr*>(&addr), &nLen), "getsockname");
    std::printf("%u\n", unsigned{ntohs(addr.sin_port)});
    std::fflush(stdout);

    std::vector<std::jthread> threads;
    for (int i = 1; i < argc; ++i) {
        CSocket sock(::accept4(server.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        sock.SendAtOnce();
        threads.emplace_back([sock = std::move(sock), steps = CSteps(ReadFile(argv[i]))] {
            try {
                Play(sock, steps);
            } catch (const std::exception& error) {
                Fail(error);
            }
        });
    }
    return EXIT_SUCCESS;
} catch (const std::exception& error) {
    Fail(error);
}
