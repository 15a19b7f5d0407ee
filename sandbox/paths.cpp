#include "sandbox/paths.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

/// Attempts while directories on the way are being renamed, which makes the kernel give up a "..".
static constexpr int OPEN_ATTEMPTS = 16;

int openBelow(int root, const std::string& path, int iFlags) {
    const std::size_t begin = path.find_first_not_of('/');
    const std::string relative = begin == std::string::npos ? "." : path.substr(begin);
    open_how how{};
    how.flags = static_cast<unsigned>(iFlags | O_CLOEXEC);
    how.mode = (iFlags & O_CREAT) != 0 ? 0666 : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    int iError = EAGAIN;
    for (int i = 0; i < OPEN_ATTEMPTS && iError == EAGAIN; ++i) {
        const long fd = syscall(__NR_openat2, root, relative.c_str(), &how, sizeof how);
        if (fd >= 0)
            return static_cast<int>(fd);
        iError = errno;
    }
    switch (iError) {
    case EXDEV:  // out of the directory
    case ELOOP:  // links in a circle, or one that the kernel makes up
    case EISDIR: // a directory, a FIFO that nobody reads: no files that we serve
    case ENXIO: return -EACCES;
    default: return -iError;
    }
}

std::string directoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "/" : path.substr(0, slash + 1);
}

std::string printable(std::string text) {
    const auto isControl = [](unsigned char c) { return c < ' ' || c == 0x7f; };
    std::replace_if(text.begin(), text.end(), isControl, '?');
    return text;
}
