// Blocking IPv4 stream sockets: connect with retries, send all, receive all, byte order, and the
// calls that a server needs. The layer keeps no state: a connection is its descriptor, and the
// caller owns it. Wrappers return what the system call returned (-1 with errno set on failure)
// unless their comment says otherwise; addresses are 32-bit values in network order.
#pragma once

#include "front/types.h"

#include <netdb.h>
#include <netinet/in.h>

/// Failures of socketConnectToHost.
inline constexpr I32 SOCKET_NOT_CREATED = -1;
inline constexpr I32 SOCKET_NOT_CONNECTED = -2;
inline constexpr I32 SOCKET_HOST_UNKNOWN = -4;

/// Send and receive buffer of every connection that the client makes, in bytes.
inline constexpr int SOCKET_BUFFER_SIZE = 12288;

/// Prepares the socket library; there is nothing to prepare on this platform. Always 0.
I32 socketInitialize();

/// Puts /dev/null where a standard stream is closed: a socket that took its number would be sent
/// our messages, and read for what is typed.
void socketSpareStandardStreams();

/// Connects to `host`, a dotted address or a name to look up, at the low 16 bits of `port`. An
/// attempt that times out is followed by another, TimeoutAttempts in all.
/// Returns the descriptor of a blocking socket with keep-alive and SOCKET_BUFFER_SIZE buffers that
/// a child process does not inherit, or one of the three failures above.
I32 socketConnectToHost(const char* host, U32 port);

/// Sends all `ic` bytes at `pb`. Returns `ic` (0 when `ic` is 0 or less), or -errno; a peer that is
/// gone is -EPIPE, never a signal. The descriptor stays open.
I32 socketSendBuffer(I32 iSock, const void* pb, I32 ic);

/// As socketSendBuffer, for all `ic` bytes at `pb` and behind them all `icMore` at `pbMore`, in one
/// call of the system. Returns the sum of both.
I32 socketSendBuffers(I32 iSock, const void* pb, I32 ic, const void* pbMore, I32 icMore);

/// Receives `ic` bytes into `pb`. Returns `ic`, fewer when the peer closed first, 0 when `ic` is 0
/// or less, or -errno. The descriptor stays open.
I32 socketReceiveBuffer(I32 iSock, void* pb, I32 ic);

I32 socketClose(I32 iSock);

/// Host order to network order and back.
U32 socketHtoNL(U32 u32);
U32 socketNtoHL(U32 u32);
U16 SocketHtoNS(U16 u16);
U16 SocketNtoHS(U16 u16);

I32 SocketKeepAlive(I32 iSock);

/// Sets the send buffer to `ic` bytes and, only if that succeeds, the receive buffer. Returns 0 or
/// the failing result.
I32 SocketSetBufferSize(I32 iSock, int ic);

/// Leaves the system's default (small segments wait for an acknowledgement). Always 0.
I32 SocketNoDelay(I32 iSock);

/// Nonzero `fToggle` makes the descriptor non-blocking, 0 makes it blocking.
I32 SocketToggleBlocking(I32 iSock, int fToggle);

/// The current errno.
int SocketErrorNumber();

/// A new IPv4 stream socket that a child process does not inherit.
I32 SocketSocket();

/// Binds to `iPort` on every local address.
I32 SocketBind(I32 iSock, int iPort);

I32 SocketListen(I32 iSock, int ic);

/// Takes the next connection; its descriptor is not inherited by a child process.
I32 SocketAccept(I32 iSock);

/// Ends both directions; a thread that waits in send or receive wakes up.
I32 SocketShutdown(I32 iSock);

/// Turns lingering off.
I32 SocketLinger(I32 iSock);

I32 SocketReuse(I32 iSock);

/// Result of receiving one byte without taking it: 1, 0 when the peer closed, or -1.
I32 SocketPeek(I32 iSock);

I32 SocketGetPeer(I32 iSock, sockaddr_in* pisaddr);

/// Dotted text to address; INADDR_NONE when it is none (and for 255.255.255.255).
U32 socketAsciiToInet(const char* psz);

/// Writes the address as dotted text. Always 0.
I32 socketInetToAscii(U32 u32Address, char (&psz)[INET_ADDRSTRLEN]);

/// Looks the address up and stores the official host name, cut to fit. Returns 0, or -1 and the
/// empty text.
I32 socketGetHostByAddress(U32 u32Address, char (&psz)[NI_MAXHOST]);
