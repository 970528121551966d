# What every target of this project is compiled with: C++20, many warnings, hidden symbols,
# and the sanitizers that a preset asks for. Targets take it by linking rkdb::options.
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_CXX_EXTENSIONS OFF)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()
# A build type of its own for the sanitizers: quick enough to run every test, whole call stacks, asserts on.
set(CMAKE_CXX_FLAGS_SANITIZE "-O1 -g -fno-omit-frame-pointer -fno-optimize-sibling-calls")

add_library(rkdb_options INTERFACE)
add_library(rkdb::options ALIAS rkdb_options)
target_compile_features(rkdb_options INTERFACE cxx_std_20)
target_compile_options(rkdb_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wnon-virtual-dtor -Woverloaded-virtual)
# Checked indexes and iterators in the builds that look for mistakes; users' builds do without.
target_compile_definitions(rkdb_options INTERFACE $<$<CONFIG:Debug,Sanitize>:_GLIBCXX_ASSERTIONS>)
if(RKDB_WERROR)
  target_compile_options(rkdb_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # The lock annotations of nonwin/ are checked here only; gcc does not know them.
  target_compile_options(rkdb_options INTERFACE -Wthread-safety)
endif()
if(RKDB_SANITIZE)
  target_compile_options(rkdb_options INTERFACE -fsanitize=${RKDB_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(rkdb_options INTERFACE -fsanitize=${RKDB_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # The instrumentation hides initialisations from gcc, which then warns of values that are always set.
    target_compile_options(rkdb_options INTERFACE -Wno-maybe-uninitialized)
  endif()
endif()

if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT DEFINED CMAKE_INTERPROCEDURAL_OPTIMIZATION)
  include(CheckIPOSupported)
  check_ipo_supported(RESULT RKDB_HAS_LTO LANGUAGES CXX)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ${RKDB_HAS_LTO})
endif()
