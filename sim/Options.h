// The command line.
#pragma once

#include "wintypes.h"

#include <optional>
#include <string>

struct SOptions
{
    std::string strProject; // path of the project file; empty: the built-in one
    std::string strHost = "127.0.0.1";
    WORD nPort = 8000;
    std::string strRelayHost; // as strHost unless given
    std::optional<WORD> nRelayPort;
    bool bCheck = false;
    bool bTrace = false;
    size_t nTraceBytes = 256;
    uint64_t nSeed = 1;
    std::string strLogLevel = "info";
};

/// The options, or the status to exit with: help and version have been printed then, or what is wrong.
std::optional<SOptions> ParseOptions(int argc, char** argv, int& nStatus);
