// The log on standard error: standard output carries nothing but the lines that say where the simulator
// listens.
#pragma once

#include <spdlog/spdlog.h>

/// Logs to standard error while it lives. Nobody waits for whoever reads there: see LogQueue.h.
class CLog
{
public:
    explicit CLog(spdlog::level::level_enum eLevel);
    ~CLog();
    CLog(const CLog&) = delete;
    CLog& operator=(const CLog&) = delete;
};
