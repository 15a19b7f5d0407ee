#include "tests/run_program.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

const char banner[] = "\nKXADMIN 7.0a\nBy the kxadmin authors\nLocale: C\n";

/// What a program starts with, put together before the fork: the child may not allocate.
struct Start {
    Start(const std::string& program, const Arguments& arguments, const Environment& environment) {
        argv.push_back(const_cast<char*>(program.c_str()));
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        for (const auto& [name, value] : environment) // the first setting of a name counts
            settings.push_back(name + "=" + value);
        settings.push_back("LC_ALL=C");
        for (char** p = environ; *p != nullptr; ++p)
            if (std::strncmp(*p, "LC_", 3) != 0 && std::strncmp(*p, "KXSRV_", 6) != 0)
                settings.push_back(*p);
        for (std::string& setting : settings)
            envp.push_back(setting.data());
        envp.push_back(nullptr);
    }

    [[noreturn]] void run() {
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }

    std::vector<char*> argv;
    std::vector<std::string> settings;
    std::vector<char*> envp;
};

static int exitStatus(pid_t process) {
    int status = 0;
    waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Reads both pipes to their ends.
static void collect(int out, int err, Outcome* pOutcome) {
    pollfd ends[] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
    std::string* const texts[] = {&pOutcome->out, &pOutcome->err};
    char buffer[4096];
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        poll(ends, 2, -1);
        for (int i = 0; i < 2; ++i) {
            if (ends[i].fd < 0 || ends[i].revents == 0)
                continue;
            const ssize_t n = read(ends[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                texts[i]->append(buffer, static_cast<std::size_t>(n));
            } else {
                close(ends[i].fd);
                ends[i].fd = -1;
            }
        }
    }
}

Outcome runProgram(const std::string& program, const Arguments& arguments,
                   const Environment& environment, const std::string& input) {
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        std::abort();
    Start start(program, arguments, environment);
    const pid_t process = fork();
    if (process < 0)
        std::abort();
    if (process == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        start.run();
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (write(in[1], input.data(), input.size()) != static_cast<ssize_t>(input.size()))
        std::abort();
    close(in[1]);
    Outcome outcome;
    collect(out[0], err[0], &outcome);
    outcome.status = exitStatus(process);
    return outcome;
}

Outcome runKxadmin(const Arguments& arguments, unsigned port, const std::string& input) {
    return runProgram(KXADMIN_PROGRAM, arguments, {{"KXSRV_CTRL_PORT", std::to_string(port)}},
                      input);
}

TerminalRun::TerminalRun(const std::string& program, const Arguments& arguments,
                         const Environment& environment) {
    Start start(program, arguments, environment);
    process = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (process == 0)
        start.run();
    if (process < 0) // a signal for process -1 would reach every process there is
        std::abort();
}

TerminalRun::~TerminalRun() {
    if (process > 0) {
        kill(process, SIGKILL);
        exitStatus(process);
    }
    close(terminal);
}

bool TerminalRun::readMore() {
    char buffer[4096];
    const ssize_t n = read(terminal, buffer, sizeof buffer);
    if (n > 0)
        output.append(buffer, static_cast<std::size_t>(n));
    return n > 0;
}

bool TerminalRun::waitFor(const std::string& text) {
    while (output.find(text) == std::string::npos)
        if (!readMore())
            return false;
    return true;
}

bool TerminalRun::echoes() const {
    termios settings{};
    tcgetattr(terminal, &settings);
    return (settings.c_lflag & ECHO) != 0;
}

bool TerminalRun::waitForEcho(bool fOn) {
    // The switch is made by another process and leaves no other sign.
    for (siginfo_t ended{}; echoes() != fOn && ended.si_pid == 0; usleep(1000))
        waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOHANG | WNOWAIT);
    return echoes() == fOn;
}

void TerminalRun::type(const std::string& keys) const {
    if (write(terminal, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size()))
        std::abort();
}

int TerminalRun::finish() {
    while (readMore())
        continue;
    const int status = exitStatus(process);
    process = -1;
    return status;
}
