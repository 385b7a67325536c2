#include "session/password_file.h"

#include "common/file_descriptor.h"
#include "session/hex.h"
#include "session/not_ready.h"
#include "session/replace_file.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <iconv.h>
#include <nettle/md4.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace Vorl::Session {

namespace {

std::string readAll(int file) {
    std::string content;
    std::array<char, 4096> buffer{};
    for (ssize_t size; (size = read(file, buffer.data(), buffer.size())) > 0;)
        content.append(buffer.data(), static_cast<std::size_t>(size));
    return content;
}

// Nothing when there is no such file.
std::optional<std::string> readPrivate(const std::filesystem::path& path) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat facts {};
    if (!file && errno == ENOENT)
        return {};
    if (!file || fstat(file.get(), &facts) != 0)
        throw NotReady(path.string() + " cannot be read: " + strerror(errno));
    if (!S_ISREG(facts.st_mode) || facts.st_uid != geteuid())
        throw NotReady(path.string() + " must be a file of root: chown root " + path.string());
    if ((facts.st_mode & 077) != 0)
        throw NotReady("others may read or write " + path.string() + ": chmod 600 " +
                       path.string() + ", and set the passwords anew");
    return readAll(file.get());
}

std::string toUtf16(const std::string& password) {
    const iconv_t converter = iconv_open("UTF-16LE", "UTF-8");
    std::string result(2 * password.size(), '\0'); // the most that it can be
    std::string source = password;
    char* in = source.data();
    char* out = result.data();
    std::size_t inRest = source.size();
    std::size_t outRest = result.size();
    const bool done =
        iconv(converter, &in, &inRest, &out, &outRest) != static_cast<std::size_t>(-1);
    iconv_close(converter);
    explicit_bzero(source.data(), source.size());
    result.resize(result.size() - outRest);
    if (!done || result.empty())
        throw std::invalid_argument(result.empty() && done ? "the password is empty"
                                                           : "the password is not UTF-8 text");
    return result;
}

std::string hashOf(const std::string& password) {
    std::string utf16 = toUtf16(password);
    md4_ctx context{};
    std::array<std::uint8_t, MD4_DIGEST_SIZE> digest{};
    md4_init(&context);
    md4_update(&context, utf16.size(), reinterpret_cast<const std::uint8_t*>(utf16.data()));
    md4_digest(&context, digest.size(), digest.data());
    explicit_bzero(utf16.data(), utf16.size());
    explicit_bzero(&context, sizeof(context));
    return toHex(digest);
}

} // namespace

std::string findCredentials(const std::filesystem::path& file, const std::string& user) {
    std::istringstream lines(readPrivate(file).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(user + ":"))
            return line;
    }
    throw NotReady(user + " has no password for remote log-in: vorl_session password " + user);
}

void storeCredentials(const std::filesystem::path& file, const std::string& user,
                      const std::string& line) {
    const FileDescriptor directory(
        open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || flock(directory.get(), LOCK_EX) != 0)
        throw std::system_error(errno, std::generic_category(), file.parent_path().string());
    std::istringstream lines(readPrivate(file).value_or(""));
    std::string content;
    for (std::string old; std::getline(lines, old);) {
        if (!old.starts_with(user + ":"))
            content += old + "\n";
    }
    if (!line.empty())
        content += line + "\n";
    replaceFile(file, content, 0600);
}

std::string makeCredentials(const std::string& user, const std::string& password) {
    return user + ":::" + hashOf(password) + ":::";
}

} // namespace Vorl::Session
