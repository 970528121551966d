// The server's side of a file download: what is answered, and the pace of a body whose windows are
// acknowledged. Bytes in, bytes out; no socket.
//
//   reply header   lines "name:value" CR LF, then CR LF. Numbers are upper-case hexadecimal.
//                    Exist:No     there is no such file; nothing follows
//                    UseLast:Yes  the client's copy is current; nothing follows
//                    GZ:Yes       the body is the compressed form
//                    Append:Yes   the body continues the client's copy
//                    Hello:Yes    the client acknowledges each window
//                    FileName, FileTime, Size (of the body)
//   acknowledgement  '4', "Hello", bytes of the window in hexadecimal, NUL
//
// The first window is 131072 bytes with the header in it; each next one is 10240 smaller, down to 8192. The
// last window is not acknowledged, also not when the body ends exactly with it.
#pragma once

#include "Files.h"
#include "Requests.h"

/// What a header may say.
struct SFileHeader
{
    bool bUseLast = false;
    bool bExist = true;
    bool bGZ = false;
    bool bAppend = false;
    bool bHello = false;
    DWORD tTime = 0;
    size_t nSize = 0;
    std::string strName;
};

Bytes EncodeFileHeader(const SFileHeader& header);

class CTransfer
{
public:
    static constexpr size_t FIRST_WINDOW = 131072;
    static constexpr size_t WINDOW_STEP = 10240;
    static constexpr size_t LAST_WINDOW = 8192;
    static constexpr size_t MAX_ACK = 32;

    /// pFile may be null: there is no such file. It must outlive the transfer.
    CTransfer(const SDownloadRequest& request, const SServedFile* pFile);

    const SFileHeader& Header() const noexcept { return m_header; }
    /// The next bytes to send, at most nMax; empty when an acknowledgement is awaited or all has been sent.
    Bytes Next(size_t nMax);
    bool IsDone() const noexcept { return m_head.empty() && m_body.empty() && !m_bAwaitsAck; }
    bool AwaitsAck() const noexcept { return m_bAwaitsAck; }

    /// An acknowledgement at the start of bytes: its length. Bad: it is none, or not of this window.
    SFrame TakeAck(std::span<const BYTE> bytes);

private:
    void Describe(const SDownloadRequest& request, const SServedFile& file);

    SFileHeader m_header;
    Bytes m_head;                 // what is left of the header
    std::span<const BYTE> m_body; // what is left of the body
    size_t m_nWindow = FIRST_WINDOW;
    size_t m_nInWindow = 0; // sent of the current window
    bool m_bAwaitsAck = false;
};
