// See HostName.h.
#include "HostName.h"

#include "ThreadHelp.h"
#include "WaitHook.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <netdb.h>
#include <string>

namespace {

constexpr long LONGEST_MS = 1L << 40; // keeps the sum with the clock in bounds

std::optional<in_addr> LookUp(LPCSTR szHost)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* pFound = nullptr;
    if (::getaddrinfo(szHost, nullptr, &hints, &pFound) != 0)
        return std::nullopt;
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> found(pFound, ::freeaddrinfo);
    return reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
}

/// Shared by the caller and the thread; whoever is last lets it go.
struct SQuestion
{
    std::string strHost;
    std::mutex lock;
    std::condition_variable answered;
    bool bDone = false;            // guarded by lock
    std::optional<in_addr> answer; // guarded by lock
};
using QuestionPtr = std::shared_ptr<SQuestion>;

void* AnswerQuestion(void* pParam)
{
    const std::unique_ptr<QuestionPtr> held(static_cast<QuestionPtr*>(pParam));
    SQuestion& question = **held;
    const auto answer = g_fnLookUp(question.strHost.c_str());
    const std::lock_guard guard(question.lock);
    question.answer = answer;
    question.bDone = true;
    question.answered.notify_one();
    return nullptr;
}

} // namespace

FnLookUp g_fnLookUp = LookUp;

std::optional<in_addr> ResolveHost(LPCSTR szHost, long nMs)
{
    if (nMs <= 0)
        return g_fnLookUp(szHost);
    const auto pQuestion = std::make_shared<SQuestion>();
    pQuestion->strHost = szHost;
    auto held = std::make_unique<QuestionPtr>(pQuestion);
    if (rkthread_create(AnswerQuestion, held.get()) != 0)
        return std::nullopt;
    static_cast<void>(held.release()); // the thread's from now on
    std::unique_lock guard(pQuestion->lock);
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::min(nMs, LONGEST_MS));
    const auto fnGoOn = WaitHook().fnGoOn;
    const auto slice = std::chrono::milliseconds(SWaitHook::SLICE_MS);
    while (!pQuestion->bDone && std::chrono::steady_clock::now() < until) {
        const auto next = std::min(until, std::chrono::steady_clock::now() + slice);
        pQuestion->answered.wait_until(guard, next);
        guard.unlock(); // fnGoOn may run whatever the script wants
        const bool bGoOn = !fnGoOn || fnGoOn();
        guard.lock();
        if (!bGoOn)
            return std::nullopt;
    }
    return pQuestion->answer;
}
