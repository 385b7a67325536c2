#include "session/x_display.h"

#include "common/file_descriptor.h"
#include "session/not_ready.h"
#include "session/replace_file.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>

#include <X11/Xauth.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-login.h>

namespace Vorl::Session {

namespace {

const std::filesystem::path socketDirectory = "/tmp/.X11-unix";

// Nothing when nobody listens there.
std::optional<ucred> ownerOf(int display) {
    const FileDescriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un peer{AF_UNIX, {}};
    (socketDirectory / ("X" + std::to_string(display)))
        .string()
        .copy(peer.sun_path, sizeof(peer.sun_path) - 1);
    ucred owner{};
    socklen_t size = sizeof(owner);
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)) != 0 ||
        getsockopt(probe.get(), SOL_SOCKET, SO_PEERCRED, &owner, &size) != 0)
        return {};
    return owner;
}

std::optional<int> number(std::string_view text) {
    int value = -1;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value < 0 ? std::nullopt : std::optional(value);
}

bool isOfSession(pid_t pid, const std::string& id) {
    char* text = nullptr;
    if (sd_pid_get_session(pid, &text) < 0)
        return false;
    const bool same = id == text;
    std::free(text);
    return same;
}

// logind may not know the display (gdm). A rootless X server belongs to its session, though.
std::optional<int> displayNumber(const LoginSession& session) {
    if (session.display.starts_with(":"))
        return number(std::string_view(session.display).substr(1));
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(socketDirectory, none)) {
        const auto candidate = number(entry.path().filename().string().substr(1));
        const auto owner = candidate ? ownerOf(*candidate) : std::nullopt;
        if (owner && owner->uid == session.uid && isOfSession(owner->pid, session.id))
            return candidate;
    }
    return {};
}

std::string authorityArgument(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline");
    std::string argument;
    while (std::getline(file, argument, '\0')) {
        if (argument == "-auth" && std::getline(file, argument, '\0'))
            return argument;
    }
    return {};
}

struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Close>;

File openAuthority(const XDisplay& display, const LoginSession& session) {
    // Without waiting for a writer, should it be a pipe.
    const int fd = open(display.authority.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    File file(fd < 0 ? nullptr : fdopen(fd, "r"));
    const std::string what = "the X authority file " + display.authority.string();
    struct stat facts {};
    if (!file || fstat(fd, &facts) != 0)
        throw NotReady(what + " cannot be read: " + strerror(errno));
    // A user's X server could name any file here, which we may read and its user may not.
    if (!S_ISREG(facts.st_mode) ||
        (facts.st_uid != session.uid && facts.st_uid != display.serverUid))
        throw NotReady(what + " is not one of " + nameOf(session));
    return file;
}

// All entries as ones of this display on any host: an X server takes every cookie of its file.
std::string cookiesIn(std::FILE* authority, const std::string& display) {
    char* text = nullptr;
    std::size_t size = 0;
    File copy(open_memstream(&text, &size));
    while (Xauth* entry = XauReadAuth(authority)) {
        Xauth any = *entry;
        any.family = FamilyWild;
        any.address_length = 0;
        any.number = const_cast<char*>(display.c_str()); // only read
        any.number_length = static_cast<unsigned short>(display.size());
        XauWriteAuth(copy.get(), &any);
        XauDisposeAuth(entry);
    }
    copy.reset(); // the text is the stream's until then
    std::string result(text, size);
    std::free(text);
    return result;
}

} // namespace

XDisplay findDisplay(const LoginSession& session) {
    const auto found = displayNumber(session);
    if (!found)
        throw NotReady(nameOf(session) + " has no X display that logind or an X server knows of");
    const std::string where = "display :" + std::to_string(*found) + " of " + nameOf(session);
    const auto owner = ownerOf(*found);
    if (!owner)
        throw NotReady("there is no X server on " + where);
    if (owner->uid != 0 && owner->uid != session.uid)
        throw NotReady("the socket of " + where + " belongs to a stranger, uid " +
                       std::to_string(owner->uid) + ": remove " +
                       (socketDirectory / ("X" + std::to_string(*found))).string());
    XDisplay display{*found, authorityArgument(owner->pid), owner->uid};
    if (display.authority.empty())
        throw NotReady("the X server of " + where +
                       " was started without -auth, so its cookie cannot be found");
    return display;
}

void copyCookies(const XDisplay& display, const LoginSession& session,
                 const std::filesystem::path& copy) {
    const std::string cookies =
        cookiesIn(openAuthority(display, session).get(), std::to_string(display.number));
    if (cookies.empty())
        throw NotReady("there is no cookie in the X authority file " + display.authority.string());
    replaceFile(copy, cookies, 0640);
}

} // namespace Vorl::Session
