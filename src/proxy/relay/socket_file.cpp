#include "proxy/relay/socket_file.h"

#include <filesystem>
#include <system_error>
#include <utility>

namespace Vorl {

SocketFile::SocketFile(std::string path) : filePath(std::move(path)) {
    const std::scoped_lock lock(mutex);
    paths.insert(filePath);
}

SocketFile::SocketFile(SocketFile&& other) noexcept : filePath(std::exchange(other.filePath, {})) {}

SocketFile::~SocketFile() {
    const std::scoped_lock lock(mutex);
    if (const auto own = paths.find(filePath); own != paths.end())
        paths.erase(own);
}

void SocketFile::remove() const {
    // Locked until it is gone: the next connection that gets the path launches its shadow server
    // after it has entered the path here.
    const std::scoped_lock lock(mutex);
    std::error_code ignored;
    if (paths.count(filePath) == 1)
        std::filesystem::remove(filePath, ignored);
}

} // namespace Vorl
