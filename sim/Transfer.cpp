// See Transfer.h.
#include "Transfer.h"

#include "NetCmd.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr DWORD TIME_TOLERANCE = 3; // seconds; file systems differ in what they keep

bool IsCopyOf(const SFileCopy& copy, DWORD tTime, size_t nSize)
{
    const DWORD nApart = copy.tTime - tTime + TIME_TOLERANCE; // wraps, so both ways
    return nApart <= 2 * TIME_TOLERANCE && copy.nSize == static_cast<DWORD>(nSize);
}

std::string Hex(uint64_t n)
{
    char text[16];
    const auto end = std::to_chars(std::begin(text), std::end(text), n, 16).ptr;
    std::transform(text, end, text, [](char ch) { return ch >= 'a' ? static_cast<char>(ch - 32) : ch; });
    return {text, end};
}

} // namespace

Bytes EncodeFileHeader(const SFileHeader& header)
{
    CByteSink sink;
    const auto line = [&sink](std::string_view name, std::string_view value) {
        sink.PutChars(name).PutChars(":").PutChars(value).PutChars("\r\n");
    };
    if (!header.bExist) {
        line("Exist", "No");
    } else if (header.bUseLast) {
        line("UseLast", "Yes");
    } else {
        line("FileName", header.strName);
        line("FileTime", Hex(header.tTime));
        line("Size", Hex(header.nSize));
        if (header.bGZ)
            line("GZ", "Yes");
        if (header.bAppend)
            line("Append", "Yes");
        if (header.bHello)
            line("Hello", "Yes");
    }
    sink.PutChars("\r\n");
    return sink.Take();
}

CTransfer::CTransfer(const SDownloadRequest& request, const SServedFile* pFile)
{
    m_header.bExist = pFile && !pFile->bAbsent;
    if (m_header.bExist)
        Describe(request, *pFile);
    m_head = EncodeFileHeader(m_header);
}

void CTransfer::Describe(const SDownloadRequest& request, const SServedFile& file)
{
    const Bytes& body = file.Body();
    const auto& copy = file.bGZ ? request.gz : request.last;
    m_header.tTime = file.tTime;
    m_header.strName = file.strName;
    m_header.bUseLast = file.bUseLast && copy && IsCopyOf(*copy, file.tTime, body.size());
    if (m_header.bUseLast)
        return;
    m_header.bGZ = file.bGZ;
    m_body = body;
    // A client appends to the file that its answer's form is kept in, so only that copy's size counts.
    if (file.bAppend && copy && copy->nSize > 0 && copy->nSize < body.size()) {
        m_header.bAppend = true;
        m_body = m_body.subspan(copy->nSize);
    }
    m_header.nSize = m_body.size();
    m_header.bHello = request.bHello && file.bWindows.value_or(m_body.size() >= FIRST_WINDOW);
}

Bytes CTransfer::Next(size_t nMax)
{
    if (m_bAwaitsAck)
        return {};
    Bytes bytes = std::move(m_head);
    m_head.clear();
    size_t nBody = std::min(m_body.size(), nMax - std::min(nMax, bytes.size()));
    if (m_header.bHello)
        nBody = std::min(nBody, m_nWindow - m_nInWindow - bytes.size());
    bytes.insert(bytes.end(), m_body.begin(), m_body.begin() + static_cast<std::ptrdiff_t>(nBody));
    m_body = m_body.subspan(nBody);
    m_nInWindow += bytes.size();
    m_bAwaitsAck = m_header.bHello && !m_body.empty() && m_nInWindow == m_nWindow;
    return bytes;
}

SFrame CTransfer::TakeAck(std::span<const BYTE> bytes)
{
    const std::string strExpected = static_cast<char>(CMD_DOWNLOAD) + ("Hello" + Hex(m_nWindow)) + '\0';
    const size_t nSame = std::min(bytes.size(), strExpected.size());
    if (!std::equal(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(nSame), strExpected.begin(),
                    [](BYTE b, char ch) { return b == static_cast<BYTE>(ch); }))
        return {EFrame::Bad, 0, "not the acknowledgement of this window"};
    if (nSame < strExpected.size())
        return {};
    m_bAwaitsAck = false;
    m_nInWindow = 0;
    if (m_nWindow > WINDOW_STEP)
        m_nWindow -= WINDOW_STEP;
    m_nWindow = std::max(m_nWindow, LAST_WINDOW);
    return {EFrame::Whole, strExpected.size()};
}
