// The files of the connections: share modes between them, byte-range locks, and the transfers that
// respect both. A lock covers reads and writes of every other connection and lasts until it is
// released or the file is closed. Results are system errors of the host and the two below.
#pragma once

#include "sandbox/state.h"

inline constexpr Outcome SHARING_DENIED{
    5, "Access denied: the file is open in a mode that does not share"};
inline constexpr Outcome RANGE_LOCKED{33, "The range is locked by another connection"};

/// Open mode: access in the low three bits, sharing (0 means shared) in bits 4 to 6.
bool isOpenMode(U32 u32Mode);

/// The connection, which has none, gets the regular file at `path`. A file that may only be read
/// is opened for reading where both were asked, since that is how clients open what they read.
Outcome openFile(Server& server, Connection& connection, const std::string& path, U32 u32Mode);

/// As openFile, with an empty file, made or emptied, that nobody else has open.
Outcome createFile(Server& server, Connection& connection, const std::string& path);

/// Takes the file and its locks away from the connection; null when it has none. Call with the
/// mutex held and let the result go without it.
std::unique_ptr<OpenFile> detachFile(Server& server, Connection& connection);

/// Reads up to `u32Length` bytes to `pb`; `u32Got` falls short of it at the end of the file only.
Outcome readFile(Server& server, OpenFile& file, U64 u64Offset, U8* pb, U32 u32Length, U32& u32Got);

/// Writes all the bytes, or fails.
Outcome writeFile(Server& server, OpenFile& file, U64 u64Offset, const U8* pb, U32 u32Length);

/// End of file in bytes.
Outcome endOfFile(const OpenFile& file, U64& u64Size);

Outcome lockRange(Server& server, OpenFile& file, const Range& range);

/// Releases one lock of exactly this range; EINVAL when there is none.
Outcome unlockRange(Server& server, OpenFile& file, const Range& range);

/// Free blocks and their size on the volume of the directory that holds `path`, 32 bits at most.
Outcome volumeSpace(const Server& server, const std::string& path, U32& u32Blocks,
                    U32& u32BlockSize);
