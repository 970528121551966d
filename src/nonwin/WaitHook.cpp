// See WaitHook.h.
#include "WaitHook.h"

SWaitHook& WaitHook() noexcept
{
    static thread_local SWaitHook hook;
    return hook;
}
