// See Channel.h.
#include "Channel.h"

#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>

#include <algorithm>

CChannel::CChannel(asio::ip::tcp::socket socket, const SServerDef& def)
    : m_socket(std::move(socket)), m_timer(m_socket.get_executor()), m_def(def), m_in(READ_SIZE)
{
    asio::error_code ignored; // the peer may be gone already; the first read tells
    m_socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    m_socket.set_option(asio::socket_base::keep_alive(true), ignored);
}

void CChannel::Start(IUser& user)
{
    m_pUser = &user;
    Read();
}

void CChannel::Read()
{
    if (m_bReading || m_bPaused || m_bClosed)
        return;
    m_bReading = true;
    m_socket.async_read_some(
        asio::buffer(m_in), [self = shared_from_this()](const asio::error_code& error, size_t nLen) {
            self->m_bReading = false;
            if (error) {
                self->Close(error == asio::error::eof ? "the client closed it" : error.message());
                return;
            }
            if (self->m_pUser)
                self->m_pUser->OnBytes(std::span<const BYTE>(self->m_in).first(nLen));
            self->Read();
        });
}

void CChannel::ResumeReading()
{
    m_bPaused = false;
    Read();
}

void CChannel::Send(std::span<const BYTE> bytes, size_t nWhole)
{
    if (m_bClosed || bytes.empty())
        return;
    if (Queued() + bytes.size() > m_def.nSendLimit) {
        m_bOverflowed = true;
        Close("the client does not read: " + std::to_string(Queued()) + " bytes wait for it");
        return;
    }
    if (m_def.nPieces > 0)
        MarkCuts(bytes.size(), nWhole);
    m_nAccepted += bytes.size();
    m_out.insert(m_out.end(), bytes.begin(), bytes.end());
    Flush();
}

void CChannel::MarkCuts(size_t nSize, size_t nWhole)
{
    // Notifications are one stream, which is cut without regard to where each begins; a reply is cut by
    // itself.
    if (nWhole > 0 && !IsDrained())
        m_cuts.push_back(m_nAccepted);
    if (nWhole > 0 || IsDrained())
        m_nPieceStart = m_nAccepted;
    uint64_t nCut = m_nPieceStart + std::max(std::min(nWhole, nSize), m_def.nPieces);
    for (; nCut < m_nAccepted + nSize; nCut += m_def.nPieces) {
        m_cuts.push_back(nCut);
        m_nPieceStart = nCut;
    }
}

void CChannel::Hold(std::chrono::milliseconds time)
{
    const auto until = std::chrono::steady_clock::now() + time;
    if (m_bClosed || (m_bHeld && until <= m_heldUntil))
        return;
    m_bHeld = true;
    m_heldUntil = until;
    m_timer.expires_at(until);
    m_timer.async_wait([self = shared_from_this()](const asio::error_code& error) {
        if (error)
            return; // prolonged or closed
        self->m_bHeld = false;
        self->Flush();
    });
}

void CChannel::Flush()
{
    if (m_bWriteUnderWay || m_bHeld || m_bClosed)
        return;
    if (m_writing.empty()) {
        if (m_out.empty())
            return;
        m_writing.swap(m_out);
    }
    size_t nLen = m_writing.size() - m_nWritten;
    if (!m_cuts.empty())
        nLen = std::min(nLen, static_cast<size_t>(m_cuts.front() - m_nSent));
    m_bWriteUnderWay = true;
    asio::async_write(m_socket, asio::buffer(m_writing.data() + m_nWritten, nLen),
                      [self = shared_from_this()](const asio::error_code& error, size_t nDone) {
                          self->m_bWriteUnderWay = false;
                          if (error)
                              self->Close(error.message());
                          else
                              self->OnWritten(nDone);
                      });
}

void CChannel::OnWritten(size_t nLen)
{
    m_nWritten += nLen;
    m_nSent += nLen;
    if (m_nWritten == m_writing.size()) {
        if (m_writing.capacity() > KEPT_CAPACITY)
            Bytes().swap(m_writing);
        m_writing.clear();
        m_nWritten = 0;
    }
    if (!m_cuts.empty() && m_cuts.front() == m_nSent) {
        m_cuts.pop_front();
        Hold(std::chrono::milliseconds(m_def.nPieceGapMs));
    }
    if (!IsDrained())
        Flush();
    else if (m_pUser && !m_bClosed)
        m_pUser->OnDrained();
}

void CChannel::Close(std::string strWhy)
{
    if (m_bClosed)
        return;
    m_bClosed = true;
    asio::error_code ignored; // a connection that is gone already is closed as well
    m_socket.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    m_socket.close(ignored);
    m_timer.cancel();
    asio::post(m_socket.get_executor(), [self = shared_from_this(), strWhy = std::move(strWhy)] {
        if (self->m_pUser)
            self->m_pUser->OnClosed(strWhy);
    });
}
