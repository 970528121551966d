// Writes the log without ever waiting for whoever reads it: lines wait in a queue of bounded size, which a
// thread of its own writes. What finds the queue full is dropped and counted, and the number is said as soon
// as the reader goes on. A pipe that nobody reads, or a terminal that is held, so stops the log and nothing
// else.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

class CLogQueue
{
public:
    static constexpr size_t MAX_BYTES = size_t{4} << 20;

    /// The line that says how many were dropped.
    using FnNote = std::function<std::string(size_t nDropped)>;

    CLogQueue(int nDescriptor, FnNote fnNote, size_t nMaxBytes = MAX_BYTES);
    /// Ends at once: what waits is lost unless Drain was called.
    ~CLogQueue();
    CLogQueue(const CLogQueue&) = delete;
    CLogQueue& operator=(const CLogQueue&) = delete;

    void Push(std::string_view line);
    /// Waits until all is written, but not longer than this.
    void Drain(std::chrono::milliseconds patience);

private:
    struct SState;

    // The thread holds it too: it may still be waiting for the reader when this object, or the program, ends.
    std::shared_ptr<SState> m_pState;
};
