// See Requests.h. Every framing function looks only at bytes that are there and says how many are one
// request; every parsing function may rely on that.
#include "Requests.h"

#include "NetCmd.h"
#include "WireReader.h"

#include <algorithm>
#include <charconv>

namespace {

// No honest client comes near these; they bound what is kept for one that never ends a request. They hold for
// what a request is, not for what has come of it: else it would depend on the network how bytes are read.
constexpr size_t MAX_TEXT_REQUEST = 4096;
constexpr size_t MAX_NAME = 1025; // with its driver id and its NUL
constexpr size_t MAX_LOOKUP = 4096;
constexpr size_t MAX_WRITE = 16384;
constexpr WORD MAX_ADDRESSES = 8192;

constexpr size_t COUNT_END = 3; // command and count
constexpr size_t READ_ITEM = 4;
constexpr size_t ADVISE_ITEM = 5;

SFrame FrameFixed(std::span<const BYTE> bytes, size_t nLen)
{
    return bytes.size() < nLen ? SFrame{} : SFrame{EFrame::Whole, nLen};
}

/// What a request may take of the bytes, and whether its end can still come behind them.
struct SRoom
{
    SRoom(std::span<const BYTE> all, size_t nMax) : bytes(all.first(std::min(all.size(), nMax))), nRoom(nMax)
    {
    }

    SFrame Unended(const char* szWhy) const
    {
        return bytes.size() < nRoom ? SFrame{} : SFrame{EFrame::Bad, 0, szWhy};
    }

