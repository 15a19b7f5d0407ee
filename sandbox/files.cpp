#include "sandbox/files.h"

#include "sandbox/paths.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

enum Access : U32 { ACCESS_READ, ACCESS_WRITE, ACCESS_BOTH };
enum Sharing : U32 { SHARE_NONE = 1, SHARE_READING, SHARE_WRITING, SHARE_ALL };

// Access numbers go to open(2) as they come.
static_assert(O_RDONLY == ACCESS_READ && O_WRONLY == ACCESS_WRITE && O_RDWR == ACCESS_BOTH);

/// Locks of one connection; a client that goes on beyond gets ENOLCK instead of our memory.
static constexpr std::size_t MOST_LOCKS = 4096;

static U32 sharingOf(U32 u32Mode) {
    const U32 u32Sharing = u32Mode >> 4 & 7;
    return u32Sharing == 0 ? U32{SHARE_ALL} : u32Sharing;
}

bool isOpenMode(U32 u32Mode) {
    return (u32Mode & ~0x77u) == 0 && (u32Mode & 7) <= ACCESS_BOTH &&
           sharingOf(u32Mode) <= SHARE_ALL;
}

/// Whether somebody who shares like this keeps out somebody with that access.
static bool refuses(U32 u32Sharing, U32 u32Access) {
    switch (u32Sharing) {
    case SHARE_NONE: return true;
    case SHARE_READING: return u32Access != ACCESS_READ;
    case SHARE_WRITING: return u32Access != ACCESS_WRITE;
    default: return false;
    }
}

/// Gives the connection its file unless another opener and it exclude each other.
static Outcome attachFile(Server& server, Connection& connection, std::unique_ptr<OpenFile> file) {
    const std::lock_guard guard(server.mutex);
    SharedFile& shared = server.files[file->key];
    for (const OpenFile* pOther : shared.openers)
        if (refuses(pOther->u32Sharing, file->u32Access) ||
            refuses(file->u32Sharing, pOther->u32Access))
            return SHARING_DENIED;
    file->pShared = &shared;
    shared.openers.push_back(file.get());
    connection.file = std::move(file);
    return {};
}

static Outcome openWithFlags(Server& server, Connection& connection, const std::string& path,
                             U32 u32Mode, int iFlags) {
    U32 u32Access = u32Mode & 7;
    // Lest a FIFO waits for its other end or a terminal becomes ours; regular files do not mind.
    iFlags |= O_NONBLOCK | O_NOCTTY;
    const int root = server.directory.fd;
    int fd = openBelow(root, path, iFlags | static_cast<int>(u32Access));
    if (u32Access == ACCESS_BOTH && (fd == -EACCES || fd == -EROFS) && (iFlags & O_CREAT) == 0) {
        u32Access = ACCESS_READ;
        fd = openBelow(root, path, iFlags | O_RDONLY);
    }
    if (fd < 0)
        return {-fd};
    auto file = std::make_unique<OpenFile>();
    file->descriptor = Descriptor(fd);
    file->path = path;
    file->u32Access = u32Access;
    file->u32Sharing = sharingOf(u32Mode);
    struct stat status {};
    if (fstat(fd, &status) != 0)
        return {errno};
    if (!S_ISREG(status.st_mode))
        return {EACCES};
    file->key = {status.st_dev, status.st_ino};
    return attachFile(server, connection, std::move(file));
}

Outcome openFile(Server& server, Connection& connection, const std::string& path, U32 u32Mode) {
    return openWithFlags(server, connection, path, u32Mode, 0);
}

Outcome createFile(Server& server, Connection& connection, const std::string& path) {
    // Emptied only when it is known that nobody else, not even a reader, works with it.
    const Outcome outcome =
        openWithFlags(server, connection, path, ACCESS_BOTH | SHARE_NONE << 4, O_CREAT);
    if (outcome.iResult != 0 || ftruncate(connection.file->descriptor.fd, 0) == 0)
        return outcome;
    const int iError = errno;
    std::unique_ptr<OpenFile> closing;
    const std::lock_guard guard(server.mutex);
    closing = detachFile(server, connection);
    return {iError};
}

