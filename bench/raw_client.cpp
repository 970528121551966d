// The limit of the benchmark: a client that moves the same bytes over the same kind of connection and does
// nothing with them. What the module needs beyond this is its own.
//
//   bench_raw_client PORT REQUEST REPLY     the files hold one request and its reply
//
// Each order on standard input is answered with the nanoseconds it took:
//
//   ask N              N times the request, each awaiting its reply
//   take N M           receives N bytes, at most M at a time; counted from the first receive on that gave
//   some
#include "loopback.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

void Ask(const CSocket& sock, const Bytes& request, const Bytes& reply, unsigned nTimes)
{
    Bytes got(reply.size());
    for (; nTimes > 0; --nTimes) {
        sock.SendAll(request);
        if (!sock.ReceiveAll(got.data(), got.size()) || got != reply)
            throw std::runtime_error("another reply came");
    }
}

/// Returns when the first bytes were there.
Clock::time_point Take(const CSocket& sock, size_t nBytes, size_t nMost)
{
    Bytes buffer(nMost);
    size_t nDone = sock.Receive(buffer.data(), std::min(nMost, nBytes));
    const auto begin = Clock::now();
    while (nDone < nBytes) {
        const size_t nGot = sock.Receive(buffer.data(), std::min(nMost, nBytes - nDone));
        if (nGot == 0)
            throw std::runtime_error("the stream ends early");
        nDone += nGot;
    }
    return begin;
}

} // namespace

int main(int argc, char** argv)
try {
    if (argc != 4)
        throw std::runtime_error("arguments: PORT REQUEST REPLY");
    const CSocket sock(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in addr = Loopback(static_cast<uint16_t>(std::stoul(argv[1])));
    Check(::connect(sock.Get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr), "connect");
    sock.SendAtOnce();
    const Bytes request = ReadFile(argv[2]);
    const Bytes reply = ReadFile(argv[3]);
    for (std::string strOrder; std::cin >> strOrder;) {
        size_t nCount = 0;
        std::cin >> nCount;
        auto begin = Clock::now();
        if (strOrder == "ask") {
            Ask(sock, request, reply, static_cast<unsigned>(nCount));
        } else if (strOrder == "take") {
            size_t nMost = 0;
            std::cin >> nMost;
            begin = Take(sock, nCount, nMost);
        } else {
            throw std::runtime_error("unknown order " + strOrder);
        }
        const auto took = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin);
        std::printf("%lld\n", static_cast<long long>(took.count()));
        std::fflush(stdout);
    }
    return EXIT_SUCCESS;
} catch (const std::exception& error) {
    std::fprintf(stderr, "bench_raw_client: %s\n", error.what());
    return EXIT_FAILURE;
}
