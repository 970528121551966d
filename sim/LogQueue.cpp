// See LogQueue.h.
#include "LogQueue.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>
#include <utility>

struct CLogQueue::SState
{
    SState(int nTo, FnNote fnSay, size_t nMax) : nDescriptor(nTo), fnNote(std::move(fnSay)), nMaxBytes(nMax)
    {
    }

    const int nDescriptor;
    const FnNote fnNote;
    const size_t nMaxBytes;
    std::mutex mutex;
    std::condition_variable changed;
    std::string strWaiting;
    size_t nDropped = 0;
    bool bWriting = false;
    bool bEnd = false;

    bool IsDone() const { return strWaiting.empty() && nDropped == 0 && !bWriting; }
    void Work();
    bool TakeNext(std::string& strNext);
    void Write(std::string_view text) const;
};

/// Waits for something to write. What was dropped found the queue full, so its number belongs behind what
/// waits.
bool CLogQueue::SState::TakeNext(std::string& strNext)
{
    std::unique_lock lock(mutex);
    bWriting = false;
    changed.notify_all();
    changed.wait(lock, [this] { return bEnd || !IsDone(); });
    if (bEnd)
        return false;
    strNext.clear();
    strNext.swap(strWaiting);
    if (nDropped > 0)
        strNext += fnNote(std::exchange(nDropped, 0));
    bWriting = true;
    return true;
}

/// A descriptor that fails, of a reader that has gone for one, takes what there is to say with it.
void CLogQueue::SState::Write(std::string_view text) const
{
    while (!text.empty()) {
        const ssize_t nDone = ::write(nDescriptor, text.data(), text.size());
        if (nDone >= 0) {
            text.remove_prefix(static_cast<size_t>(nDone));
        } else if (errno == EAGAIN) {
            pollfd ready{nDescriptor, POLLOUT, 0};
            ::poll(&ready, 1, -1);
        } else if (errno != EINTR) {
            return;
        }
    }
}

void CLogQueue::SState::Work()
{
    std::string strNext;
    while (TakeNext(strNext))
        Write(strNext);
}

CLogQueue::CLogQueue(int nDescriptor, FnNote fnNote, size_t nMaxBytes)
    : m_pState(std::make_shared<SState>(nDescriptor, std::move(fnNote), nMaxBytes))
{
    // No signal is for the thread: neither those that end the program, nor the one that a reader's end sends.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread([pState = m_pState] { pState->Work(); }).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

CLogQueue::~CLogQueue()
{
    const std::lock_guard lock(m_pState->mutex);
    m_pState->bEnd = true;
    m_pState->changed.notify_all();
}

void CLogQueue::Push(std::string_view line)
{
    const std::lock_guard lock(m_pState->mutex);
    // Behind the first dropped line nothing is taken until the number has its place.
    if (m_pState->nDropped > 0 || m_pState->strWaiting.size() + line.size() > m_pState->nMaxBytes) {
        ++m_pState->nDropped;
        return;
    }
    m_pState->strWaiting += line;
    m_pState->changed.notify_all();
}

void CLogQueue::Drain(std::chrono::milliseconds patience)
{
    std::unique_lock lock(m_pState->mutex);
    m_pState->changed.wait_for(lock, patience, [this] { return m_pState->IsDone(); });
}
