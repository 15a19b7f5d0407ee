// The main thread of the sandbox: it listens, starts a thread for each connection, hears signals
// and the command's end, and takes everything down again.
#pragma once

#include "sandbox/command_line.h"

/// Serves as the options say until the end. Returns the exit status: 0, 1 after a complaint, or
/// what the command ended with.
int runServer(const Options& options);
