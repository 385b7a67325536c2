#pragma once

#include <utility>

#include <unistd.h>

namespace Vorl {

/// The one owner of a file descriptor: closes it when it goes. A negative number owns nothing.
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

    /// Gives the descriptor up without closing it.
    int release() { return std::exchange(fd, -1); }
    /// Closes it now.
    void reset() {
        if (fd >= 0)
            close(release());
    }

private:
    int fd = -1;
};

} // namespace Vorl
