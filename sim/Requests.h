// The requests of a logged-in client, one record each, and how to tell where one ends.
//
// Requests carry no length; each command's own layout decides (offset 0 is always the command):
//
//   '3' paths      nothing more
//   '4' download   file name, CR LF, lines "name:value" CR LF, CR LF
//   '9' login      1: user name and NUL, password and NUL
//   'L' look-up    1: driver id (2), tag name and NUL; again for each further name, no count
//   'd' release    1: tag handle (8)
//   'H' read       1: count (2), then driver id (2), tag position (2) each
//   'b' subscribe  1: count (2), then driver id (2), tag position (2), a byte 0 each
//   'g' write      1: count (2), then driver id (2), tag position (2), typed value each
//   'n' alarms     nothing more
//
// A look-up has no end of its own. What has arrived is one when it ends behind a name; further names that
// come later continue it, and their answers continue the reply. Another command behind the last name is told
// from a further name by the driver id: no project has as many drivers as a command character read as one
// would need, and where it has, names within one piece win.
#pragma once

#include "Handshake.h"
#include "Project.h"

#include <functional>
#include <variant>

struct SPathsRequest
{
};

/// What a client says of the copy that it has.
struct SFileCopy
{
    DWORD tTime = 0;
    DWORD nSize = 0;
};

struct SDownloadRequest
{
    std::string strName;
    std::optional<SFileCopy> last; // the client's copy
    std::optional<SFileCopy> gz;   // its compressed copy
    bool bHello = false;           // it offers to acknowledge windows
};

struct SLoginRequest
{
    std::string strUser;
    std::string strPassword;
};

struct SLookupRequest
{
    struct SName
    {
        WORD nDriver = 0;
        std::string strName;
    };

    bool bContinued = false; // further names of the look-up before
    std::vector<SName> names;
};

struct SReleaseRequest
{
    int64_t nHandle = 0;
};

struct SReadRequest
{
    std::vector<STagRef> tags;
};

struct SAdviseRequest
{
    std::vector<STagRef> tags;
};

struct SWriteRequest
{
    struct SValue
    {
        STagRef tag;
        XVariant value;
    };

    std::vector<SValue> values;
};

struct SAlarmsRequest
{
};

using Request = std::variant<SPathsRequest, SDownloadRequest, SLoginRequest, SLookupRequest, SReleaseRequest,
                             SReadRequest, SAdviseRequest, SWriteRequest, SAlarmsRequest>;

/// Whether the project has a driver of this id.
using FnHasDriver = std::function<bool(WORD)>;

/// The request at the start of bytes. bContinues: the request before was a look-up, which may go on.
SFrame FrameRequest(std::span<const BYTE> bytes, bool bContinues, const FnHasDriver& hasDriver);
/// The bytes must be one whole request, framed with the same bContinues.
Request ParseRequest(std::span<const BYTE> bytes, bool bContinues);
/// Whether a request begins with this byte.
bool IsCommand(BYTE bCommand) noexcept;
