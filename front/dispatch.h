// The second half of every command, behind its modifiers: connects to the server (to two of them
// for copy), checks its type, runs the one operation and disconnects.
#pragma once

#include "front/types.h"

/// What the modifiers ask for, beyond the process-wide settings.
struct Modifiers {
    U16 logLevel = 0; // of opts -s, when changeLogFlag is 1
    U16 changeLogFlag = 0;
    U16 connNum = 0; // of list -s or -l
    char listcommand = 0;
    int killconn = -1;
    PasswordStruct passwd{};
    U32 sweepSize = 4096;
    I32 largestChunkSize = 4096;
    char benchLog[PATH_SIZE] = "kxbench.log";
};

/// Result of a step of the front end, beside SHOW_USAGE and -1: go on.
inline constexpr I32 ACCEPTED = 0;

/// Runs `operation` for the arguments of argv from iOptInd on: a host, or the two paths of copy,
/// whose colons become NULs. Returns the operation's result; -1 for a failed server step, told by
/// its message; or SHOW_USAGE for a copy with fewer than two paths.
I32 connectAndRun(int argc, char** argv, int operation, Modifiers* pModifiers);
