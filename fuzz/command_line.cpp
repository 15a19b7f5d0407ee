// Fuzz target: the command line, up to the step that would connect. The input is the arguments,
// each ended by a NUL. The linker puts the two functions below in the place of those that would
// reach out of the process.
#include "front/cmdline.h"
#include "front/kxadmin.h"
#include "front/settings.h"
#include "ops/ops.h"

#include <clocale>
#include <sstream>
#include <vector>

/// In the place of connectToKxsrv.
I32 connectNowhere(CONNECT_PARAMS*) asm("__wrap__Z14connectToKxsrvP14CONNECT_Params");
I32 connectNowhere(CONNECT_PARAMS*) {
    return -1;
}

/// In the place of basicOpenTempFile.
std::FILE* openNothing(const char*) asm("__wrap__Z17basicOpenTempFilePKc");
std::FILE* openNothing(const char*) {
    return nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const U8* pInput, std::size_t size) {
    std::setlocale(LC_ALL, "C.UTF-8");
    std::istringstream input({reinterpret_cast<const char*>(pInput), size});
    std::vector<std::string> arguments{"kxadmin"};
    for (std::string argument; std::getline(input, argument, '\0');)
        arguments.push_back(argument);
    if (arguments.size() < 2)
        return 0;
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    iOptInd = 0;
    testInfo = {};
    copyParams = {};
    processOperation(static_cast<int>(arguments.size()), argv.data());
    return 0;
}
