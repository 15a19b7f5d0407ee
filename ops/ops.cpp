#include "ops/ops.h"

#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"

#include <cerrno>
#include <csignal>
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

enum LineRead { LINE_READ, LINE_MISSING, LINE_FAILED };

/// Reads one line whole and keeps of it what `junk` holds; its length is how much that is. There is
/// none at the end of input; a failure leaves errno. It reads byte by byte so that neither the line
/// nor what follows it stays in a stream's buffer.
static LineRead readLine(int fd, char (&junk)[512], std::size_t* pLength) {
    std::size_t length = 0;
    char c = '\0';
    ssize_t n;
    while ((n = read(fd, &c, 1)) == 1 && c != '\n') {
        if (length < sizeof junk)
            junk[length++] = c;
        else if (fd != STDIN_FILENO)
            break; // nothing behind it is wanted of a file, which may never end
    }
    *pLength = length;
    if (length != 0 || c == '\n')
        return LINE_READ;
    return n < 0 ? LINE_FAILED : LINE_MISSING;
}

/// Asks for the password with the terminal's echo off, and stores it. The length is that of what
/// was typed, which may be more than a password can have; false when the input has ended.
static bool promptForPassword(PasswordStruct* passwd, std::size_t* pLength) {
    restoreEchoOnSignals();
    // The shell that ^Z gives the terminal to switches its echo on again, and fg leaves it so.
    // Where we are not alone in the foreground, the others would stop all the same.
    const bool fAlone = getpgrp() == getpid();
    const auto onStop = fAlone ? std::signal(SIGTSTP, SIG_IGN) : SIG_DFL;
    // The blank in front of the colon is what it has always said.
    if (ServerType == SERVER_TYPE_KXSRV || ServerType == SERVER_TYPE_PXSRV)
        printTo(stdout, "Enter the password for the account used to start %s: ",
                ServerType == SERVER_TYPE_KXSRV ? "KXSRV " : "PXSRV ");
    setTerminalEcho(false);
    char junk[512];
    std::size_t lineLength;
    const bool fAnswered = readLine(STDIN_FILENO, junk, &lineLength) == LINE_READ;
    *pLength = textLength(junk, lineLength); // a password ends at a NUL
    storeCutText(passwd->name, junk, *pLength);
    explicit_bzero(junk, sizeof junk);
    printTo(stdout, "\n\n");
    setTerminalEcho(true);
    if (fAlone)
        std::signal(SIGTSTP, onStop);
    return fAnswered;
}

static void notePasswordFile(const char* pszFile, const char* pszWrong) {
    noteEnding(ENDING_MISUSED, "password file %s: %s", pszFile, pszWrong);
}

/// Opens the file of a password, which others may neither read nor change; its group may. -1 after
/// a message.
static int openPasswordFile(const char* pszFile) {
    const bool fInput = std::strcmp(pszFile, "-") == 0;
    const int fd = fInput ? STDIN_FILENO : open(pszFile, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0)
        notePasswordFile(pszFile, std::strerror(errno));
    else if (isatty(fd) != 0)
        notePasswordFile(pszFile, "a terminal would show it");
    else if (!fInput && (status.st_mode & S_IRWXO) != 0 && !S_ISCHR(status.st_mode) &&
             !S_ISDIR(status.st_mode)) // which reading it tells
        notePasswordFile(pszFile, "others may read or change it");
    else
        return fd;
    if (fd >= 0 && !fInput)
        close(fd);
    return -1;
}

I32 readPasswordFile(const char* pszFile, PasswordStruct* passwd) {
    const int fd = openPasswordFile(pszFile);
    if (fd < 0)
        return -1;
    char junk[512];
    std::size_t length;
    const char* pszWrong = nullptr;
    if (readLine(fd, junk, &length) == LINE_FAILED)
        pszWrong = std::strerror(errno);
    else if (length == 0)
        pszWrong = "its first line is empty";
    else if (length > MAX_PASSWORD)
        pszWrong = "its first line is too long for a password";
    else if (textLength(junk, length) != length)
        pszWrong = "its first line is no text";
    else
        storeCutText(passwd->name, junk, length);
    explicit_bzero(junk, sizeof junk);
    if (fd != STDIN_FILENO)
        close(fd);
    if (pszWrong != nullptr)
        notePasswordFile(pszFile, pszWrong);
    return pszWrong == nullptr ? 0 : -1;
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
