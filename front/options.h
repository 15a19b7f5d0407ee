// The second stage of every command: reads and checks the modifiers, prints the banner, and hands
// over to dispatch.h.
#pragma once

#include "front/types.h"

/// The one result by which a stage asks for the banner, the usage text and exit status 1.
inline constexpr I32 SHOW_USAGE = -999;

/// Operation codes.
inline constexpr int OPERATION_STATS = 1;
inline constexpr int OPERATION_LIST = 2;
inline constexpr int OPERATION_STOP = 3;
inline constexpr int OPERATION_COPY = 4;
inline constexpr int OPERATION_OPTIONS = 5;
inline constexpr int OPERATION_BENCH = 6;
inline constexpr int OPERATION_TEST = 7;

/// argv[0] is the command word, `operation` one of the OPERATION_ codes. Returns the operation's
/// result; -1 for a value that is well formed but not acceptable and for a failed server step, each
/// told by its message; or SHOW_USAGE for a malformed command line.
I32 processCommandLine(int argc, char** argv, int operation);
