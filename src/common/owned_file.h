#pragma once

#include <string>

#include <sys/stat.h>

namespace Vorl {

/// The path of a file that is written for one owner and removed by it. The name can be given again
/// while that owner still exists: the file at the path then belongs to somebody else.
class OwnedFile {
public:
    explicit OwnedFile(std::string path) : filePath(std::move(path)) {}

    [[nodiscard]] const std::string& path() const { return filePath; }

    /// Remembers the file behind the descriptor as the owner's.
    /// @return false, with errno set, when it cannot be told from other files
    [[nodiscard]] bool note(int descriptor);

    /// Removes the remembered file. Another one that has replaced it stays, as does a file that was
    /// there without ever having been remembered. If its identity cannot be determined,
    /// the file is removed anyway: leaving a password hash behind would be worse. Errors are
    /// ignored. A job's destructor calls it, for what its own launch wrote.
    void remove() const;

private:
    std::string filePath;
    struct statx noted {}; // stx_mask is 0 before note()
};

} // namespace Vorl
