// A file descriptor that is closed with its owner.
#pragma once

#include <unistd.h>
#include <utility>

struct Descriptor {
    int fd = -1; ///< negative when there is none

    Descriptor() = default;
    explicit Descriptor(int iOpened) : fd(iOpened) {}
    Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~Descriptor() {
        if (fd >= 0)
            close(fd);
    }
};
