// Runs a fuzz target over the files of its corpus, without a fuzzer: a plain test of every build.
#include "fuzz.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

int main(int argc, char** argv)
{
    int nFiles = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            // A copy of the exact size, so that the address sanitizer sees the first byte beyond it.
            const std::vector<BYTE> input(bytes.begin(), bytes.end());
            LLVMFuzzerTestOneInput(input.data(), input.size());
            ++nFiles;
        }
    }
    std::printf("%d inputs\n", nFiles);
    return nFiles > 0 ? 0 : 1;
}
