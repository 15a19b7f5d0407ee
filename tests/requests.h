// Every request function by its code, for those who answer them.
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

static const struct {
    U32 code;
    I32 (*call)(I32 s);
} requests[] = {
    {1, [](I32 s) { return managerFileOpen("/a.db", 66, s); }},
    {3, [](I32 s) { return managerFileRead(s, 1280, received, AMOUNT, 0); }},
    {4, [](I32 s) { return managerFileWrite(s, ~1U, "-abc", 3, 1); }},
    {7, [](I32 s) { return managerFileCreate("/a.db", s); }}, // and closes
    {8, [](I32 s) { return managerFileGetEOF(s, received); }},
    {10, [](I32 s) { return managerDisconnect(s); }},
    {11, [](I32 s) { return managerVerifyPassword(s, "me", 2, "secret", 6); }},
    {12, [](I32 s) { return managerGetInternetAddress(s, received); }},
    {13, [](I32 s) { return managerGetKXSRVStats(s, text); }},
    {14, [](I32 s) { return managerGetConnectionList(s, text); }},
    {15, [](I32 s) { return managerGetConnectionStats(s, 9999, text); }},
    {16, [](I32 s) { return managerKillConnection(s, 0x01020304); }},
    {17, [](I32 s) { return managerStopServer(s); }},
    {20, [](I32 s) { return managerSetLogLevel(s, 3); }},
    {21, [](I32 s) { return managerGetLockList(s, 258, text); }},
    {24, [](I32 s) { return managerGetOptions(s, text); }},
    {25, [](I32 s) { return managerGetVersion(recordOf(s)); }},
    {26, [](I32 s) { return managerFileGetVolSpace(s, "/a.db", &blocks, &blockSize); }},
    {28, [](I32 s) { return getServerInfo(recordOf(s)); }}, // and asks for the data limit, 9
    {32, [](I32 s) { return manager16GbFileGetEOF(s, received); }},
    {36, [](I32 s) { return manager16GbFileRead(s, 3, ~0U, received, AMOUNT, 0); }},
    {39, [](I32 s) { return manager16GbFileWrite(s, 3, ~1U, "-abc", 3, 1); }},
    {47, [](I32 s) { return managerFile16GbLargeLock(s, 1, 2, 3, ~0U); }},
    {48, [](I32 s) { return managerFile16GbLargeUnlock(s, 1, 2, 3, ~0U); }},
};
