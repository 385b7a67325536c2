// Stands for the shadow server when the way in is measured: does nothing but be reached. To its one
// client it sends a line with the times, in microseconds since the epoch, of its start, of the
// moment when its socket stood, and of the connection. Ends with that connection.
//
// usage: vorl_bench_stub_shadow /ipc-socket:PATH [other arguments of a shadow server]

#include "common/file_descriptor.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>

namespace {

std::string stamp() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::to_string(now / std::chrono::microseconds(1));
}

Vorl::FileDescriptor listenOn(std::string_view path) {
    Vorl::FileDescriptor listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    if (bind(listening.get(), generic, sizeof address) < 0 || listen(listening.get(), 1) < 0)
        listening.reset();
    return listening;
}

} // namespace

int main(int argc, char* argv[]) {
    constexpr std::string_view option = "/ipc-socket:";
    std::string times = stamp();
    if (argc < 2 || !std::string_view(argv[1]).starts_with(option))
        return 2;
    const Vorl::FileDescriptor listening = listenOn(argv[1] + option.size());
    times += ' ' + stamp();
    const Vorl::FileDescriptor client(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client)
        return 1;
    times += ' ' + stamp() + '\n';
    (void)send(client.get(), times.data(), times.size(), MSG_NOSIGNAL);
    char ignored[64];
    while (recv(client.get(), ignored, sizeof ignored, 0) > 0) {
    }
    return 0;
}
