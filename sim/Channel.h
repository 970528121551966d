// One TCP connection: bytes that come in, and a bounded queue of bytes that go out.
//
// All channels run in the one thread of the server's io_context. A channel keeps itself alive while an
// operation of it is under way; it calls its user until Detach.
#pragma once

#include "ByteSink.h"
#include "Project.h"

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <deque>
#include <limits>
#include <memory>

class CChannel : public std::enable_shared_from_this<CChannel>
{
public:
    /// Called from the io_context only, never from within a call of the channel.
    class IUser
    {
    public:
        virtual ~IUser() = default;
        virtual void OnBytes(std::span<const BYTE> bytes) = 0;
        /// All that was sent has been handed to the system.
        virtual void OnDrained() = 0;
        /// The connection has ended, once, from whichever side.
        virtual void OnClosed(const std::string& strWhy) = 0;
    };

    static constexpr size_t WHOLE = std::numeric_limits<size_t>::max();

    /// def must outlive the channel.
    CChannel(asio::ip::tcp::socket socket, const SServerDef& def);

    void Start(IUser& user);
    /// The user is not called any more.
    void Detach() noexcept { m_pUser = nullptr; }

    /// Queues bytes. The first nWhole of them stay in one piece where the project asks for small pieces. A
    /// queue beyond its limit ends the connection: its peer does not read.
    void Send(std::span<const BYTE> bytes, size_t nWhole = WHOLE);
    /// Lets queued bytes wait until that long from now.
    void Hold(std::chrono::milliseconds time);
    bool IsDrained() const noexcept { return Queued() == 0; }
    bool IsClosed() const noexcept { return m_bClosed; }
    /// It was ended because its peer does not read.
    bool HasOverflowed() const noexcept { return m_bOverflowed; }
    void PauseReading() noexcept { m_bPaused = true; }
    void ResumeReading();
    void Close(std::string strWhy);

    asio::ip::tcp::socket& Socket() noexcept { return m_socket; }

private:
    static constexpr size_t READ_SIZE = 4096;
    static constexpr size_t KEPT_CAPACITY = 64 << 10;

    size_t Queued() const noexcept { return m_out.size() + m_writing.size() - m_nWritten; }
    void MarkCuts(size_t nSize, size_t nWhole);
    void Read();
    void Flush();
    void OnWritten(size_t nLen);

    asio::ip::tcp::socket m_socket;
    asio::steady_timer m_timer;
    const SServerDef& m_def;
    IUser* m_pUser = nullptr;
    Bytes m_in;
    Bytes m_out;                 // queued behind m_writing
    Bytes m_writing;             // being written
    size_t m_nWritten = 0;       // of m_writing
    uint64_t m_nAccepted = 0;    // bytes ever queued
    uint64_t m_nSent = 0;        // bytes ever written
    uint64_t m_nPieceStart = 0;  // of the piece that is being filled
    std::deque<uint64_t> m_cuts; // ends of pieces, counted as m_nSent
    std::chrono::steady_clock::time_point m_heldUntil;
    bool m_bHeld = false;
    bool m_bReading = false;
    bool m_bPaused = false;
    bool m_bWriteUnderWay = false;
    bool m_bClosed = false;
    bool m_bOverflowed = false;
};
