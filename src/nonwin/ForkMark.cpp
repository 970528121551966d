// See ForkMark.h. A count of forks, raised in each child, is as good as a process id and costs no system
// call.
#include "ForkMark.h"

#include <atomic>
#include <pthread.h>

namespace {

std::atomic<unsigned> g_nForks{0};

void CountFork()
{
    ++g_nForks;
}

[[maybe_unused]] const int g_nRegistered = ::pthread_atfork(nullptr, nullptr, CountFork);

} // namespace

unsigned CForkMark::Current() noexcept
{
    return g_nForks;
}
