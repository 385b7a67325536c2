#include "proxy/work_directory.h"

#include "common/error.h"
#include "logger"

#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

namespace Vorl {

namespace fs = std::filesystem;

namespace {

/// Whether it belongs to this account and is not a link. Also true if lstat(2) fails: the first use
/// of the directory will fail then, and report the reason.
bool isTrusted(const fs::path& directory) {
    struct stat status {};
    if (lstat(directory.c_str(), &status) < 0)
        return true;
    return !S_ISLNK(status.st_mode) && status.st_uid == geteuid();
}

} // namespace

fs::path findHomeDirectory() {
    const char* variable = std::getenv("HOME");
    fs::path home = variable != nullptr ? variable : "/tmp";
    if (!fs::exists(fs::status(home))) {
        Syslog::error("%s: home not found, path: `%s', uid: %d", "ProxyConnection", home.c_str(),
                      getuid());
        throw vorl_error("ProxyConnection");
    }
    return home;
}

void makeWorkDirectory(const fs::path& home) {
    const fs::path directory = workDirectory(home);
    if (!fs::is_directory(directory))
        fs::create_directory(directory);
    if (!isTrusted(directory)) {
        Syslog::error("%s: work directory is a link or belongs to another account, remove it or "
                      "choose another HOME, path: `%s', uid: %d",
                      "ProxyConnection", directory.c_str(), getuid());
        throw vorl_error("ProxyConnection");
    }
    // A start with a permissive umask may have left these, and others could plant files.
    fs::permissions(directory, fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
}

fs::path workDirectory(const fs::path& home) {
    return home / ".vorl";
}

} // namespace Vorl
