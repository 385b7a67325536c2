#include "proxy/work_directory.h"

#include "common/error.h"
#include "common/file_descriptor.h"
#include "logger"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Vorl {

namespace fs = std::filesystem;

namespace {

constexpr const char* function = "ProxyConnection";
constexpr mode_t foreignWrite = S_IWGRP | S_IWOTH;

/// Logs why the work directory is refused, and what to do.
[[noreturn]] void refuse(const fs::path& directory, const std::string& reason) {
    Syslog::error("%s: work directory %s, remove it or choose another HOME, path: `%s', uid: %d",
                  function, reason.c_str(), directory.c_str(), getuid());
    throw vorl_error(function);
}

/// Same, when a system call says why.
[[noreturn]] void refuseForErrno(const fs::path& directory, const std::string& reason) {
    refuse(directory, reason + ": " + strerror(errno));
}

/// Whoever owns the home directory can replace what is in it.
void warnOfForeignHome(const fs::path& home) {
    struct stat status {};
    if (stat(home.c_str(), &status) == 0 && status.st_uid != 0 && status.st_uid != geteuid()) {
        Syslog::warning(
            "%s: home belongs to another account, which can replace the work directory, "
            "choose another HOME, path: `%s', owner: %d, uid: %d",
            function, home.c_str(), status.st_uid, getuid());
    }
}

/// @throws std::filesystem::filesystem_error when it cannot be created
void create(const fs::path& directory) {
    std::error_code failure;
    const mode_t before = umask(S_IRWXG | S_IRWXO); // main thread, before any other
    fs::create_directory(directory, failure);
    umask(before);
    if (failure)
        throw fs::filesystem_error("cannot create directory", directory, failure);
}

/// Opens the directory that is at the path now: what is judged is what is changed.
FileDescriptor open(const fs::path& directory) {
    FileDescriptor opened(
        ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened && (errno == ENOTDIR || errno == ELOOP))
        refuse(directory, "is a link or belongs to another account");
    if (!opened)
        refuseForErrno(directory, "cannot be opened");
    return opened;
}

/// Takes away what a start with a permissive umask may have left: others could plant files.
void denyForeignWrite(const fs::path& directory, int fd, mode_t mode) {
    if (fchmod(fd, mode & ~foreignWrite) < 0)
        refuseForErrno(directory, "can be written by other accounts and cannot be changed");
    Syslog::notice(
        "%s: work directory could be written by other accounts, no longer can, path: `%s'",
        function, directory.c_str());
}

} // namespace

fs::path findHomeDirectory() {
    const char* variable = std::getenv("HOME");
    fs::path home = variable != nullptr ? variable : "/tmp";
    if (!fs::exists(fs::status(home))) {
        Syslog::error("%s: home not found, path: `%s', uid: %d", function, home.c_str(), getuid());
        throw vorl_error(function);
    }
    warnOfForeignHome(home);
    return home;
}

void makeWorkDirectory(const fs::path& home) {
    const fs::path directory = workDirectory(home);
    if (!fs::is_directory(directory))
        create(directory);
    const FileDescriptor opened = open(directory);
    struct stat status {};
    if (fstat(opened.get(), &status) < 0)
        refuseForErrno(directory, "cannot be checked");
    if (status.st_uid != geteuid())
        refuse(directory, "is a link or belongs to another account");
    if (const mode_t mode = status.st_mode & 07777; (mode & foreignWrite) != 0)
        denyForeignWrite(directory, opened.get(), mode);
}

fs::path workDirectory(const fs::path& home) {
    return home / ".vorl";
}

} // namespace Vorl