    std::span<const BYTE> bytes;
    size_t nRoom;
};

/// A count, then as many items of one size.
SFrame FrameItems(std::span<const BYTE> bytes, size_t nItem)
{
    if (bytes.size() < COUNT_END)
        return {};
    CWireReader reader(bytes.subspan(1));
    const WORD nCount = reader.Get<WORD>();
    if (nCount > MAX_ADDRESSES)
        return {EFrame::Bad, 0, "too many tags in one request"};
    return FrameFixed(bytes, COUNT_END + nCount * nItem);
}

SFrame FrameLogin(std::span<const BYTE> bytes)
{
    const SRoom room(bytes, MAX_TEXT_REQUEST);
    CWireReader reader(room.bytes.subspan(1));
    reader.Text();
    reader.Text();
    if (!reader.IsBad())
        return {EFrame::Whole, room.bytes.size() - reader.Left()};
    return room.Unended("a login without an end");
}

SFrame FrameDownload(std::span<const BYTE> bytes)
{
    constexpr std::string_view END = "\r\n\r\n";
    const SRoom room(bytes, MAX_TEXT_REQUEST);
    const auto end = std::search(room.bytes.begin(), room.bytes.end(), END.begin(), END.end());
    if (end != room.bytes.end())
        return {EFrame::Whole, static_cast<size_t>(end - room.bytes.begin()) + END.size()};
    return room.Unended("a download request without an end");
}

/// The names that are whole, as far as they are names of one look-up.
SFrame FrameLookup(std::span<const BYTE> bytes, bool bContinues, const FnHasDriver& hasDriver)
{
    size_t nWhole = bContinues ? 0 : 1;
    bool bAny = bContinues;
    for (;;) {
        const SRoom name(bytes.subspan(nWhole), MAX_NAME);
        CWireReader reader(name.bytes);
        if (reader.Left() == 0 && nWhole > 1)
            return {EFrame::Whole, nWhole};
        if (reader.Left() == 1 && bAny && nWhole > 1 && IsCommand(reader.Rest()[0]) &&
            !hasDriver(reader.Rest()[0])) // only an id of more than one byte could begin like this
            return {EFrame::Whole, nWhole};
        const WORD nDriver = reader.Get<WORD>();
        if (!reader.IsBad() && bAny && !hasDriver(nDriver))
            return nWhole > 1 ? SFrame{EFrame::Whole, nWhole} : SFrame{EFrame::Bad, 0, "no command"};
        reader.Text();
        if (!reader.IsBad()) {
            nWhole += name.bytes.size() - reader.Left();
            bAny = true;
            continue;
        }
        // The bytes end inside a name, or it has no end: what is whole before it is answered all the same.
        const SFrame unended = name.Unended("a tag name without an end");
        if (nWhole > (unended.eState == EFrame::Bad ? 1 : MAX_LOOKUP))
            return {EFrame::Whole, nWhole};
        return unended;
    }
}

SFrame FrameWrite(std::span<const BYTE> bytes)
{
    if (bytes.size() < COUNT_END)
        return {};
    const SRoom room(bytes, MAX_WRITE);
    CWireReader reader(room.bytes.subspan(1));
    const WORD nCount = reader.Get<WORD>();
    XVariant value;
    for (WORD i = 0; i < nCount; ++i) {
        reader.Skip(READ_ITEM);
        if (reader.IsBad()) // what is left is of the address, and says nothing of a type
            return room.Unended("a write without an end");
        CWireReader type(reader.Rest());
        const WORD nType = type.Get<WORD>();
        if (!type.IsBad() && (nType & VT_ARRAY))
            return {EFrame::Bad, 0, "a written array"};
        const auto nSize = value.FromBytes(reader.Rest(), true);
        if (!nSize)
            return room.Unended("a write without an end");
        reader.Skip(*nSize);
    }
    return {EFrame::Whole, room.bytes.size() - reader.Left()};
}

std::vector<STagRef> ParseItems(std::span<const BYTE> bytes, size_t nItem)
{
    CWireReader reader(bytes.subspan(1));
    std::vector<STagRef> tags(reader.Get<WORD>());
    for (STagRef& tag : tags) {
        tag.nDriver = reader.Get<WORD>();
        tag.nTag = reader.Get<WORD>();
        reader.Skip(nItem - READ_ITEM);
    }
    return tags;
}

SLoginRequest ParseLogin(std::span<const BYTE> bytes)
{
    CWireReader reader(bytes.subspan(1));
    SLoginRequest login;
    login.strUser = reader.Text();
    login.strPassword = reader.Text();
    return login;
}

SLookupRequest ParseLookup(std::span<const BYTE> bytes, bool bContinues)
{
    CWireReader reader(bytes.subspan(bContinues ? 0 : 1));
    SLookupRequest lookup;
    lookup.bContinued = bContinues;
    while (reader.Left() > 0 && !reader.IsBad()) {
        const WORD nDriver = reader.Get<WORD>();
        lookup.names.push_back({nDriver, std::string(reader.Text())});
    }
    return lookup;
}

SWriteRequest ParseWrite(std::span<const BYTE> bytes)
{
    CWireReader reader(bytes.subspan(1));
    SWriteRequest write;
    write.values.resize(reader.Get<WORD>());
    for (auto& [tag, value] : write.values) {
        tag.nDriver = reader.Get<WORD>();
        tag.nTag = reader.Get<WORD>();
        reader.Skip(value.FromBytes(reader.Rest(), true).value_or(0));
    }
    return write;
}

bool SameWord(std::string_view left, std::string_view right)
{
    const auto lower = [](char ch) { return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch + 32) : ch; };
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

DWORD HexNumber(std::string_view text)
{
    DWORD n = 0;
    std::from_chars(text.data(), text.data() + text.size(), n, 16);
    return n;
}

void TakeLine(SDownloadRequest& download, std::string_view line)
{
    const size_t nColon = line.find(':');
    const std::string_view name = line.substr(0, nColon);
    const std::string_view value = nColon == line.npos ? "" : line.substr(nColon + 1);
    const auto copy = [](auto& place) -> SFileCopy& { return place ? *place : place.emplace(); };
    if (SameWord(name, "LastTime"))
        copy(download.last).tTime = HexNumber(value);
    else if (SameWord(name, "Size"))
        copy(download.last).nSize = HexNumber(value);
    else if (SameWord(name, "gzTime"))
        copy(download.gz).tTime = HexNumber(value);
    else if (SameWord(name, "gzSize"))
        copy(download.gz).nSize = HexNumber(value);
    else if (SameWord(name, "Hello"))
        download.bHello = SameWord(value.substr(0, 3), "Yes");
}

SDownloadRequest ParseDownload(std::span<const BYTE> bytes)
{
    std::string_view rest(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    rest.remove_prefix(1);
    SDownloadRequest download;
    size_t nEnd = rest.find("\r\n");
    download.strName = rest.substr(0, nEnd);
    for (;;) {
        rest.remove_prefix(nEnd + 2);
        nEnd = rest.find("\r\n");
        if (nEnd == 0 || nEnd == rest.npos)
            return download;
        TakeLine(download, rest.substr(0, nEnd));
    }
}

} // namespace

bool IsCommand(BYTE bCommand) noexcept
{
    constexpr BYTE COMMANDS[] = {CMD_PRJ_PATH,  CMD_DOWNLOAD, CMD_LOGIN,      CMD_GET_POS, CMD_UNADVISE,
                                 CMD_READ_TAGS, CMD_ADVISE,   CMD_WRITE_TAGS, CMD_RT_ALARM};
    return std::find(std::begin(COMMANDS), std::end(COMMANDS), bCommand) != std::end(COMMANDS);
}

SFrame FrameRequest(std::span<const BYTE> bytes, bool bContinues, const FnHasDriver& hasDriver)
{
    if (bytes.empty())
        return {};
    if (bContinues && !IsCommand(bytes[0]))
        return FrameLookup(bytes, true, hasDriver);
    switch (bytes[0]) {
    case CMD_PRJ_PATH:
    case CMD_RT_ALARM:
        return FrameFixed(bytes, 1);
    case CMD_DOWNLOAD:
        return FrameDownload(bytes);
    case CMD_LOGIN:
        return FrameLogin(bytes);
    case CMD_GET_POS:
        return FrameLookup(bytes, false, hasDriver);
    case CMD_UNADVISE:
        return FrameFixed(bytes, 1 + sizeof(int64_t));
    case CMD_READ_TAGS:
        return FrameItems(bytes, READ_ITEM);
    case CMD_ADVISE:
        return FrameItems(bytes, ADVISE_ITEM);
    case CMD_WRITE_TAGS:
        return FrameWrite(bytes);
    default:
        return {EFrame::Bad, 0, "no command"};
    }
}

Request ParseRequest(std::span<const BYTE> bytes, bool bContinues)
{
    if (bContinues && !IsCommand(bytes[0]))
        return ParseLookup(bytes, true);
    switch (bytes[0]) {
    case CMD_PRJ_PATH:
        return SPathsRequest{};
    case CMD_DOWNLOAD:
        return ParseDownload(bytes);
    case CMD_LOGIN:
        return ParseLogin(bytes);
    case CMD_GET_POS:
        return ParseLookup(bytes, false);
    case CMD_UNADVISE: {
        CWireReader reader(bytes.subspan(1));
        return SReleaseRequest{static_cast<int64_t>(reader.Get<uint64_t>())};
    }
    case CMD_READ_TAGS:
        return SReadRequest{ParseItems(bytes, READ_ITEM)};
    case CMD_ADVISE:
        return SAdviseRequest{ParseItems(bytes, ADVISE_ITEM)};
    case CMD_WRITE_TAGS:
        return ParseWrite(bytes);
    default:
        return SAlarmsRequest{};
    }
}
