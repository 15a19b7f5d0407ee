// Fuzz target: every request function against what a hostile server may answer. The first byte of
// the input chooses the request, the second one the data limit, and the rest is all that the server
// ever sends.
#include "client/exchange.h"

#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

/// Bytes of a read or write. Nobody takes the requests off the socket, and this many requests of
/// one byte each still fit its buffer.
static constexpr U32 AMOUNT = 200;

static char text[MAX_REPLY_DATA];
static U8 data[AMOUNT];
static CONNECT_PARAMS server{
    .s = -1, .serverType = 0, .versionId = 0, .host = "", .versionStr = ""};

static I32 volumeSpace(I32 s) {
    U32 freeBlocks, bytesPerBlock;
    return managerFileGetVolSpace(s, "name", &freeBlocks, &bytesPerBlock);
}

static I32 (*const requests[])(I32 s) = {
    [](I32) { return getServerInfo(&server); },
    [](I32) { return managerGetVersion(&server); },
    [](I32 s) { return managerVerifyPassword(s, "", 0, "secret", 6); },
    [](I32 s) { return managerGetInternetAddress(s, data); },
    [](I32 s) { return managerGetKXSRVStats(s, text); },
    [](I32 s) { return managerGetConnectionList(s, text); },
    [](I32 s) { return managerGetConnectionStats(s, 1, text); },
    [](I32 s) { return managerGetLockList(s, 1, text); },
    [](I32 s) { return managerGetOptions(s, text); },
    [](I32 s) { return managerKillConnection(s, 1); },
    [](I32 s) { return managerSetLogLevel(s, 1); },
    [](I32 s) { return managerStopServer(s); },
    [](I32 s) { return managerFileOpen("name", 18, s); },
    [](I32 s) { return managerFileCreate("name", s); },
    [](I32 s) { return managerFileRead(s, 0, data, AMOUNT, 0); },
    [](I32 s) { return manager16GbFileRead(s, 0, UINT32_MAX, data, AMOUNT, 0); },
    [](I32 s) { return managerFileWrite(s, 0, data, AMOUNT, 0); },
    [](I32 s) { return manager16GbFileWrite(s, 0, UINT32_MAX, data, AMOUNT, 0); },
    [](I32 s) { return managerFileGetEOF(s, data); },
    [](I32 s) { return manager16GbFileGetEOF(s, data); },
    [](I32 s) { return managerFile16GbLargeLock(s, 0, 0, 1, 2); },
    [](I32 s) { return managerFile16GbLargeUnlock(s, 0, 0, 1, 2); },
    volumeSpace,
    managerDisconnect,
};

extern "C" int LLVMFuzzerTestOneInput(const U8* pInput, std::size_t size) {
    if (size < 2)
        return 0;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 || !holdSocket(ends[0]))
        std::abort();
    const auto length = static_cast<ssize_t>(size - 2);
    if (send(ends[1], pInput + 2, size - 2, 0) != length)
        std::abort();
    shutdown(ends[1], SHUT_WR);
    ManagerDataLimit = pInput[1];
    server.s = ends[0];
    requests[pInput[0] % std::size(requests)](ends[0]);
    managerAbandon(ends[0]);
    close(ends[1]);
    return 0;
}
