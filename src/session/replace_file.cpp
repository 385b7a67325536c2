#include "session/replace_file.h"

#include "common/file_descriptor.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

namespace Vorl::Session {

void replaceFile(const std::filesystem::path& path, const std::string& content, mode_t mode) {
    std::string aside = path.string() + ".XXXXXX";
    const FileDescriptor file(mkostemp(aside.data(), O_CLOEXEC)); // mode 0600
    const auto size = static_cast<ssize_t>(content.size());
    if (file)
        errno = ENOSPC; // a short write does not set it
    if (file && write(file.get(), content.data(), content.size()) == size &&
        fchmod(file.get(), mode) == 0 && fsync(file.get()) == 0 &&
        rename(aside.c_str(), path.c_str()) == 0)
        return;
    const int error = errno;
    if (file)
        unlink(aside.c_str());
    throw std::system_error(error, std::generic_category(), path.string() + " cannot be written");
}

} // namespace Vorl::Session
