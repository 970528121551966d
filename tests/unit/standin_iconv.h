// Converters that stand in for the system's, where converters differ. The program's own functions of the
// converter, in test_cstring_iconv.cpp, ask here first.
#pragma once

#include <cstddef>
#include <string>

enum class EStandIn
{
    None,       // the system's converter
    TakesUsual, // knows U+2014 and U+00B7
    TakesOther, // knows U+2015 and U+30FB, as the C library's converter does
    TakesBoth,  // takes all four, gives U+2015 and U+30FB
};

extern EStandIn g_eStandIn;

/// As iconv, of ASCII and the two characters that have two forms.
size_t StandInConvert(const std::string& strNames, char** ppIn, size_t* pnIn, char** ppOut, size_t* pnRoom);
