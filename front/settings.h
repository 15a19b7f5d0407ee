// Every process-wide setting of the program, in one column: what it holds, who writes it, who
// reads it. One command runs a process, and the option stage has filled them in before it does.
#pragma once

#include "front/types.h"

inline constexpr U16 DEFAULT_PORT = 4800;

/// How a command ended; from 0 on the exit status of kxadmin-strict.
enum Ending : int {
    ENDING_OPEN = -1,     ///< nothing has been done or said yet: a failure if it stays so
    ENDING_DONE = 0,      ///< the command has done its work
    ENDING_MISUSED = 1,   ///< the command line was not understood, or holds what cannot be used
    ENDING_UNREACHED = 2, ///< no connection to a server, or none that it wants to serve
    ENDING_FAILED = 3,    ///< refused or failed
    ENDING_DECLINED = 4,  ///< the administrator answered no, or not at all
};

extern const char* const LocalHost; // host of a command that names none
extern const char* const Separator; // the line of 78 "=" around a server text

// clang-format off
//     name                                        holds                         written by       read by
extern CONNECT_PARAMS cp;                       // server of the command         dispatch, client dispatch
extern CopyParams copyParams;                   // what to copy                  front            front
extern TestInfo testInfo;                       // what to test; the file mode   options, console front, ops, client
extern char Manager[PATH_SIZE];                 // bench's file on the server    options          bench
extern U16 KXSRVPort;                           // -P                            options          ops, client
extern U16 Quiet;                               // -q                            options          copy, source_lock, platform
extern int fBypassFreeSpaceChecking;            // -b or -Z 99                   options          copy
extern int fBypassActiveConnectionPrompting;    // -Z 100                        options          stop
extern U32 ServerType;                          // type of cp's server           dispatch         ops, stop
extern I32 LogLevel;                            // level last set in this run    server_options   server_options
extern Ending CommandEnding;                    // how the command ended         recordEnding     strict_main
extern int EndingSignal;                        // that interrupted copy -f, 0   platform         main, strict_main
// What kxadmin-strict is asked for; in kxadmin each keeps its initial value.
extern int fStrict;                             // 1: this is kxadmin-strict     strict_main      console, client, ops
extern int fProgress;                           // 0: progress is not shown      strict_main      console
extern int fVerify;                             // --verify                      strict_main      options, copy
extern const char* PasswordFile;                // --password-file, or null      strict_main      options
extern int TimeoutAttempts;                     // at a host that is silent      strict_main      socket
// clang-format on

/// Access modes, of every file opened to be read or probed and of every file opened to be written;
/// the server gives them their meaning.
inline constexpr U16 KXSRVSourceOpenMode = 0x42;
inline constexpr U16 KXSRVWriteMode = 0x12;
