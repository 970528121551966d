// A server without a socket: what the code under test receives and sends is played here instead of by the
// kernel (the targets are linked with --wrap for these calls). So every input gives the same pieces each
// time, no run waits for a time-out, and a fuzzer gets through thousands of dialogues a second. The steady
// clock is played as well: it goes on by what is waited for. No receive or send waits in the call itself:
// all that the code under test makes must leave the waiting to poll(), and a wait that nothing would end
// ends the process.
//
// One script plays at a time, on one thread; it plays every descriptor that is connected while it lives.
#pragma once

#include "fuzz.h"

#include <chrono>
#include <map>
#include <netinet/in.h>
#include <poll.h>
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
    using Clock = std::chrono::steady_clock;

    /// What a connection does once the last reply has been given.
    enum class EEnd
    {
        Silence, // nothing
        Closed,  // the peer ends it behind what it has sent
    };
    struct SChannel
    {
        std::vector<BYTE> incoming; // not received yet
        std::vector<BYTE> sent;
        std::vector<size_t> received; // the size of each receive
        bool bClosed = false;         // the peer has ended the stream behind the bytes that are incoming
        Clock::duration pause{0};     // between one receive and the bytes of the next
        Clock::time_point next;       // when these are there
    };

    /// Receives give nPiece bytes at most; 0: as many as are asked for.
    CScriptedWire(size_t nPiece, EEnd eEnd);
    ~CScriptedWire();
    CScriptedWire(const CScriptedWire&) = delete;
    CScriptedWire& operator=(const CScriptedWire&) = delete;

    /// What comes in after the next send that has no reply yet, and whether the peer then ends that
    /// connection. A send beyond the replies gets none.
    void Reply(std::span<const BYTE> bytes, bool bClose = false);
    /// Plays a descriptor that nobody connects.
    SChannel& Open(int fd) { return m_channels[fd] = {}; }
    SChannel* Find(int fd);
    /// The peer ends every connection behind the last of the replies.
    void EndBehindReplies() noexcept { m_eEnd = EEnd::Closed; }
    const std::vector<sockaddr_in>& Connected() const { return m_connected; }
    /// What a receive of nLen bytes would give of these.
    size_t Piece(size_t nLen, size_t nHave) const;

    // The calls.

    void Connect(int fd, const sockaddr_in& addr);
    ssize_t Receive(SChannel& channel, void* pBuf, size_t nLen, int nFlags);
    ssize_t Send(SChannel& channel, const void* pBuf, size_t nLen);
    int Poll(std::span<pollfd> entries, int nMs);
    Clock::time_point Now() const noexcept { return m_now; }
    void Pass(std::chrono::nanoseconds time) noexcept { m_now += time; }

private:
    struct SReply
    {
        std::vector<BYTE> bytes;
        bool bClose = false;
    };

    bool HasBytes(const SChannel& channel) const
    {
        return !channel.incoming.empty() && m_now >= channel.next;
    }
    bool HasEnded(const SChannel& channel) const;
    int Ready(std::span<pollfd> entries);

    Clock::time_point m_now = Clock::now();
    size_t m_nPiece;
    EEnd m_eEnd;
    std::map<int, SChannel> m_channels;
    std::vector<SReply> m_replies;
    size_t m_nReplied = 0;
    std::vector<sockaddr_in> m_connected;
};

/// The pieces and the end that one byte of an input stands for.
CScriptedWire MakeWire(BYTE nControl);
