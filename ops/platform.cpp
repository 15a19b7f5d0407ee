#include "ops/platform.h"

#include "client/kxclient.h"
#include "front/console.h"
#include "front/settings.h"
#include "ops/source_lock.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

// What the system command gets back: the limit of core dumps that we were started with, and the
// signals that are not blocked when it starts.
static rlimit coreLimit = {RLIM_INFINITY, RLIM_INFINITY};
static sigset_t signalsBefore;

void leaveNoCore() {
    if (prlimit(0, RLIMIT_CORE, nullptr, &coreLimit) != 0)
        return;
    // One byte, not none: a limit of 0 does not keep the kernel from handing the dump to a program
    // that collects them.
    rlimit limit = coreLimit;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 1);
    prlimit(0, RLIMIT_CORE, &limit, nullptr);
}

/// What must not end us while the command runs, unless it was ignored when we were started: the
/// lock would go before the command has.
static sigset_t interruptions() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int iSignal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        struct sigaction action;
        if (sigaction(iSignal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
            sigaddset(&signals, iSignal);
    }
    return signals;
}

/// The state that we were started in, for the command.
static void restoreState() {
    setSignalHandler(SIGPIPE, SIG_DFL); // we ignore it, but the command must not outlive its reader
    prlimit(0, RLIMIT_CORE, &coreLimit, nullptr);
    sigprocmask(SIG_SETMASK, &signalsBefore, nullptr);
}

/// Appends the children of `parent` to the `*pCount` processes, as long as there is room. Those
/// that one of its threads has started are not told, but come to us when it ends.
template<std::size_t N>
static void addChildren(pid_t parent, pid_t (&family)[N], std::size_t* pCount) {
    char szText[4096];
    std::snprintf(szText, sizeof szText, "/proc/%d/task/%d/children", parent, parent);
    const int fd = open(szText, O_RDONLY | O_CLOEXEC);
    const ssize_t length = fd < 0 ? 0 : read(fd, szText, sizeof szText - 1);
    if (fd >= 0)
        close(fd);
    // A blank stands behind each; what is behind the last one may be the head of a number.
    std::size_t whole = static_cast<std::size_t>(std::max<ssize_t>(length, 0));
    while (whole > 0 && szText[whole - 1] != ' ')
        --whole;
    szText[whole] = '\0';
    char* psz = szText;
    for (long pid; *pCount < N && (pid = std::strtol(psz, &psz, 10)) > 0;)
        family[(*pCount)++] = static_cast<pid_t>(pid);
}

/// Passes the signal on to all that `root` has started, and to `root` if that is not us, since a
/// shell that waits does not; to parents first, which could otherwise start the next thing. One
/// that is stopped is woken to take it. Returns how many there are; one that runs under another
/// user gets nothing.
static int signalFamily(pid_t root, int iSignal) {
    static pid_t family[1024];
    family[0] = root;
    std::size_t count = 1;
    for (std::size_t i = 0; i < count; ++i)
        addChildren(family[i], family, &count);
    int living = 0;
    for (std::size_t i = 0; i < count; ++i)
        if (family[i] != getpid() && (kill(family[i], iSignal) == 0 || errno == EPERM)) {
            kill(family[i], SIGCONT);
            ++living;
        }
    return living;
}

/// Takes an interruption, of which one that ends kxadmin is not forgotten for another, and passes
/// it on to the running command. What the terminal has sent the command has had itself, but for the
/// hang-up, which only the first process of a session gets.
static void takeInterruption(const siginfo_t& info, pid_t command, pid_t root) {
    if (EndingSignal != SIGHUP && EndingSignal != SIGTERM)
        EndingSignal = info.si_signo;
    const bool fOurs = info.si_code <= 0 || info.si_signo == SIGHUP;
    if (command > 0 && fOurs && signalFamily(root, info.si_signo) == 0)
        kill(command, info.si_signo); // there is no /proc that tells
}

/// Waits for the command, whose interruptions and SIGCHLD are in `signals`. After an interruption
/// it ends what the command has left behind to `root`, if that is us, and waits for that too, until
/// ^C is typed again. Other signals come twice by themselves, as from a terminal that is closed.
/// Returns the command's status.
static int awaitCommand(pid_t command, pid_t root, const sigset_t& signals) {
    int status = -1;
    for (bool fAgain = false;;) {
        int ended;
        pid_t pid;
        while ((pid = waitpid(-1, &ended, WNOHANG)) > 0)
            if (pid == command) {
                status = ended;
                command = 0;
            }
        if (command == 0 &&
            (EndingSignal == 0 || fAgain || root != getpid() || signalFamily(root, SIGTERM) == 0))
            return status;
        siginfo_t info;
        const int iSignal = sigwaitinfo(&signals, &info);
        if (iSignal > 0 && iSignal != SIGCHLD) {
            fAgain = command == 0 && (iSignal == SIGINT || iSignal == SIGQUIT);
            takeInterruption(info, command, root);
        }
    }
}

static bool hasChildren() {
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

/// As system(), of which it differs by what it does with signals: one that would end us meanwhile
/// is passed on to the command and recorded in EndingSignal.
static int runCommand(const char* szCmd) {
    sigset_t signals = interruptions();
    sigaddset(&signals, SIGCHLD);
    sigprocmask(SIG_BLOCK, &signals, &signalsBefore);
    // Where we have inherited it ignored, the command's status would be lost.
    setSignalHandler(SIGCHLD, SIG_DFL);
    // What a killed shell leaves behind comes to us, unless a shell that has become us has left us
    // children of its own: theirs would come too.
    const bool fAdopts = !hasChildren();
    if (fAdopts)
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t command = startShell(szCmd, restoreState);
    const int rc = command < 0 ? -1 : awaitCommand(command, fAdopts ? getpid() : command, signals);
    sigprocmask(SIG_SETMASK, &signalsBefore, nullptr);
    return rc;
}

static void noteFailedCommand(int rc) {
    if (rc == -1)
        noteEnding(ENDING_FAILED, "the system command could not be started");
    else if (WIFSIGNALED(rc))
        noteEnding(ENDING_FAILED, "the system command was ended by signal %d", WTERMSIG(rc));
    else
        noteEnding(ENDING_FAILED, "the system command failed with status %d", WEXITSTATUS(rc));
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
        displayMisuse("System copy command line is too long.");
        return 1;
    }
    std::snprintf(szCmd, sizeof szCmd, "%s %s %s", pszCommand, pszSource, pszDest);
    if (managerFileOpen(pszSource, KXSRVSourceOpenMode, pcp->s) < 0) {
        displayFailure("Source path invalid or inaccessible.");
        return 1;
    }
    I32 rc = lockSourceHeader(pcp->s);
    if (rc != 0) {
        displayFailure("Unable to lock source repository, system copy aborted.");
        return rc;
    }
    rc = runCommand(szCmd);
    if (unlockSourceHeader(pcp->s) != 0)
        displayFailure("Error unlocking source repository.");
    managerFileClose(pcp->s);
    if (rc != 0) {
        noteFailedCommand(rc);
        return rc;
    }
    recordEnding(ENDING_DONE);
    if (Quiet == 0)
        displayConsoleMessage("\nRepository %s copied to %s using system command '%s'.", pszSource,
                              pszDest, pszCommand);
    return 0;
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
