#include "proxy/relay/job_file.h"

#include <filesystem>
#include <system_error>
#include <tuple>

#include <fcntl.h>

namespace Vorl {

namespace {

struct statx look(const std::string& path) {
    struct statx found {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &found) < 0)
        return {};
    return found;
}

/// An inode number can be reused as soon as its file is removed; the creation time differs then.
auto identity(const struct statx& file) {
    return std::tuple(file.stx_dev_major, file.stx_dev_minor, file.stx_ino, file.stx_btime.tv_sec,
                      file.stx_btime.tv_nsec);
}

} // namespace

JobFile::JobFile(std::string filePath) : path(std::move(filePath)), noted(look(path)) {}

void JobFile::remove() const {
    if (noted.stx_mask != 0 && identity(noted) != identity(look(path)))
        return;
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

} // namespace Vorl
