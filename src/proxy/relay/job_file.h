#pragma once

#include <string>

#include <sys/stat.h>

namespace Vorl {

/// A file that belongs to one relay job and is removed with it.
///
/// A name can be reused while the first job still exists: the next connection to a session may get
/// the same ordinal. The file at the path then belongs to the new job, and remove() leaves it
/// alone.
class JobFile {
public:
    /// Remembers which file is at the path now, if any.
    explicit JobFile(std::string path);
    /// Removes the file, unless another one has replaced it. Errors are ignored.
    void remove() const;

private:
    std::string path;
    struct statx noted {}; // stx_mask is 0 when there was none
};

} // namespace Vorl
