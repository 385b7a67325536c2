#pragma once

#include <string>

#include <sys/stat.h>

namespace Vorl {

/// A file that was made for one relay job, and goes with it.
///
/// Names come again while their first owner lives: the next connection to a session may get the
/// same ordinal. What stands there then belongs to it, and is left alone.
class JobFile {
public:
    /// Takes note of the file that stands at the path, if any.
    explicit JobFile(std::string path);
    /// Removes the file, unless another has taken its place. Failures are ignored.
    void remove() const;

private:
    std::string path;
    struct statx noted {}; // stx_mask is 0 when there was none
};

} // namespace Vorl
