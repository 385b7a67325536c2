#include "session/x_display.h"

#include "common/descriptor.h"
#include "session/not_ready.h"
#include "session/replace_file.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-login.h>

namespace Vorl::Session {

namespace {

const std::filesystem::path socketDirectory = "/tmp/.X11-unix";
constexpr std::uint16_t familyWild = 65535; // X11/Xauth.h: any host
constexpr std::size_t mostAuthority = 65536;

// Nothing when nobody listens there.
std::optional<ucred> ownerOf(int display) {
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
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

std::string readAuthority(const XDisplay& display, const LoginSession& session) {
    // Without waiting for a writer, should it be a pipe.
    const Descriptor file(
        open(display.authority.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    const std::string what = "the X authority file " + display.authority.string();
    struct stat facts {};
    if (!file || fstat(file.get(), &facts) != 0)
        throw NotReady(what + " cannot be read: " + strerror(errno));
    // A user's X server could name any file here, which we may read and its user may not.
    if (!S_ISREG(facts.st_mode) ||
        (facts.st_uid != session.uid && facts.st_uid != display.serverUid))
        throw NotReady(what + " is not one of " + nameOf(session));
    std::string content(mostAuthority, '\0');
    const ssize_t size = read(file.get(), content.data(), content.size());
    content.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return content;
}

// The fields of an authority file, each two bytes of length, the higher first, and its bytes.
class Fields {
public:
    explicit Fields(std::string_view content) : rest(content) {}

    std::optional<std::uint16_t> takeNumber() {
        if (rest.size() < 2)
            return {};
        const auto high = static_cast<unsigned char>(rest[0]);
        const auto low = static_cast<unsigned char>(rest[1]);
        rest.remove_prefix(2);
        return static_cast<std::uint16_t>(high << 8 | low);
    }
    std::optional<std::string> take() {
        const auto size = takeNumber();
        if (!size || rest.size() < *size)
            return {};
        std::string field(rest.substr(0, *size));
        rest.remove_prefix(*size);
        return field;
    }

private:
    std::string_view rest;
};

std::string asNumber(std::size_t value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value & 0xFF)};
}

std::string asField(const std::string& text) {
    return asNumber(text.size()) + text;
}

// Those of the one kind that X servers use, for any host. Whatever number an entry bears: the
// server takes every cookie of its file.
std::string cookiesIn(const std::string& content, int display) {
    Fields fields(content);
    std::string result;
    while (fields.takeNumber()) { // the address family
        const auto address = fields.take();
        const auto entryDisplay = fields.take();
        const auto name = fields.take();
        const auto data = fields.take();
        if (!address || !entryDisplay || !data)
            return {};
        if (*name == "MIT-MAGIC-COOKIE-1")
            result += asNumber(familyWild) + asField("") + asField(std::to_string(display)) +
                      asField(*name) + asField(*data);
    }
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
    const std::string cookies = cookiesIn(readAuthority(display, session), display.number);
    if (cookies.empty())
        throw NotReady("there is no cookie in the X authority file " + display.authority.string());
    replaceFile(copy, cookies, 0640);
}

} // namespace Vorl::Session
