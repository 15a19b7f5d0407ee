// The client side of the protocol: one function per request, connecting, and what is learned on the
// way. Exactly one request is in flight in the whole process, over all connections.
//
// Results: 0 or more on success; negative on failure: a local code below, negated (the connection
// is then closed where the table says so); a system error of the server's host, negated; or a
// protocol error of the server as it came. After a server's error the connection is usable.
//
// `s` is the socket of a connected record. It keeps its number when the client closes it after a
// failure; until another connection gets that number, a request on it is LOCAL_NOT_SENT and touches
// no descriptor.
#pragma once

#include "client/protocol.h"

// clang-format off
/// Local codes, what they mean, and what becomes of the connection.
enum LocalCode : U32 {
    LOCAL_DATA_NOT_RECEIVED = 240,   // result data not received whole: closed
    LOCAL_REPLY_TOO_LONG = 241,      // lengths that add up to more than MAX_REPLY_DATA: closed
    LOCAL_HEADER_NOT_RECEIVED = 242, // reply header not received whole: closed
    LOCAL_NOT_SENT = 243,            // request not sent: closed
    LOCAL_GREETING_FAILED = 244,     // no identifier: closed; no address or no data limit: as that request left it
    LOCAL_NOT_CONNECTED = 245,       // no connection could be made
    LOCAL_SOCKETS_NOT_READY = 246,   // the socket layer is not initialised
    LOCAL_REFUSED = 247,             // connection identifier 0: closed
    LOCAL_WRONG_LENGTH = 249,        // result data of a length that the request does not allow: open
    LOCAL_LIMIT_UNKNOWN = 250,       // no data limit before a read or write: as that request left it
    LOCAL_BAD_ARGUMENT = 255,        // an argument missing or too long, a type reply too short: open
};
// clang-format on

/// System errors of the server's host that commands tell apart, as results.
inline constexpr I32 SERVER_NOT_FOUND = -2;
inline constexpr I32 SERVER_ACCESS_DENIED = -5;
inline constexpr I32 SERVER_RANGE_LOCKED = -33;

/// Room for the version text that a server sends with its type.
inline constexpr std::size_t SERVER_VERSION_SIZE = 1024;

// clang-format off
//     name                              holds                                    written by
extern U32 ManagerConnectRetries;       // attempts of managerConnectToPort, 30   strict_main
extern U32 ManagerDataLimit;            // most data per read or write, 0: unknown managerGetMaxData
extern U32 ManagerLocalIP;              // this client's address, in wire order    managerGetInternetAddress
// clang-format on

// Connecting (kxclient.cpp).

/// Connects `pcp->host` at the port that KXSRV_CTRL_PORT names, 4800 when it is not set; sets
/// pcp->s, negative when there is no connection.
I32 managerConnect(CONNECT_PARAMS* pcp);

/// Connects at `portNumber`: up to ManagerConnectRetries attempts a second apart, shown as
/// progress; in file mode one attempt, whose failure goes to the report file, which is then closed.
I32 managerConnectToPort(CONNECT_PARAMS* pcp, U16 portNumber);

/// Learns the server's type and the data limit. Returns 0, -1 after "Error querying server", or
/// -LOCAL_GREETING_FAILED.
I32 getServerInfo(CONNECT_PARAMS* pcp);

/// The server's type, 0 to 3, or -1. The version text goes to the SERVER_VERSION_SIZE bytes at
/// `serverVersion`, cut to fit.
I32 BasicQueryServerType(I32 s, char* serverVersion);

/// The server's type as it came.
I32 managerQueryServerType(I32 s, char* serverVersion);

/// Lowers ManagerDataLimit to what this server takes, and returns it.
I32 managerGetMaxData(I32 s);

U32 managerFileMaxData();

/// Result of the last whole reply, as the function of its request would return it.
I32 managerReplyResult();

/// Says goodbye and closes the connection in every case. Returns 0 after a complete reply.
I32 managerDisconnect(I32 s);

/// Closes the connection without a word, if the client still has it.
void managerAbandon(I32 s);

/// Pad bytes that follow a parameter block of `size` bytes: none.
U32 padLengthFor(U32 size);

// Administration (admin_requests.cpp). Text buffers take MAX_REPLY_DATA bytes and get no NUL: the
// caller clears them first.

I32 managerVerifyPassword(I32 s, const char* userId, U32 userIdLength, const char* passwd,
                          U32 passwdLength);
/// Stores the address in wire order, followed by six zero bytes, and in ManagerLocalIP.
I32 managerGetInternetAddress(I32 s, U8* buffer10);
/// As learned at connect; no request.
I32 managerInternetAddress(U8* buffer10);
I32 managerGetKXSRVStats(I32 s, char* sb);
/// The number of connections on success. A server's error comes back as it is, with the text that
/// came with it in `sb`, and leaves the error record alone.
I32 managerGetConnectionList(I32 s, char* sb);
I32 managerGetConnectionStats(I32 s, U32 connNum, char* sb);
I32 managerGetLockList(I32 s, U32 connNum, char* sb);
I32 managerGetOptions(I32 s, char* buf);
I32 managerKillConnection(I32 s, U32 connNum);
I32 managerSetLogLevel(I32 s, U32 logLevel);
/// 0 once a whole reply has come, whatever it says.
I32 managerStopServer(I32 s);
/// Fills versionStr, cut to fit, and versionId as it came; versionId is 0 when the reply has none.
I32 managerGetVersion(CONNECT_PARAMS* pcp);

// Files (file_requests.cpp). A connection has at most one open file, and every request but open,
// create and volume space works on it. Names hold at most MAX_FILE_NAME characters. Reads and
// writes are split at ManagerDataLimit, which is learned first if need be; data start at
// byteBuffer + bufferOffset.

/// `s` on success; the server interprets the mode.
I32 managerFileOpen(const char* fileName, U16 accessMode, I32 s);
/// Creates the file and closes it again.
I32 managerFileCreate(const char* fileName, I32 s);
I32 managerFileClose(I32 s);
/// Bytes read, fewer than asked at the end of the file. After a failure the buffer holds anything.
I32 managerFileRead(I32 s, U32 filePosition, void* byteBuffer, U32 nBytesToRead, U32 bufferOffset);
I32 manager16GbFileRead(I32 s, U32 highOffset, U32 lowOffset, void* byteBuffer, U32 nBytesToRead,
                        U32 bufferOffset);
/// Bytes written, always all of them; what was written before a failure stays written.
I32 managerFileWrite(I32 s, U32 filePosition, const void* byteBuffer, U32 nBytesToWrite,
                     U32 bufferOffset);
I32 manager16GbFileWrite(I32 s, U32 highOffset, U32 lowOffset, const void* byteBuffer,
                         U32 nBytesToWrite, U32 bufferOffset);
/// Stores the 4 bytes of the end of file as they came, most significant first: a count of bytes.
I32 managerFileGetEOF(I32 s, U8* eofPosition);
/// A count of units of 16 bytes.
I32 manager16GbFileGetEOF(I32 s, U8* eofPosition);
I32 managerFile16GbLargeLock(I32 s, U32 highOffset, U32 lowOffset, U32 highLength, U32 lowLength);
I32 managerFile16GbLargeUnlock(I32 s, U32 highOffset, U32 lowOffset, U32 highLength, U32 lowLength);
/// Free space of the volume that holds `file`, a path of at most MAX_VOLUME_NAME characters; -1
/// after a message when the server reports blocks of 0 bytes.
I32 managerFileGetVolSpace(I32 s, const char* file, U32* freeBlocks, U32* bytesPerBlock);
