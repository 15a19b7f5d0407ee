#include "front/kxadmin.h"
#include "front/options.h"
#include "front/version.h"
#include "net/socket.h"

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>

/// A core dump would hold the password, if one was given. One byte, not none: a limit of 0 does not
/// keep the kernel from handing the dump to a program that collects them.
static void leaveNoCore() {
    rlimit limit;
    if (prlimit(0, RLIMIT_CORE, nullptr, &limit) == 0) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 1);
        prlimit(0, RLIMIT_CORE, &limit, nullptr);
    }
}

/// Every message is flushed, so a buffer serves a terminal too; being given one, the library asks
/// the system neither for memory nor what it writes to.
static void bufferOutput() {
    static char buffer[BUFSIZ];
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}

/// The exit status tells only whether the command was understood: one that was understood and
/// failed has said so and ends with 0 as well.
int main(int argc, char** argv) {
    socketSpareStandardStreams();
    std::signal(SIGPIPE, SIG_IGN); // a reader that goes away does not end a copy half way
    leaveNoCore();
    bufferOutput();
    std::setlocale(LC_ALL, "");
    if (argc >= 2 && processOperation(argc, argv) != SHOW_USAGE)
        std::exit(0);
    displayKxadminBanner();
    printUsage();
    std::exit(1);
}
