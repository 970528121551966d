// See Log.h.
#include "Log.h"

#include "LogQueue.h"

#include <spdlog/details/null_mutex.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>

#include <unistd.h>

namespace {

constexpr const char* PATTERN = "%H:%M:%S.%e %^%l%$ %v";
constexpr std::chrono::milliseconds LAST_PATIENCE{500};

std::string Note(size_t nDropped)
{
    const std::string strText =
        fmt::format("{} lines of the log were dropped: nobody read them in time", nDropped);
    spdlog::pattern_formatter formatter(PATTERN);
    spdlog::memory_buf_t line;
    formatter.format(spdlog::details::log_msg("rkdbsim", spdlog::level::warn, strText), line);
    return fmt::to_string(line);
}

/// All of the simulator's handlers run on one thread, so nothing is locked here.
class CQueueSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex>
{
protected:
    void sink_it_(const spdlog::details::log_msg& message) override
    {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        m_queue.Push({line.data(), line.size()});
    }
    void flush_() override { m_queue.Drain(LAST_PATIENCE); }

private:
    CLogQueue m_queue{STDERR_FILENO, Note};
};

} // namespace

CLog::CLog(spdlog::level::level_enum eLevel)
{
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("rkdbsim", std::make_shared<CQueueSink>()));
    spdlog::set_pattern(PATTERN);
    spdlog::set_level(eLevel);
}

CLog::~CLog()
{
    spdlog::default_logger_raw()->flush();
}
