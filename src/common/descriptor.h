#pragma once

#include <utility>

#include <unistd.h>

namespace Vorl {

/// The one owner of a file descriptor: closes it when it goes. A negative number owns nothing.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int owned) : fd(owned) {}
    Descriptor(Descriptor&& other) noexcept : fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd = other.release();
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

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
