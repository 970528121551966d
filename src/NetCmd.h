// The command characters that open every request and are echoed in the first byte of its reply.
#pragma once

#include "wintypes.h"

constexpr BYTE CMD_REFUSED = '0';    // reply only: the request was refused
constexpr BYTE CMD_PRJ_PATH = '3';   // ask a server on this machine for its project paths
constexpr BYTE CMD_DOWNLOAD = '4';   // file download, a line-oriented exchange of its own
constexpr BYTE CMD_OPEN = '7';       // open the request connection (record behind it is scrambled)
constexpr BYTE CMD_REGISTER = '8';   // register the receive connection (record and whole reply are scrambled)
constexpr BYTE CMD_LOGIN = '9';      // user name and password; the reply carries the rights word
constexpr BYTE CMD_READ_TAGS = 'H';  // read tag values
constexpr BYTE CMD_GET_POS = 'L';    // tag name to position, one name or several
constexpr BYTE CMD_ADVISE = 'b';     // subscribe tags and fetch their values
constexpr BYTE CMD_UNADVISE = 'd';   // release a tag handle
constexpr BYTE CMD_WRITE_TAGS = 'g'; // write tag values; no reply
constexpr BYTE CMD_RT_ALARM = 'n';   // register for real-time alarms and list the active ones
