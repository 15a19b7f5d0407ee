// The command operations: one per command, on a connected server, and what they share. Each prints
// its own messages and returns 0, or what its comment says. A file that a failed operation leaves
// open on its connection is closed with that.
#pragma once

#include "front/types.h"

// Shared (ops.cpp).

/// Connects `pcp` to its host at the command's port. 0 when it has a socket afterwards; -1 after a
/// message. The greeting may have failed all the same, which the next request then finds.
I32 connectToKxsrv(CONNECT_PARAMS* pcp);

/// Takes the first line of the file, or of standard input for "-", as the password. 0, or -1 after
/// a message: it cannot be read, others may read or change it, standard input is a terminal, which
/// would show it, or its line is empty, too long or holds a NUL.
I32 readPasswordFile(const char* pszFile, PasswordStruct* passwd);

/// Proves the administrator's right to the server: with the password of `passwd`, or else with one
/// typed at a prompt that does not echo. 0 when the server accepts it, -1 after a message. At the
/// end of input kxadmin sends the empty password, kxadmin-strict none. The one check of a run: the
/// password is wiped then.
I32 verifyPassword(CONNECT_PARAMS* pcp, PasswordStruct* passwd);

/// Name of logging level `ul`; a level without a name is its number in two columns, valid until
/// the next call.
const char* logLevelDescription(U32 ul);

// stat and list (listings.cpp).

/// Always 0; what failed is told by a message, here and in the listings.
I32 OperationStats(CONNECT_PARAMS* pcp);
/// `listcommand` 0 lists the connections; 's' shows the statistics and 'l' the locks of `connNum`.
I32 OperationList(CONNECT_PARAMS* pcp, char listcommand, U16 connNum);
/// How many connections the server has; 0 also when it does not say. Prints nothing.
I32 activeConnections(CONNECT_PARAMS* pcp);

// opts (server_options.cpp).

/// Shows the options, or with `changeLogFlag` sets the logging level: -1 when that is cancelled.
I32 OperationOptions(CONNECT_PARAMS* pcp, int changeLogFlag, int logLevel, PasswordStruct* passwd);

// stop (stop.cpp).

/// Stops the server, or with a `killconn` of 0 or more ends that connection. Always 0. A stopped
/// server's connection is closed without a request.
I32 OperationStop(CONNECT_PARAMS* pcp, int killconn, PasswordStruct* passwd);

// test (test.cpp).

/// Tests whether the file is a repository; the outcome is a message or, in file mode, the report
/// file, which is then closed. -1 on a PXSRV.
I32 OperationTest(CONNECT_PARAMS* pcp, TestInfo* pti);
/// Whether `path` can be copied: 0 when it opens, has 256 bytes and begins with the check pattern,
/// else -1 after a message.
I32 validateSource(CONNECT_PARAMS* pcp, const char* path);

// copy (copy.cpp).

/// Copies the repository. 0; 1 when it failed or was cancelled; -1 on a PXSRV.
I32 OperationCopy(CONNECT_PARAMS* pcp, PasswordStruct* passwd, CopyParams* cP);

// bench (bench.cpp).

/// Bounds of its request sizes, in bytes.
inline constexpr I32 BENCH_FIRST_SIZE = 1024;
inline constexpr I32 BENCH_LAST_SIZE = 36864;

/// Measures reads of BENCH_FIRST_SIZE bytes up to `largestChunkSize`, of each size `sweepSize`
/// bytes or a little more at each of 8 offsets, into the results file. Always 0.
I32 OperationBench(CONNECT_PARAMS* pcp, U32 sweepSize, I32 largestChunkSize, const char* benchLog);
