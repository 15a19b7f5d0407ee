#include "sandbox/command.h"

#include "sandbox/log.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

static std::string besideThisProgram(const char* pszWord) {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    return (program.parent_path() / pszWord).string();
}

/// 0 or an error number; `process` is set on success.
static int spawn(char** ppszCommand, const posix_spawnattr_t& attributes, pid_t& process) {
    const char* pszWord = ppszCommand[0];
    const int iError = posix_spawnp(&process, pszWord, nullptr, &attributes, ppszCommand, environ);
    // EACCES is also what a folder of PATH that may not be entered leaves behind.
    if ((iError != ENOENT && iError != EACCES) || *pszWord == '\0' ||
        std::strchr(pszWord, '/') != nullptr)
        return iError;
    const int iBeside = posix_spawn(&process, besideThisProgram(pszWord).c_str(), nullptr,
                                    &attributes, ppszCommand, environ);
    return iBeside == ENOENT ? iError : iBeside;
}

pid_t startCommand(char** ppszCommand, U32 u32Port) {
    setenv("KXSRV_CTRL_PORT", std::to_string(u32Port).c_str(), 1);
    sigset_t all, none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
    pid_t process = -1;
    const int iError = spawn(ppszCommand, attributes, process);
    posix_spawnattr_destroy(&attributes);
    if (iError == 0)
        return process;
    complain("cannot run %s: %s", ppszCommand[0], std::strerror(iError));
    return -(iError == ENOENT ? STATUS_NOT_FOUND : STATUS_NOT_EXECUTABLE);
}

int commandStatus(pid_t process) {
    int iStatus = 0;
    if (waitpid(process, &iStatus, WNOHANG) != process)
        return -1;
    return WIFSIGNALED(iStatus) ? 128 + WTERMSIG(iStatus) : WEXITSTATUS(iStatus);
}
