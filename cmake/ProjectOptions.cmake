# What every target of this project is compiled with: C++20, warnings as errors, hidden symbols,
# and the sanitizers that a preset asks for. Targets take it by linking rkdb::options.
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_CXX_EXTENSIONS OFF)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

add_library(rkdb_options INTERFACE)
add_library(rkdb::options ALIAS rkdb_options)
target_compile_features(rkdb_options INTERFACE cxx_std_20)
target_compile_options(rkdb_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wnon-virtual-dtor -Woverloaded-virtual)
if(RKDB_WERROR)
  target_compile_options(rkdb_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # The lock annotations of nonwin/ThreadLock.h are checked here only; gcc does not know them.
  target_compile_options(rkdb_options INTERFACE -Wthread-safety)
endif()
if(RKDB_SANITIZE)
  target_compile_options(rkdb_options INTERFACE -fsanitize=${RKDB_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(rkdb_options INTERFACE -fsanitize=${RKDB_SANITIZE})
endif()

if(CMAKE_BUILD_TYPE STREQUAL "Release")
  include(CheckIPOSupported)
  check_ipo_supported(RESULT RKDB_HAS_LTO OUTPUT RKDB_LTO_WHY LANGUAGES CXX)
  if(RKDB_HAS_LTO)
    set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
  endif()
endif()
