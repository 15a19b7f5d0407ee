// Every request function by its code: the fuzz target answers them, a test looks at what they send.
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

/// The code, the call, and the parameters that it sends.
static const struct {
    U32 code;
    I32 (*call)(I32 s);
    const char* pszParameters;
} requests[] = {
    {1, [](I32 s) { return managerFileOpen("/a.db", 66, s); }, "00000042 2f612e64 62"},
    {3, [](I32 s) { return managerFileRead(s, 1280, received, AMOUNT, 0); }, "00000500 000000c8"},
    {4, [](I32 s) { return managerFileWrite(s, ~1U, "-abc", 3, 1); }, "fffffffe 00000003 616263"},
    {7, [](I32 s) { return managerFileCreate("/a.db", s); }, "00000000 2f612e64 62"}, // and closes
    {8, [](I32 s) { return managerFileGetEOF(s, received); }, ""},
    {10, [](I32 s) { return managerDisconnect(s); }, ""},
    {11, [](I32 s) { return managerVerifyPassword(s, "me", 2, "secret", 6); },
     "6d650073 65637265 7400"},
    {12, [](I32 s) { return managerGetInternetAddress(s, received); }, ""},
    {13, [](I32 s) { return managerGetKXSRVStats(s, text); }, ""},
    {14, [](I32 s) { return managerGetConnectionList(s, text); }, ""},
    {15, [](I32 s) { return managerGetConnectionStats(s, 9999, text); }, "0000270f"},
    {16, [](I32 s) { return managerKillConnection(s, 0x01020304); }, "01020304"},
    {17, [](I32 s) { return managerStopServer(s); }, ""},
    {20, [](I32 s) { return managerSetLogLevel(s, 3); }, "00000003"},
    {21, [](I32 s) { return managerGetLockList(s, 258, text); }, "00000102"},
    {24, [](I32 s) { return managerGetOptions(s, text); }, ""},
    {25, [](I32 s) { return managerGetVersion(recordOf(s)); }, ""},
    {26, [](I32 s) { return managerFileGetVolSpace(s, "/a.db", &blocks, &blockSize); },
     "2f612e64 6200"},
    {28, [](I32 s) { return getServerInfo(recordOf(s)); }, ""}, // and asks for the data limit, 9
    {32, [](I32 s) { return manager16GbFileGetEOF(s, received); }, ""},
    {36, [](I32 s) { return manager16GbFileRead(s, 3, ~0U, received, AMOUNT, 0); },
     "00000003 ffffffff 000000c8"},
    {39, [](I32 s) { return manager16GbFileWrite(s, 3, ~1U, "-abc", 3, 1); },
     "00000003 fffffffe 00000003 616263"},
    {47, [](I32 s) { return managerFile16GbLargeLock(s, 1, 2, 3, ~0U); },
     "00000001 00000002 00000003 ffffffff"},
    {48, [](I32 s) { return managerFile16GbLargeUnlock(s, 1, 2, 3, ~0U); },
     "00000001 00000002 00000003 ffffffff"},
};
