// See Handshake.h.
#include "Handshake.h"

#include "NetCmd.h"
#include "WireReader.h"
#include "mtool3.h"

#include <algorithm>

namespace {

constexpr size_t OFFSET_NAME = 22; // relay open: identifier and gateway address before it
constexpr size_t OFFSET_HOST = 16;
constexpr size_t BEHIND_HOST = 2; // login flag and the byte 1
// What a client's 512-byte buffer holds; nothing honest is longer.
constexpr size_t MAX_RECORD = 383;

size_t ScrambledLength(size_t nPlain)
{
    constexpr size_t TAIL[] = {0, 2, 3};
    return nPlain / 3 * 4 + TAIL[nPlain % 3];
}

Bytes Scramble(std::span<const BYTE> plain)
{
    Bytes out(plain.size() / 3 * 4 + 4);
    out.resize(EncryptPacket(static_cast<UINT>(plain.size()), plain.data(), static_cast<UINT>(out.size()),
                             out.data()));
    return out;
}

/// A record that ends nBehind bytes behind the first NUL at or behind nFrom.
SFrame FrameText(std::span<const BYTE> bytes, size_t nFrom, size_t nBehind)
{
    const Bytes plain = PlainRecord(bytes.first(std::min(bytes.size(), 1 + ScrambledLength(MAX_RECORD))));
    if (plain.size() > nFrom) {
        const auto nul = std::find(plain.begin() + static_cast<std::ptrdiff_t>(nFrom), plain.end(), BYTE{0});
        if (nul != plain.end()) {
            const size_t nLen = static_cast<size_t>(nul - plain.begin()) + 1 + nBehind;
            if (nLen <= plain.size())
                return {EFrame::Whole, 1 + ScrambledLength(nLen)};
        }
    }
    if (plain.size() >= MAX_RECORD)
        return {EFrame::Bad, 0, "a handshake record without an end"};
    return {};
}

ClientId TakeId(CWireReader& reader)
{
    ClientId id{};
    const auto bytes = reader.Bytes(id.size());
    std::copy(bytes.begin(), bytes.end(), id.begin());
    return id;
}

} // namespace

Bytes PlainRecord(std::span<const BYTE> bytes)
{
    auto scrambled = bytes.subspan(std::min<size_t>(1, bytes.size()));
    if (scrambled.size() % 4 == 1) // only the random byte of its group has come
        scrambled = scrambled.first(scrambled.size() - 1);
    Bytes plain(scrambled.size());
    plain.resize(DecryptPacket(static_cast<UINT>(scrambled.size()), scrambled.data(),
                               static_cast<UINT>(plain.size()), plain.data()));
    return plain;
}

SFrame FrameOpen(std::span<const BYTE> bytes, bool bRelay)
{
    if (bRelay)
        return FrameText(bytes, OFFSET_NAME, 0);
    const size_t nLen = 1 + ScrambledLength(ClientId().size());
    return bytes.size() < nLen ? SFrame{} : SFrame{EFrame::Whole, nLen};
}

SFrame FrameRegister(std::span<const BYTE> bytes)
{
    return FrameText(bytes, OFFSET_HOST, BEHIND_HOST);
}

SOpenRequest ParseOpen(std::span<const BYTE> bytes, bool bRelay)
{
    const Bytes plain = PlainRecord(bytes);
    CWireReader reader(plain);
    SOpenRequest open;
    open.id = TakeId(reader);
    if (bRelay) {
        reader.Skip(OFFSET_NAME - open.id.size());
        open.strServer = reader.Text();
    }
    return open;
}

SRegisterRequest ParseRegister(std::span<const BYTE> bytes)
{
    const Bytes plain = PlainRecord(bytes);
    CWireReader reader(plain);
    SRegisterRequest request;
    request.id = TakeId(reader);
    request.strHost = reader.Text();
    request.bLogin = reader.Get<BYTE>();
    return request;
}

Bytes EncodeOpen(const ClientId& id)
{
    return CByteSink().Put(CMD_OPEN).PutBytes(Scramble(id)).Take();
}

Bytes EncodeOpened()
{
    return {CMD_OPEN};
}

Bytes EncodeRefusal()
{
    return {CMD_REFUSED};
}

Bytes EncodeRedirect(const std::array<BYTE, 4>& address, WORD nPort)
{
    return CByteSink().Put(CMD_OPEN).PutChars("lan").PutBytes(address).PutBig(nPort).Take();
}

Bytes EncodeRegistered(const SRegisterReply& reply)
{
    CByteSink plain;
    plain.Put(CMD_REGISTER);
    plain.PutZeros(21).Put(reply.bFlag).PutZeros(16 + 4);
    plain.Put(reply.fifTime).Put(reply.fifSize);
    plain.PutBig(reply.difTime).PutBig(reply.difSize);
    plain.PutText(reply.strProject).PutText(reply.strTitle);
    return Scramble(plain.View());
}

Bytes EncodeRegisterRefusal()
{
    return Scramble(EncodeRefusal());
}
