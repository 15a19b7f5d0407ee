#include "front/console.h"
#include "front/options.h"
#include "front/process.h"

#include <csignal>

/// The exit status tells only whether the command was understood: one that was understood and
/// failed has said so and ends with 0 as well.
int main(int argc, char** argv) {
    startProcess();
    const I32 rc = runCommandLine(argc, argv);
    // What has interrupted copy -f; ^C ends its command only.
    if (EndingSignal == SIGHUP || EndingSignal == SIGTERM)
        raiseSignal(EndingSignal);
    return rc == SHOW_USAGE ? 1 : 0;
}
