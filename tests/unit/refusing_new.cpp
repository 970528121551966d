// In a file of its own: inlined into their callers, gcc takes malloc and delete for a mismatched pair.
#include "refusing_new.h"

#include <cstdint>
#include <cstdlib>
#include <new>

std::atomic<size_t> g_nRefuse{SIZE_MAX};
std::atomic<int> g_nAllowed{0};

void* operator new(size_t nSize)
{
    void* p = nSize < g_nRefuse || g_nAllowed-- > 0 ? std::malloc(nSize ? nSize : 1) : nullptr;
    if (!p)
        throw std::bad_alloc();
    return p;
}

void operator delete(void* p) noexcept
{
    std::free(p);
}

void operator delete(void* p, size_t) noexcept
{
    std::free(p);
}
