# Writes the bytes of a file as a C++ source: cmake -DFROM=demo.toml -DTO=DemoProject.cpp -P EmbedProject.cmake
file(READ "${FROM}" bytes HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
string(REGEX REPLACE "(................................................................................)" "\\1\n" bytes "${bytes}")
file(WRITE "${TO}" "// Made from ${FROM}; do not edit.
#include <string_view>

static constexpr unsigned char BYTES[] = {
${bytes}
};
extern const std::string_view DEMO_PROJECT;
const std::string_view DEMO_PROJECT(reinterpret_cast<const char*>(BYTES), sizeof(BYTES));
")
