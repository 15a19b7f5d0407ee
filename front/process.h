// What kxadmin and kxadmin-strict have in common as processes: how they begin, and how they run a
// command line.
#pragma once

#include "front/types.h"

/// Prepares streams, signals, core dumps and the locale. To be called first.
void startProcess();

/// Runs the command line behind argv[0] and, where it asks for it, prints banner and usage text.
/// Returns SHOW_USAGE then, else the command's result.
I32 runCommandLine(int argc, char** argv);
