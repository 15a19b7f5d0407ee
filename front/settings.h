// Every process-wide setting of the program, in one column: what it holds, who writes it, who
// reads it. One command runs a process, and the option stage has filled them in before it does.
#pragma once

#include "front/types.h"

inline constexpr U16 DEFAULT_PORT = 4800;

extern const char* const LocalHost; // host of a command that names none
extern const char* const Separator; // the line of 78 "=" around a server text

// clang-format off
//     name                                        holds                         written by       read by
extern CONNECT_PARAMS cp;                       // server of the command         options, client  options
extern CopyParams copyParams;                   // what to copy                  options          options
extern TestInfo testInfo;                       // what to test; the file mode   options, test    test, console, client
extern char Manager[PATH_SIZE];                 // bench's file on the server    options          bench
extern U16 KXSRVPort;                           // -P                            options          ops, client
extern U16 Quiet;                               // -q                            options          copy, source_lock, platform
extern int fBypassFreeSpaceChecking;            // -b or -Z 99                   options          copy
extern int fBypassActiveConnectionPrompting;    // -Z 100                        options          stop
extern U32 ServerType;                          // type of cp's server           options          ops, stop
extern I32 LogLevel;                            // level last set in this run    server_options   server_options
// clang-format on

/// Access modes, of every file opened to be read or probed and of every file opened to be written;
/// the server gives them their meaning.
inline constexpr U16 KXSRVSourceOpenMode = 0x42;
inline constexpr U16 KXSRVWriteMode = 0x12;
