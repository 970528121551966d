// The handshake as the server sees it: the open and register requests, and their replies.
//
// Requests, behind their plain command byte a scrambled record (plain form given here):
//
//   open, direct     0: client identifier (16)
//   open, relay      0: client identifier (16)  16: gateway address (6)  22: server name and NUL
//   register         0: client identifier (16)  16: host name and NUL, login flag, a byte 1
//
// A record carries no length, but every plain byte can be unscrambled as soon as it has come, so the NUL
// tells where the record ends.
//
// Replies:
//
//   open             '7' plain; refused: '0' plain; redirected: '7', "lan", IPv4 address, port (big-endian)
//   register         '8', fixed record (58 bytes), project name, NUL, title, NUL, all scrambled; refused: '0'
//                    scrambled
#pragma once

#include "ByteSink.h"

#include <array>
#include <compare>
#include <string>

/// Outcome of looking for a whole request at the start of bytes that arrived.
enum class EFrame
{
    More,  // its end has not come yet
    Whole, // nLen bytes are one request
    Bad,   // these bytes are no request
};

struct SFrame
{
    EFrame eState = EFrame::More;
    size_t nLen = 0;
    const char* szWhy = ""; // of Bad
};

using ClientId = std::array<BYTE, 16>;

struct SOpenRequest
{
    ClientId id{};
    std::string strServer; // relay only
};

struct SRegisterRequest
{
    ClientId id{};
    std::string strHost;
    BYTE bLogin = 0;
};

/// What the register reply says.
struct SRegisterReply
{
    BYTE bFlag = 0;
    DWORD fifTime = 0;
    DWORD fifSize = 0;
    DWORD difTime = 0; // of the driver directory file
    DWORD difSize = 0;
    std::string strProject;
    std::string strTitle;
};

/// The longest register reply that a client takes in one receive.
constexpr size_t MAX_REGISTER_REPLY = 512;

SFrame FrameOpen(std::span<const BYTE> bytes, bool bRelay);
SFrame FrameRegister(std::span<const BYTE> bytes);
/// The bytes must be one whole request, as framed above.
SOpenRequest ParseOpen(std::span<const BYTE> bytes, bool bRelay);
SRegisterRequest ParseRegister(std::span<const BYTE> bytes);
/// The plain record behind the command byte, as far as it can be unscrambled.
Bytes PlainRecord(std::span<const BYTE> bytes);

/// An open request in direct form.
Bytes EncodeOpen(const ClientId& id);
Bytes EncodeOpened();
Bytes EncodeRefusal();
Bytes EncodeRedirect(const std::array<BYTE, 4>& address, WORD nPort);
Bytes EncodeRegistered(const SRegisterReply& reply);
Bytes EncodeRegisterRefusal();
