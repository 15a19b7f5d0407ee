// Runs a fuzz target over the files that it is given, where there is no fuzzer: every input that
// was ever worth keeping stays a test.
#include "front/types.h"
#include "tests/scratch.h"

extern "C" int LLVMFuzzerTestOneInput(const U8* pInput, std::size_t size);

int main(int, char** argv) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        const std::string input = readFile(entry.path());
        LLVMFuzzerTestOneInput(reinterpret_cast<const U8*>(input.data()), input.size());
        ++count;
    }
    std::fprintf(stderr, "%d inputs replayed\n", count);
    return count > 0 ? 0 : 1;
}
