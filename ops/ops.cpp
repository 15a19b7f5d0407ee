#include "ops/ops.h"

#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

I32 connectToKxsrv(CONNECT_PARAMS* pcp) {
    // The default port may be set from the environment; any other was asked for by -P.
    if (KXSRVPort == DEFAULT_PORT)
        managerConnect(pcp);
    else
        managerConnectToPort(pcp, KXSRVPort);
    if (pcp->s < 0) {
        // Misspelt, as scripts look for it.
        displayUnreached("Unable to connecto to KXSRV at [%s] or IP Address is unkown.", pcp->host);
        return -1;
    }
    return 0;
}

/// Reads one line whole and keeps of it what `junk` holds; its length is how much that is. False
/// when there is none. It reads byte by byte so that neither the line nor what follows it stays in
/// a stream's buffer.
static bool readLine(int fd, char (&junk)[512], std::size_t* pLength) {
    std::size_t length = 0;
    char c = '\0';
    while (read(fd, &c, 1) == 1 && c != '\n') {
        if (length < sizeof junk)
            junk[length++] = c;
        else if (fd != STDIN_FILENO)
            break; // nothing behind it is wanted of a file, which may never end
    }
    *pLength = length;
    return length != 0 || c == '\n';
}

/// Asks for the password with the terminal's echo off, and stores it. The length is that of what
/// was typed, which may be more than a password can have; false when the input has ended.
static bool promptForPassword(PasswordStruct* passwd, std::size_t* pLength) {
    restoreEchoOnSignals();
    // The blank in front of the colon is what it has always said.
    if (ServerType == SERVER_TYPE_KXSRV || ServerType == SERVER_TYPE_PXSRV)
        printTo(stdout, "Enter the password for the account used to start %s: ",
                ServerType == SERVER_TYPE_KXSRV ? "KXSRV " : "PXSRV ");
    setTerminalEcho(false);
    char junk[512];
    std::size_t lineLength;
    const bool fAnswered = readLine(STDIN_FILENO, junk, &lineLength);
    *pLength = textLength(junk, lineLength); // a password ends at a NUL
    storeCutText(passwd->name, junk, *pLength);
    explicit_bzero(junk, sizeof junk);
    printTo(stdout, "\n\n");
    setTerminalEcho(true);
    return fAnswered;
}

/// Opens the file of a password that nobody else can read or change; -1 after a message.
static int openPasswordFile(const char* pszFile) {
    if (std::strcmp(pszFile, "-") == 0)
        return STDIN_FILENO;
    const int fd = open(pszFile, O_RDONLY | O_CLOEXEC);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0) {
        noteEnding(ENDING_MISUSED, "password file %s: %s", pszFile, std::strerror(errno));
    } else if (S_ISDIR(status.st_mode)) {
        noteEnding(ENDING_MISUSED, "password file %s: %s", pszFile, std::strerror(EISDIR));
    } else if ((status.st_mode & S_IRWXO) != 0 && !S_ISCHR(status.st_mode)) {
        noteEnding(ENDING_MISUSED, "password file %s: others may read or change it", pszFile);
    } else {
        return fd;
    }
    if (fd >= 0)
        close(fd);
    return -1;
}

I32 readPasswordFile(const char* pszFile, PasswordStruct* passwd) {
    const int fd = openPasswordFile(pszFile);
    if (fd < 0)
        return -1;
    char junk[512];
    std::size_t length;
    readLine(fd, junk, &length);
    if (fd != STDIN_FILENO)
        close(fd);
    const bool fUsable =
        length != 0 && length <= MAX_PASSWORD && textLength(junk, length) == length;
    if (fUsable)
        storeCutText(passwd->name, junk, length);
    else
        noteEnding(ENDING_MISUSED, "password file %s: its first line is %s", pszFile,
                   length == 0             ? "empty"
                   : length > MAX_PASSWORD ? "too long for a password"
                                           : "no text");
    explicit_bzero(junk, sizeof junk);
    return fUsable ? 0 : -1;
}

I32 verifyPassword(CONNECT_PARAMS* pcp, PasswordStruct* passwd) {
    const bool fGiven = passwd->name[0] != '\0' || passwd->noPassword == 1;
    std::size_t length = std::strlen(passwd->name);
    if (!fGiven && !promptForPassword(passwd, &length) && fStrict != 0) {
        noteEnding(ENDING_DECLINED, "no password was given");
        return -1;
    }
    const I32 rc = managerVerifyPassword(pcp->s, "", 0, passwd->name, static_cast<U32>(length));
    explicit_bzero(passwd->name, sizeof passwd->name);
    if (rc != 0) {
        displayFailure("Password is invalid.");
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
