// A program linked with refusing_new.cpp has an operator new that refuses what a test says.
#pragma once

#include <atomic>
#include <cstddef>

/// Requests of so many bytes and more are refused; SIZE_MAX: none.
extern std::atomic<size_t> g_nRefuse;
/// But so many of them are allowed first.
extern std::atomic<int> g_nAllowed;