std::unique_ptr<OpenFile> detachFile(Server& server, Connection& connection) {
    std::unique_ptr<OpenFile> file = std::move(connection.file);
    if (file == nullptr)
        return file;
    std::erase(file->pShared->openers, file.get());
    if (file->pShared->openers.empty())
        server.files.erase(file->key);
    return file;
}

static bool overlap(const Range& a, const Range& b) {
    const bool fFirst = a.u64Offset <= b.u64Offset;
    const Range& low = fFirst ? a : b;
    const Range& high = fFirst ? b : a;
    return high.u64Length != 0 && high.u64Offset - low.u64Offset < low.u64Length;
}

/// Call with the mutex held.
static bool isLockedByAnother(const OpenFile& file, const Range& range) {
    for (const OpenFile* pOther : file.pShared->openers)
        if (pOther != &file)
            for (const Range& lock : pOther->locks)
                if (overlap(lock, range))
                    return true;
    return false;
}

/// Whether a transfer may begin; `file.pShared->transfers` is held until it has ended.
static bool mayTransfer(Server& server, const OpenFile& file, const Range& range) {
    const std::lock_guard guard(server.mutex);
    return !isLockedByAnother(file, range);
}

Outcome readFile(Server& server, OpenFile& file, U64 u64Offset, U8* pb, U32 u32Length,
                 U32& u32Got) {
    const std::shared_lock transferring(file.pShared->transfers);
    if (!mayTransfer(server, file, {u64Offset, u32Length}))
        return RANGE_LOCKED;
    for (u32Got = 0; u32Got < u32Length;) {
        const ssize_t n = pread(file.descriptor.fd, pb + u32Got, u32Length - u32Got,
                                static_cast<off_t>(u64Offset + u32Got));
        if (n < 0)
            return {errno};
        if (n == 0)
            break;
        u32Got += static_cast<U32>(n);
    }
    return {};
}

Outcome writeFile(Server& server, OpenFile& file, U64 u64Offset, const U8* pb, U32 u32Length) {
    const std::shared_lock transferring(file.pShared->transfers);
    if (!mayTransfer(server, file, {u64Offset, u32Length}))
        return RANGE_LOCKED;
    for (U32 u32Done = 0; u32Done < u32Length;) {
        const ssize_t n = pwrite(file.descriptor.fd, pb + u32Done, u32Length - u32Done,
                                 static_cast<off_t>(u64Offset + u32Done));
        if (n < 0)
            return {errno};
        u32Done += static_cast<U32>(n);
    }
    return {};
}

Outcome endOfFile(const OpenFile& file, U64& u64Size) {
    struct stat status {};
    if (fstat(file.descriptor.fd, &status) != 0)
        return {errno};
    u64Size = static_cast<U64>(status.st_size);
    return {};
}

Outcome lockRange(Server& server, OpenFile& file, const Range& range) {
    {
        const std::lock_guard guard(server.mutex);
        if (isLockedByAnother(file, range))
            return RANGE_LOCKED;
        if (file.locks.size() >= MOST_LOCKS)
            return {ENOLCK};
        file.locks.push_back(range);
    }
    // From here on no transfer of another connection begins; the ones that began before end now,
    // so that whoever holds the lock sees the bytes stand still.
    const std::unique_lock begunBefore(file.pShared->transfers);
    return {};
}

Outcome unlockRange(Server& server, OpenFile& file, const Range& range) {
    const std::lock_guard guard(server.mutex);
    const auto found = std::find(file.locks.begin(), file.locks.end(), range);
    if (found == file.locks.end())
        return {EINVAL};
    file.locks.erase(found);
    return {};
}

Outcome volumeSpace(const Server& server, const std::string& path, U32& u32Blocks,
                    U32& u32BlockSize) {
    const int fd = openBelow(server.directory.fd, directoryOf(path), O_PATH | O_DIRECTORY);
    if (fd < 0)
        return {-fd};
    const Descriptor directory(fd);
    struct statvfs volume {};
    if (fstatvfs(fd, &volume) != 0)
        return {errno};
    u32Blocks = static_cast<U32>(std::min<U64>(volume.f_bavail, UINT32_MAX));
    u32BlockSize = static_cast<U32>(std::min<U64>(volume.f_frsize, UINT32_MAX));
    return {};
}
