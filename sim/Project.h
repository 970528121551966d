// The project that the simulator serves, as its project file describes it. Plain data: knows no file format
// and no socket, and does not change while the simulator runs.
//
// Texts are GB2312 as on the wire, except user names, passwords (bytes as the client sends them) and the
// values of string tags (UTF-8).
#pragma once

#include "ByteSink.h"
#include "TagMotion.h"

#include <optional>
#include <string>
#include <vector>

/// Where a tag is found: its driver's id and its position in that driver's table.
struct STagRef
{
    WORD nDriver = 0;
    WORD nTag = 0;

    friend bool operator==(const STagRef&, const STagRef&) = default;
};

struct STagDef
{
    std::string strName;
    XVariant initial; // its type is the tag's type
    TagMotion motion;
    UINT nPeriodMs = 0; // between two steps of the motion
};

struct SDriverDef
{
    static constexpr size_t MAX_TAGS = 65535; // position 0xFFFF means that there is no such tag

    std::string strName;
    std::vector<STagDef> tags;
};

struct SUser
{
    static constexpr DWORD RIGHT_WRITE = 0x08;

    std::string strName;
    std::string strPassword;
    DWORD nRights = 0;
};

/// Raised when the tag passes a limit, ended when it is back within it by the dead band.
struct SAlarmRule
{
    STagRef tag;
    std::optional<double> dHigh;
    std::optional<double> dLow;
    double dDeadBand = 0;
    WORD nTagText = 0; // index into the tag name list
    WORD nType = 0;    // index into the text list
    WORD nGroup = 0;   // index into the text list
    BYTE nLevel = 0;
};

/// A project file beside those that follow from the project itself.
struct SFileDef
{
    std::string strName;
    Bytes content;
    std::optional<DWORD> tTime; // else the project's
    bool bAbsent = false;
    bool bGZ = false;             // the body is sent compressed
    bool bAppend = false;         // a shorter copy is continued, not replaced
    bool bUseLast = true;         // a client's equal copy is left in place
    std::optional<bool> bWindows; // acknowledgement of windows; else for long bodies only
};

/// A server's name at the relay centre: leads to a server behind it, or away to one on the client's network.
struct SRelayDef
{
    std::string strName;
    bool bRedirect = false;
    std::string strHost; // empty: this simulator
    WORD nPort = 0;
};

enum class ERefuse
{
    Nothing,
    Open,     // every open request
    Register, // every register request
};

/// How the server behaves; the defaults are an ordinary one.
struct SServerDef
{
    size_t nBlockSize = 4096; // payload bytes of a block of values
    size_t nPieces = 0;       // bytes of one segment where the wire may be cut; 0: uncut
    UINT nPieceGapMs = 1;
    UINT nReplyDelayMs = 0;
    UINT nSubscribeHoldMs = 50; // pushes wait this long behind a subscription's reply
    size_t nSendLimit = 4u << 20;
    size_t nMaxConnections = 0; // 0: as many as the system allows
    ERefuse eRefuse = ERefuse::Nothing;
    BYTE bRegisterFlag = 0;
    std::vector<BYTE> sysNotify; // sub-types mixed into every client's pushes
    UINT nSysNotifyMs = 1000;
};

struct SPrjPaths
{
    std::string strProject;
    std::string strEvent;
    std::string strAlarm;
    std::string strHist;
};

struct SProject
{
    static constexpr size_t MAX_TAGS = 1000000; // of all drivers: what starts within seconds, in some 220 MB

    std::string strName;
    std::string strTitle;
    DWORD tTime = 0; // of the files that follow from the project
    SPrjPaths paths;
    SServerDef server;
    std::vector<SUser> users; // empty: everybody, with all rights
    std::vector<SDriverDef> drivers;
    std::vector<SAlarmRule> alarms;
    std::vector<std::string> textList;
    std::vector<std::string> tagList;
    std::vector<SFileDef> files;
    std::vector<SRelayDef> relays;
};
