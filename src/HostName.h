// Host names to IPv4 addresses, within a time limit.
#pragma once

#include "wintypes.h"

#include <netinet/in.h>
#include <optional>

/// The first IPv4 address of a name, or nothing when there is none or it is not known within nMs (0: no
/// limit). The system's resolver knows no limit of its own: one whose name server is silent holds its caller
/// for half a minute. So it runs in a thread, which is left to itself when the time is up.
std::optional<in_addr> ResolveHost(LPCSTR szHost, long nMs);

/// How names are looked up; tests put in one that is slow. May be called on any thread.
using FnLookUp = std::optional<in_addr> (*)(LPCSTR szHost);
extern FnLookUp g_fnLookUp;
