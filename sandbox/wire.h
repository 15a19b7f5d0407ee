// The bytes of a reply: numbers in the order in which they travel, and what an answer can say.
// The sandbox has coding helpers of its own, so that a mistake in the client's shows here.
#pragma once

#include "client/protocol.h"
#include "net/socket.h"

inline constexpr U32 HEADER_SIZE = sizeof(REQUEST_HEADER);

/// Negative results. They keep clear of negated system errors and of the client's own codes.
enum ProtocolError : I32 {
    ERROR_MALFORMED = -201,          ///< parameter block of the wrong size or content
    ERROR_NOT_AUTHORISED = -202,     ///< the connection has not proved the password, or just failed
    ERROR_NO_SUCH_CONNECTION = -203, ///< no open connection has this number
    ERROR_OUT_OF_RANGE = -204,       ///< a level or a length that the server does not know
    ERROR_NO_FILE_OPEN = -205,       ///< a file request on a connection without a file
    ERROR_FILE_OPEN = -206,          ///< a second file on a connection that has one
};

/// What became of a request: 0, a system error (positive) or a protocol error (negative). Without
/// a text of its own a system error is sent with the host's text.
struct Outcome {
    I32 iResult = 0;
    const char* pszText = nullptr;
};

/// The 32-bit number at `p`, of any alignment.
inline U32 getNumber(const U8* p) {
    U32 u32;
    std::memcpy(&u32, p, sizeof u32);
    return socketNtoHL(u32);
}

/// The 64-bit number whose high half stands at `p` and whose low half follows.
inline U64 getWideNumber(const U8* p) {
    return U64{getNumber(p)} << 32 | getNumber(p + 4);
}

inline void putNumber(U8* p, U32 u32) {
    const U32 u32Wire = socketHtoNL(u32);
    std::memcpy(p, &u32Wire, sizeof u32Wire);
}
