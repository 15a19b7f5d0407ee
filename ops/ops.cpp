#include "ops/ops.h"

#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <unistd.h>

I32 connectToKxsrv(CONNECT_PARAMS* pcp) {
    // The default port may be set from the environment; any other was asked for by -P.
    if (KXSRVPort == DEFAULT_PORT)
        managerConnect(pcp);
    else
        managerConnectToPort(pcp, KXSRVPort);
    if (pcp->s < 0) {
        displayConsoleMessage("Unable to connecto to KXSRV at [%s] or IP Address is unkown.",
                              pcp->host);
        return -1;
    }
    return 0;
}

/// Reads one line of standard input whole and keeps of it what `junk` holds; returns how much that
/// is. It reads byte by byte so that neither the line nor what follows it stays in a stream's
/// buffer.
static std::size_t readLine(char (&junk)[512]) {
    std::size_t length = 0;
    for (char c; read(STDIN_FILENO, &c, 1) == 1 && c != '\n';)
        if (length < sizeof junk)
            junk[length++] = c;
    return length;
}

/// Asks for the password with the terminal's echo off, and stores it. Returns the length of what
/// was typed, which may be more than a password can have.
static U32 promptForPassword(PasswordStruct* passwd) {
    restoreEchoOnSignals();
    if (ServerType == SERVER_TYPE_KXSRV || ServerType == SERVER_TYPE_PXSRV)
        printTo(stdout, "Enter the password for the account used to start %s: ",
                ServerType == SERVER_TYPE_KXSRV ? "KXSRV " : "PXSRV ");
    setTerminalEcho(false);
    char junk[512];
    const std::size_t length = textLength(junk, readLine(junk)); // a password ends at a NUL
    storeCutText(passwd->name, junk, length);
    explicit_bzero(junk, sizeof junk);
    printTo(stdout, "\n\n");
    setTerminalEcho(true);
    return static_cast<U32>(length);
}

I32 verifyPassword(CONNECT_PARAMS* pcp, PasswordStruct* passwd) {
    const bool fGiven = passwd->name[0] != '\0' || passwd->noPassword == 1;
    const U32 u32Length =
        fGiven ? static_cast<U32>(std::strlen(passwd->name)) : promptForPassword(passwd);
    const I32 rc = managerVerifyPassword(pcp->s, "", 0, passwd->name, u32Length);
    explicit_bzero(passwd->name, sizeof passwd->name);
    if (rc != 0) {
        displayConsoleMessage("Password is invalid.");
        return -1;
    }
    return 0;
}

const char* logLevelDescription(U32 ul) {
    // In the order of the server's numbers, which is not the order of severity.
    static const char* const names[] = {"Information", "Warning", "Error", "Debug"};
    static char buf[11]; // any 32-bit number
    if (ul < std::size(names))
        return names[ul];
    std::snprintf(buf, sizeof buf, "%2lu", static_cast<unsigned long>(ul));
    return buf;
}
