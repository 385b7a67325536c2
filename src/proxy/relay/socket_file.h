#pragma once

#include <mutex>
#include <set>
#include <string>

namespace Vorl {

/// The file of a shadow server's socket, held by one connection from before the launch on.
///
/// Several connections can have the same path: the ordinal in it is a count of relays, and the next
/// connection to a session may get the ordinal of one that is still alive. Any thread may call.
class SocketFile {
public:
    explicit SocketFile(std::string path);
    SocketFile(SocketFile&& other) noexcept;
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;
    SocketFile& operator=(SocketFile&&) = delete;
    /// Leaves the file where it is.
    ~SocketFile();

    [[nodiscard]] const std::string& path() const { return filePath; }

    /// Removes what is at the path, unless another connection has it too: the last one removes it.
    /// Errors are ignored.
    void remove() const;

private:
    static inline std::mutex mutex;
    static inline std::multiset<std::string> paths; // of all objects; under `mutex`

    std::string filePath; // empty once moved from
};

} // namespace Vorl
