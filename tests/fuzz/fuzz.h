// What every fuzz target includes: the entry that both the fuzzer and the plain replay call, and a check that
// stays on in every build.
#pragma once

#include "wintypes.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize);

#define FUZZ_CHECK(x)                                                                                        \
    do {                                                                                                     \
        if (!(x)) {                                                                                          \
            std::fprintf(stderr, "%s:%d: %s does not hold\n", __FILE__, __LINE__, #x);                       \
            std::abort();                                                                                    \
        }                                                                                                    \
    } while (false)
