// Everything that exists while the sandbox serves: the server, its connections and their files.
// There is one Server; it is handed to whoever works with it. What is marked [m] is guarded by
// Server::mutex; of a connection's [m] fields those that only its own thread writes may be read by
// that thread without the mutex.
#pragma once

#include "sandbox/command_line.h"
#include "sandbox/descriptor.h"
#include "sandbox/wire.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <sys/types.h>
#include <thread>

using Clock = std::chrono::steady_clock;

/// Room for counters that are indexed by request code.
inline constexpr U32 CODE_LIMIT = REQUEST_16GB_LARGE_UNLOCK + 1;

struct Counters {
    U64 requests[CODE_LIMIT]{};
    U64 errors[CODE_LIMIT]{};
    U64 u64BytesReceived = 0;
    U64 u64BytesSent = 0;
};

/// Bytes from `u64Offset` on; a length of 0 covers nothing.
struct Range {
    U64 u64Offset;
    U64 u64Length;
    bool operator==(const Range&) const = default;
};

struct OpenFile;

/// One file, however many connections have it open and under whatever names.
struct SharedFile {
    std::vector<OpenFile*> openers; ///< [m]
    std::shared_mutex transfers;    ///< held shared from a transfer's lock check to its end
};

using FileKey = std::pair<dev_t, ino_t>;

/// The file of one connection. Only `locks` changes once it is open.
struct OpenFile {
    Descriptor descriptor;
    std::string path;   ///< as the client named it
    U32 u32Access = 0;  ///< 0 read, 1 write, 2 both
    U32 u32Sharing = 0; ///< 1 exclusive, 2 no other writers, 3 no other readers, 4 shared
    FileKey key{};
    SharedFile* pShared = nullptr;
    std::vector<Range> locks; ///< [m] own thread writes
};

/// Not cleared: only what has been received or is to be sent counts.
struct Buffers {
    U8 request[DATA_AREA_SIZE];
    U8 reply[HEADER_SIZE + MAX_REPLY_DATA];
};

struct Connection {
    Descriptor socket; ///< closed by the main thread after `thread` has ended
    U32 u32Number = 0; ///< from 1; what clients name it by, reused when it has left
    U64 u64Serial = 0; ///< never reused
    U32 u32PeerAddress = 0;
    std::string peer, local; ///< address and port
    Clock::time_point start = Clock::now();
    std::unique_ptr<Buffers> buffers{new Buffers};
    std::thread thread;

    bool fOpen = true;              ///< [m] own thread writes; false once it has left
    bool fKilled = false;           ///< [m] another thread shut the socket down
    bool fProved = false;           ///< [m] own thread writes; knows the administrator's password
    std::unique_ptr<OpenFile> file; ///< [m] own thread writes
    Counters counters;              ///< [m]
};

struct Server {
    const Options& options;
    U32 u32Port = 0;        ///< the one listened on
    Descriptor directory{}; ///< what clients take for the root
    Descriptor wakeUp{};    ///< eventfd: the main thread has somebody to join, or has to stop
    std::vector<Descriptor> listeners{};
    Clock::time_point start = Clock::now();

    std::mutex mutex{};
    std::condition_variable left{};                           ///< somebody left or was killed
    std::map<U32, std::unique_ptr<Connection>> connections{}; ///< [m] by number
    std::vector<std::unique_ptr<Connection>> ended{};         ///< [m] have left, to be joined
    std::map<FileKey, SharedFile> files{};                    ///< [m] the open ones
    std::atomic<bool> fStop = false;                          ///< a client asked for the end
    U64 u64Accepted = 0;                                      ///< [m]
    std::atomic<U64> u64Refused = 0;
    Counters counters{}; ///< [m]
};
