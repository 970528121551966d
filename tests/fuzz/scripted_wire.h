// A server without a socket: what the code under test receives and sends is played here instead of by the
// kernel (the targets are linked with --wrap for these calls). So every input gives the same pieces each
// time, no run waits for a time-out, and a fuzzer gets through thousands of dialogues a second. The steady
// clock is played as well: it goes on by what is waited for.
//
// One script plays at a time, on one thread; it plays every descriptor that is connected while it lives.
#pragma once

#include "fuzz.h"

#include <chrono>
#include <map>
#include <netinet/in.h>
#include <span>
#include <vector>

/// Takes an input apart from its front. Past the end all is zero or empty.
class CInput
{
public:
    explicit CInput(std::span<const BYTE> bytes) : m_left(bytes) {}

    bool IsEmpty() const { return m_left.empty(); }
    BYTE Byte();
    /// A length of two bytes and as many of its bytes as there are.
    std::span<const BYTE> Segment();
    std::span<const BYTE> Rest() const { return m_left; }

private:
    std::span<const BYTE> m_left;
};

class CScriptedWire
{
public:
    /// What a descriptor without another byte does.
    enum class EEnd
    {
        Silence, // receives end by their time-out
        Closed,  // receives give 0
    };
    struct SChannel
    {
        std::vector<BYTE> incoming; // not received yet
        std::vector<BYTE> sent;
    };

    /// How long a wait takes that ends for nothing, if its call does not say.
    static constexpr std::chrono::nanoseconds LONG_WAIT = std::chrono::minutes(1);

    /// Receives give nPiece bytes at most; 0: as many as are asked for.
    CScriptedWire(size_t nPiece, EEnd eEnd);
    ~CScriptedWire();
    CScriptedWire(const CScriptedWire&) = delete;
    CScriptedWire& operator=(const CScriptedWire&) = delete;

    /// What comes in after the next send that has no reply yet. A send beyond the replies gets none.
    void Reply(std::span<const BYTE> bytes);
    /// Plays a descriptor that nobody connects.
    SChannel& Open(int fd) { return m_channels[fd] = {}; }
    SChannel* Find(int fd);
    /// From now on, what a descriptor without another byte does is to be closed.
    void End() noexcept { m_eEnd = EEnd::Closed; }
    const std::vector<sockaddr_in>& Connected() const { return m_connected; }
    /// What a receive of nLen bytes would give of these.
    size_t Piece(size_t nLen, size_t nHave) const;

    // The calls.

    void Connect(int fd, const sockaddr_in& addr);
    ssize_t Receive(SChannel& channel, void* pBuf, size_t nLen) const;
    ssize_t Send(SChannel& channel, const void* pBuf, size_t nLen);
    bool IsReadable(const SChannel& channel) const;
    std::chrono::steady_clock::time_point Now() const noexcept { return m_now; }
    void Pass(std::chrono::nanoseconds time) noexcept { m_now += time; }

private:
    std::chrono::steady_clock::time_point m_now = std::chrono::steady_clock::now();
    size_t m_nPiece;
    EEnd m_eEnd;
    std::map<int, SChannel> m_channels;
    std::vector<std::vector<BYTE>> m_replies;
    size_t m_nReplied = 0;
    std::vector<sockaddr_in> m_connected;
};

/// The pieces and the end that one byte of an input stands for.
CScriptedWire MakeWire(BYTE nControl);
