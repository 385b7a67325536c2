#pragma once

#include <utility>

#include <unistd.h>

namespace Vorl {

/// Owns a file descriptor and closes it on destruction. A negative number means that it owns none.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int owned) : fd(owned) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd = other.release();
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    [[nodiscard]] int get() const { return fd; }
    [[nodiscard]] explicit operator bool() const { return fd >= 0; }

    /// Returns the descriptor and gives up its ownership.
    int release() { return std::exchange(fd, -1); }
    /// Closes the descriptor now.
    void reset() {
        if (fd >= 0)
            close(release());
    }

private:
    int fd = -1;
};

} // namespace Vorl
