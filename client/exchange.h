// Inside the protocol client: the one exchange that every request runs, the buffers it works on,
// the last-error record, and which sockets the client still has. Nobody outside client/ includes
// this but its tests.
#pragma once

#include "client/kxclient.h"

// clang-format off
//     name                                      holds
extern PADDED_REQUEST_HEADER Request;         // the request being sent: no parameters, one number, a name, a password
extern PADDED_REQUEST_2PARAMETER Request2Param; // reads and writes
extern PADDED_REQUEST_4PARAMETER Request4Param; // locks
extern PADDED_REPLY_HEADER Reply;             // the last reply, its header in host order

// The last error. Local failures and errors of the server fill it, but for the connection list's; a
// success leaves it alone.
extern U32 ManagerErrno;                      // local code, protocol error without its sign, or 0
extern U32 ManagerSysErrno;                   // errno of a local failure, system error of the server's host, or 0
extern char ManagerErrorText[MAX_REPLY_DATA]; // the text that goes with it
// clang-format on

/// File data that travel without being copied on the way.
struct FileData {
    const U8* pSent = nullptr; // go behind the request's parameters, as the last of them
    U32 u32Sent = 0;
    U8* pReceived = nullptr; // where a success reply's data go that are no more than u32Room bytes
    U32 u32Room = 0;
};

/// Sends the request whose record begins with the header at `pRequest`, with `u32ParameterLength`
/// parameter bytes already in place behind its header, and receives the whole reply into Reply, its
/// data where `data` says. Returns 0 whatever the reply's Result, or a negated local code.
I32 transact(I32 s, REQUEST_HEADER* pRequest, U32 u32Opcode, U32 u32ParameterLength,
             const FileData& data = {});

/// As transact; then takes the reply's Result: 0, or the server's error.
I32 exchange(I32 s, REQUEST_HEADER* pRequest, U32 u32Opcode, U32 u32ParameterLength,
             const FileData& data = {});

/// Records local code `u32Code` with the current errno, and returns it negated.
I32 localFailure(U32 u32Code);

/// Stores the number and the text of a system error.
void managerSetSysError(U32 err);

/// Takes `s` for the client's own; false when it has as many as it can have.
bool holdSocket(I32 s);

/// Numbers of the wire at any address.
void putNumber(void* pTarget, U32 u32);
U32 getNumber(const void* pSource);
