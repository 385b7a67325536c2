#include "common/owned_file.h"

#include <tuple>

#include <fcntl.h>
#include <unistd.h>

namespace Vorl {

namespace {

constexpr unsigned wanted = STATX_INO | STATX_BTIME;

/// An inode number can be reused as soon as its file is removed; the creation time differs then.
auto identity(const struct statx& file) {
    return std::tuple(file.stx_dev_major, file.stx_dev_minor, file.stx_ino, file.stx_btime.tv_sec,
                      file.stx_btime.tv_nsec);
}

} // namespace

bool OwnedFile::note(int descriptor) {
    return statx(descriptor, "", AT_EMPTY_PATH, wanted, &noted) == 0;
}

void OwnedFile::remove() const {
    if (noted.stx_mask == 0)
        return;
    struct statx now {};
    const bool known = statx(AT_FDCWD, filePath.c_str(), AT_SYMLINK_NOFOLLOW, wanted, &now) == 0;
    if (!known || identity(now) == identity(noted))
        unlink(filePath.c_str());
}

} // namespace Vorl
