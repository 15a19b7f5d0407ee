// Runs a fuzz target over the files that it is given, where there is no fuzzer: every input that
// was ever worth keeping stays a test.
#include "front/types.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const U8* pInput, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* pArgc, char*** pppArgv);

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr)
        LLVMFuzzerInitialize(&argc, &argv);
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> input{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const U8*>(input.data()), input.size());
        ++count;
    }
    std::fprintf(stderr, "%d inputs replayed\n", count);
    return count > 0 ? 0 : 1;
}
