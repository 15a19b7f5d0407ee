#include "front/process.h"

#include "front/console.h"
#include "front/kxadmin.h"
#include "front/options.h"
#include "front/version.h"
#include "net/socket.h"
#include "ops/platform.h"

#include <clocale>
#include <csignal>
#include <cstdio>

/// Every message is flushed, so a buffer serves a terminal too; being given one, the library asks
/// the system neither for memory nor what it writes to.
static void bufferOutput() {
    static char buffer[BUFSIZ];
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}

void startProcess() {
    socketSpareStandardStreams();
    setSignalHandler(SIGPIPE, SIG_IGN); // a reader that goes away does not end a copy half way
    leaveNoCore();
    bufferOutput();
    std::setlocale(LC_ALL, "");
}

I32 runCommandLine(int argc, char** argv) {
    const I32 rc = argc >= 2 ? processOperation(argc, argv) : SHOW_USAGE;
    if (rc == SHOW_USAGE) {
        displayKxadminBanner();
        printUsage();
    }
    return rc;
}
