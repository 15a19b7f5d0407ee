// What travels on the wire between a client and the server: request codes, record layouts, sizes
// and limits. Every number is 32 bits, most significant byte first. Nothing here runs.
//
//   client                                   server
//          <------ connection identifier (4 bytes, 0 refuses) ------
//          ------- Request_Header, parameters, pad bytes ---------->
//          <------ Reply_Header, result data, pad bytes ------------
//
// One request is answered by one reply before the next request is sent; the server sends nothing
// unasked but the identifier. A connection has at most one open file, and file requests name none.
#pragma once

#include "front/types.h"

/// Request codes; the ones missing from the sequence are not used.
enum RequestCode : U32 {
    REQUEST_FILE_OPEN = 1,
    REQUEST_FILE_CLOSE = 2,
    REQUEST_FILE_READ = 3,
    REQUEST_FILE_WRITE = 4,
    REQUEST_FILE_CREATE = 7,
    REQUEST_FILE_GET_EOF = 8,
    REQUEST_GET_MAX_DATA = 9,
    REQUEST_DISCONNECT = 10,
    REQUEST_VERIFY_PASSWORD = 11,
    REQUEST_GET_INTERNET_ADDRESS = 12,
    REQUEST_GET_KXSRV_STATS = 13,
    REQUEST_GET_CONNECTION_LIST = 14,
    REQUEST_GET_CONNECTION_STATS = 15,
    REQUEST_KILL_CONNECTION = 16,
    REQUEST_STOP_SERVER = 17,
    REQUEST_SET_LOG_LEVEL = 20,
    REQUEST_GET_LOCK_LIST = 21,
    REQUEST_GET_OPTIONS = 24,
    REQUEST_GET_VERSION = 25,
    REQUEST_FILE_GET_VOL_SPACE = 26,
    REQUEST_QUERY_SERVER_TYPE = 28,
    REQUEST_16GB_FILE_GET_EOF = 32,
    REQUEST_16GB_FILE_READ = 36,
    REQUEST_16GB_FILE_WRITE = 39,
    REQUEST_16GB_LARGE_LOCK = 47,
    REQUEST_16GB_LARGE_UNLOCK = 48,
};

/// Data area behind the fixed fields of every record, in bytes. The largest parameter block that a
/// client sends is a write of MAX_FILE_DATA bytes and its three numbers.
inline constexpr U32 DATA_AREA_SIZE = 65536;

/// Most result data and pad bytes, taken together, that a reply may carry.
inline constexpr U32 MAX_REPLY_DATA = 32768;

/// Most file data bytes that one read or write request may carry.
inline constexpr U32 MAX_FILE_DATA = 32768;

/// Longest names and identifications that a request carries, in characters without the NUL.
inline constexpr U32 MAX_FILE_NAME = 1023;
inline constexpr U32 MAX_VOLUME_NAME = 1024;
inline constexpr U32 MAX_USER_ID = 50;
inline constexpr U32 MAX_PASSWORD = 30;

struct Request_Header {
    U32 Opcode;
    U32 Pad_Length; ///< this client never pads
    U32 Parameter_Length;
};
using REQUEST_HEADER = Request_Header;

struct Reply_Header {
    I32 Result; ///< 0; or positive: the server host's system error; or negative: protocol error
    U32 Pad_Length;
    U32 Result_Length; ///< result data bytes; after a positive Result they are the error text
};
using REPLY_HEADER = Reply_Header;

struct Padded_Request_Header {
    REQUEST_HEADER Header;
    U8 Padding[DATA_AREA_SIZE];
};
using PADDED_REQUEST_HEADER = Padded_Request_Header;

/// Read and write: offset, length, data.
struct PADDED_REQUEST_2Parameter {
    REQUEST_HEADER Header;
    U32 P1, P2;
    U8 Padding[DATA_AREA_SIZE];
};
using PADDED_REQUEST_2PARAMETER = PADDED_REQUEST_2Parameter;

/// 16 GB read and write: high offset, low offset, length. Data travel from and to where they are,
/// so that the record is small enough to be made for each call.
struct REQUEST_3Parameter {
    REQUEST_HEADER Header;
    U32 P1, P2, P3;
};
using REQUEST_3PARAMETER = REQUEST_3Parameter;

/// Large lock and unlock: high offset, low offset, high length, low length.
struct PADDED_REQUEST_4Parameter {
    REQUEST_HEADER Header;
    U32 P1, P2, P3, P4;
    U8 Padding[DATA_AREA_SIZE];
};
using PADDED_REQUEST_4PARAMETER = PADDED_REQUEST_4Parameter;

struct Padded_Reply_Header {
    REPLY_HEADER Header;
    U8 Padding[DATA_AREA_SIZE];
};
using PADDED_REPLY_HEADER = Padded_Reply_Header;

// Parameter blocks of the file requests, as they stand behind the header.

struct OPEN_Parameters {
    U32 mode;
    char pathname[MAX_FILE_NAME + 1]; ///< sent as long as the name is, without its NUL
};
using OPEN_PARAMETERS = OPEN_Parameters;

struct READ_Parameters {
    U32 offset, length;
};
using READ_PARAMETERS = READ_Parameters;

struct WRITE_Parameters {
    U32 offset, length; ///< then the data
};
using WRITE_PARAMETERS = WRITE_Parameters;

struct READ_16GB_Parameters {
    U32 highOffset, lowOffset, length;
};
using READ_16GB_PARAMETERS = READ_16GB_Parameters;

struct WRITE_16GB_Parameters {
    U32 highOffset, lowOffset, length; ///< then the data
};
using WRITE_16GB_PARAMETERS = WRITE_16GB_Parameters;

struct LARGE_LOCK_16GB_Parameters {
    U32 highOffset, lowOffset, highLength, lowLength;
};
using LARGE_LOCK_16GB_PARAMETERS = LARGE_LOCK_16GB_Parameters;
using LARGE_UNLOCK_16GB_PARAMETERS = LARGE_LOCK_16GB_Parameters;

static_assert(offsetof(OPEN_PARAMETERS, pathname) == 4);
static_assert(sizeof(READ_PARAMETERS) == 8 && sizeof(WRITE_PARAMETERS) == 8);
static_assert(sizeof(READ_16GB_PARAMETERS) == 12 && sizeof(WRITE_16GB_PARAMETERS) == 12);
static_assert(sizeof(LARGE_LOCK_16GB_PARAMETERS) == 16);

/// A text made by the server; it ends at its first NUL or at the end of the array.
struct GETStats_Buffer {
    char pszStatsBuffer[MAX_REPLY_DATA];
};
using GETSTATS_BUFFER = GETStats_Buffer;

static_assert(sizeof(REQUEST_HEADER) == 12 && sizeof(REPLY_HEADER) == 12);
static_assert(offsetof(PADDED_REQUEST_HEADER, Padding) == 12);
static_assert(offsetof(PADDED_REQUEST_2PARAMETER, Padding) == 20);
static_assert(sizeof(REQUEST_3PARAMETER) == 24);
static_assert(offsetof(PADDED_REQUEST_4PARAMETER, Padding) == 28);
static_assert(offsetof(PADDED_REPLY_HEADER, Padding) == 12);
