// Every request function: the fuzz target answers them, a test looks at what they send. The corpus
// names them by their places.
#pragma once

#include "client/exchange.h"

/// Bytes of a read. Nobody takes the fuzz target's requests off the socket, and this many of one
/// byte each still fit its buffer.
static constexpr U32 AMOUNT = 200;

static char text[MAX_REPLY_DATA];
static U8 received[AMOUNT];
static U32 blocks, blockSize;

static CONNECT_PARAMS* recordOf(I32 s) {
    static CONNECT_PARAMS record;
    record.s = s;
    return &record;
}

/// The call, and what comes of a success reply: its result, and each request's code and parameters.
static const struct {
    I32 (*call)(I32 s);
    const char* pszSent;
} requests[] = {
    // clang-format off
    {[](I32 s) { return getServerInfo(recordOf(s)); }, "0; 28 ; 9 "},
    {[](I32 s) { return managerGetVersion(recordOf(s)); }, "0; 25 "},
    {[](I32 s) { return managerVerifyPassword(s, "root", 4, "secret", 6); }, "0; 11 726f6f74 00736563 72657400"},
    {[](I32 s) { return managerGetInternetAddress(s, received); }, "0; 12 "},
    {[](I32 s) { return managerGetKXSRVStats(s, text); }, "0; 13 "},
    {[](I32 s) { return managerGetConnectionList(s, text); }, "0; 14 "},
    {[](I32 s) { return managerGetConnectionStats(s, 9999, text); }, "0; 15 0000270f"},
    {[](I32 s) { return managerGetLockList(s, 258, text); }, "0; 21 00000102"},
    {[](I32 s) { return managerGetOptions(s, text); }, "0; 24 "},
    {[](I32 s) { return managerKillConnection(s, 0x01020304); }, "0; 16 01020304"},
    {[](I32 s) { return managerSetLogLevel(s, 3); }, "0; 20 00000003"},
    {[](I32 s) { return managerStopServer(s); }, "0; 17 "},
    {[](I32 s) { return managerFileOpen("/a.db", 66, s) == s ? 0 : 1; }, "0; 1 00000042 2f612e64 62"},
    {[](I32 s) { return managerFileCreate("/a.db", s); }, "0; 7 00000000 2f612e64 62; 2 "},
    {[](I32 s) { return managerFileRead(s, 1280, received, AMOUNT, 0); }, "0; 3 00000500 000000c8"},
    {[](I32 s) { return manager16GbFileRead(s, 3, ~0U, received, AMOUNT, 0); }, "0; 36 00000003 ffffffff 000000c8"},
    {[](I32 s) { return managerFileWrite(s, 0xFEDCBA98, "-abc", 3, 1); }, "3; 4 fedcba98 00000003 616263"},
    {[](I32 s) { return manager16GbFileWrite(s, 3, ~0U, "-abc", 3, 1); }, "3; 39 00000003 ffffffff 00000003 616263"},
    {[](I32 s) { return managerFileGetEOF(s, received); }, "0; 8 "},
    {[](I32 s) { return manager16GbFileGetEOF(s, received); }, "0; 32 "},
    {[](I32 s) { return managerFile16GbLargeLock(s, 1, 2, 3, ~0U); }, "0; 47 00000001 00000002 00000003 ffffffff"},
    {[](I32 s) { return managerFile16GbLargeUnlock(s, 1, 2, 3, ~0U); }, "0; 48 00000001 00000002 00000003 ffffffff"},
    {[](I32 s) { return managerFileGetVolSpace(s, "/a.db", &blocks, &blockSize); }, "0; 26 2f612e64 6200"},
    {[](I32 s) { return managerDisconnect(s); }, "0; 10 "},
    // clang-format on
};
