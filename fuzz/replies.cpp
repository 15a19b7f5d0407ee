// Fuzz target: every request function against what a hostile server may answer. The first byte of
// the input is the code of the request, the second one the data limit, and the rest is all that the
// server ever sends.
#include "tests/requests.h"

#include <algorithm>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const U8* pInput, std::size_t size) {
    if (size < 2)
        return 0;
    const auto* const pRequest = std::find_if(std::begin(requests), std::end(requests),
                                              [&](const auto& r) { return r.code == *pInput; });
    if (pRequest == std::end(requests))
        return 0;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 || !holdSocket(ends[0]))
        std::abort();
    const auto length = static_cast<ssize_t>(size - 2);
    if (send(ends[1], pInput + 2, size - 2, 0) != length)
        std::abort();
    shutdown(ends[1], SHUT_WR);
    ManagerDataLimit = pInput[1];
    pRequest->call(ends[0]);
    managerAbandon(ends[0]);
    close(ends[1]);
    return 0;
}
