#include "tests/run_program.h"

#include "tests/expect.h"
#include "tests/scratch.h"

#include <csignal>
#include <iostream>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

RunResult runProgram(const string& program, const Arguments& arguments,
                     const Environment& environment, const string& input) {
    const Scratch scratch;
    scratch.write("in", input);
    const string in = "cat " + scratch.path("in"), out = scratch.path("out"),
                 err = scratch.path("err");
    Arguments words{"-c", in + " | \"$0\" \"$@\" >" + out + " 2>" + err, program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const int status = TerminalRun("/bin/sh", words, environment).finish();
    return {status, readFile(out), readFile(err)};
}

Environment serverAt(unsigned port) {
    return {{"KXSRV_CTRL_PORT", std::to_string(port)}};
}

RunResult runKxadmin(const string& line, unsigned port, const string& input,
                     const string& directory) {
    Environment environment = serverAt(port);
    for (const unsigned n : {30U, 31U, 79U, 80U, 1023U, 1024U})
        environment["x" + std::to_string(n)] = string(n, 'x');
    const string script = "cd " + directory + "; \"$0\" " + line + "\nstatus=$?; cat; exit $status";
    RunResult run = runProgram("/bin/sh", {"-c", script, KXADMIN_PROGRAM}, environment, input);
    run.out = abridged(run.out);
    return run;
}

static void replaceAll(string& text, const string& part, const string& by) {
    for (auto at = text.find(part); !part.empty() && at != text.npos; at = text.find(part, at))
        text.replace(at, part.size(), by);
}

string abridged(string text) {
    static const string usage = runProgram(KXADMIN_PROGRAM, {}).out;
    replaceAll(text, usage, "[usage]\n");
    replaceAll(text, usage.substr(0, usage.find("\nUsage")), "[banner]\n");
    return text;
}

TerminalRun::TerminalRun(const string& program, const Arguments& arguments,
                         const Environment& environment) {
    // A command line of env, put together before the fork: the child may not allocate.
    Arguments words{"/usr/bin/env", "-i", string("PATH=") + std::getenv("PATH"), "LC_ALL=C"};
    for (const auto& [name, value] : environment)
        words.push_back(name + "=" + value);
    words.push_back(program);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    process = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (process == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
    if (process < 0) // a signal for process -1 would reach every process there is
        std::abort();
}

TerminalRun::~TerminalRun() {
    if (process > 0) {
        kill(process, SIGKILL);
        finish();
        if (testing::Test::HasFailure())
            std::cout << "A program printed at last:\n"
                      << output.substr(output.size() < 1000 ? 0 : output.size() - 1000);
    }
    close(terminal);
}

bool TerminalRun::readMore() {
    pollfd polled{terminal, POLLIN, 0};
    if (poll(&polled, 1, 60000) == 0) {
        ADD_FAILURE() << "silent for a minute, having printed:\n" << output;
        kill(-process, SIGKILL); // and what it started
    }
    char buffer[4096];
    const ssize_t n = read(terminal, buffer, sizeof buffer);
    for (ssize_t i = 0; i < n; ++i)
        if (buffer[i] == '\n' && output.ends_with('\r'))
            output.back() = '\n';
        else
            output += buffer[i];
    return n > 0;
}

bool TerminalRun::waitFor(const string& text) {
    while (output.find(text) == string::npos)
        if (!readMore())
            return false;
    return true;
}

bool TerminalRun::echoes() const {
    termios settings{};
    tcgetattr(terminal, &settings);
    return (settings.c_lflag & ECHO) != 0;
}

bool TerminalRun::hasEnded() const {
    siginfo_t ended{};
    waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOHANG | WNOWAIT);
    return ended.si_pid != 0;
}

bool TerminalRun::waitForEcho(bool fOn) {
    // The switch is made by another process and leaves no other sign.
    eventually([&] { return echoes() == fOn || hasEnded(); }, "a switch of the echo");
    return echoes() == fOn;
}

void TerminalRun::type(const string& keys) const {
    if (write(terminal, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size()))
        std::abort();
}

int TerminalRun::finish() {
    while (readMore())
        continue;
    return collectStatus();
}

int TerminalRun::hangUp() {
    close(terminal);
    terminal = -1;
    eventually([&] { return hasEnded(); }, "an end after a hang-up");
    kill(process, SIGKILL);
    return collectStatus();
}

int TerminalRun::collectStatus() {
    int status = 0;
    waitpid(process, &status, 0);
    process = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
