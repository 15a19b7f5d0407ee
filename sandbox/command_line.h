// What the person who starts the sandbox types: the options, checked, and the command to run
// beside it.
#pragma once

#include "client/protocol.h"

#include <string>
#include <vector>

inline constexpr const char* VERSION_TEXT = "sandbox 7.0";
inline constexpr U32 VERSION_NUMBER = 0x00000700;

struct Options {
    std::vector<std::string> addresses{"127.0.0.1"}; ///< dotted, all of them loopback
    U32 u32Port = 4800;                              ///< 0: any that is free
    std::string directory = ".";
    std::string password; ///< empty: the empty password proves the right
    U32 u32ServerType = SERVER_TYPE_KXSRV;
    U32 u32DataLimit = MAX_FILE_DATA;
    U32 u32MostConnections = 100;
    char** ppszCommand = nullptr; ///< the words behind "--", or null; they stay where argv has them
};

/// Fills `options`. Returns -1 to go on, or the exit status when all is said: 0 after --help or
/// --version, 2 after a complaint. The password is blotted out of `argv`.
int readCommandLine(int argc, char** argv, Options& options);
