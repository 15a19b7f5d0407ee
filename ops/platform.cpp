#include "ops/platform.h"

#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"
#include "ops/source_lock.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

/// Runs the command with two signals at their defaults: we ignore SIGPIPE, but the command must not
/// outlive its reader, and where we have inherited SIGCHLD ignored, its status would be lost.
static int runCommand(const char* szCmd) {
    const auto pipeBefore = std::signal(SIGPIPE, SIG_DFL);
    const auto childBefore = std::signal(SIGCHLD, SIG_DFL);
    const int rc = std::system(szCmd);
    std::signal(SIGCHLD, childBefore);
    std::signal(SIGPIPE, pipeBefore);
    return rc;
}

I32 copyViaOS(CONNECT_PARAMS* pcp, CopyParams* cP) {
    const char* const pszSource = cP->sourceFile;
    const char* const pszDest = cP->destFile;
    const char* const pszCommand = cP->szSysCommand;
    if (Quiet == 0)
        displayConsoleMessage("Copying %s => %s using system command '%s'", pszSource, pszDest,
                              pszCommand);

    static char szCmd[SYSTEM_COMMAND_SIZE + PATH_SIZE + PATH_SIZE];
    if (std::strlen(pszCommand) + std::strlen(pszSource) + std::strlen(pszDest) + 3 >
        sizeof szCmd) {
        displayConsoleMessage("System copy command line is too long.");
        return 1;
    }
    std::snprintf(szCmd, sizeof szCmd, "%s %s %s", pszCommand, pszSource, pszDest);
    if (managerFileOpen(pszSource, KXSRVSourceOpenMode, pcp->s) < 0) {
        displayConsoleMessage("Source path invalid or inaccessible.");
        return 1;
    }
    I32 rc = lockSourceHeader(pcp->s);
    if (rc != 0) {
        displayConsoleMessage("Unable to lock source repository, system copy aborted.");
        return rc;
    }
    rc = runCommand(szCmd);
    if (unlockSourceHeader(pcp->s) != 0)
        displayConsoleMessage("Error unlocking source repository.");
    managerFileClose(pcp->s);
    if (rc == 0 && Quiet == 0)
        displayConsoleMessage("\nRepository %s copied to %s using system command '%s'.", pszSource,
                              pszDest, pszCommand);
    return rc;
}

/// A stream on the open file, which is closed when there can be none; null for a failed open too.
static std::FILE* streamOn(int fd) {
    if (fd < 0)
        return nullptr;
    std::FILE* const hf = fdopen(fd, "w+");
    if (hf == nullptr)
        close(fd);
    return hf;
}

std::FILE* openResultsFile(const char* szFileName) {
    return streamOn(open(szFileName, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
}

std::FILE* basicOpenTempFile(const char* szFileName) {
    int fd = open(szFileName, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno == EEXIST) {
        fd = open(szFileName, O_RDWR | O_TRUNC | O_CLOEXEC, 0666);
        printTo(stdout, "2nd open returned %d, errno = %d.\n", fd, errno);
    }
    return streamOn(fd);
}
