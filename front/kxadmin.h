// The face of the program: the command word and what it stands for, and the usage text.
#pragma once

#include "front/types.h"

/// Runs the command whose word is argv[1]. Returns SHOW_USAGE for help and for an unknown word
/// (after saying so), else what the option stage returns.
I32 processOperation(int argc, char** argv);

/// Prints the usage text and flushes standard output.
void printUsage();
