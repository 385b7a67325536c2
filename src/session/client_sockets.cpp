#include "session/client_sockets.h"

#include "common/file_descriptor.h"
#include "session/not_ready.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <sys/socket.h>

namespace Vorl::Session {

namespace {

constexpr unsigned tcpEstablished = 1; // tcp_states.h of the kernel
constexpr unsigned tcpCloseWait = 8;
constexpr unsigned tcpListen = 10;

[[noreturn]] void failed(int error) {
    throw NotReady(std::string("the kernel does not count the bytes of connections (inet_diag): ") +
                   strerror(error));
}

FileDescriptor ask(std::uint16_t port) {
    struct {
        nlmsghdr header;
        inet_diag_req_v2 body;
    } request{};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.sdiag_family = AF_INET;
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_ext = 1U << (INET_DIAG_INFO - 1);
    request.body.idiag_states = 1U << tcpEstablished | 1U << tcpCloseWait | 1U << tcpListen;
    request.body.id.idiag_sport = htons(port);
    FileDescriptor diag(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!diag || send(diag.get(), &request, sizeof(request), 0) < 0)
        failed(errno);
    return diag;
}

std::string text(const in_addr& address) {
    std::array<char, INET_ADDRSTRLEN> buffer{};
    inet_ntop(AF_INET, &address, buffer.data(), buffer.size());
    return buffer.data();
}

ClientSocket toClientSocket(const inet_diag_msg& message, std::size_t length) {
    ClientSocket result{text({message.id.idiag_dst[0]}), ntohs(message.id.idiag_dport)};
    const auto* attribute = reinterpret_cast<const rtattr*>(&message + 1);
    for (auto rest = static_cast<int>(length - sizeof(message)); RTA_OK(attribute, rest);
         attribute = RTA_NEXT(attribute, rest)) {
        tcp_info info{}; // the kernel's may be longer or shorter than ours
        if (attribute->rta_type != INET_DIAG_INFO)
            continue;
        memcpy(&info, RTA_DATA(attribute), std::min(sizeof(info), RTA_PAYLOAD(attribute)));
        result.sent = info.tcpi_bytes_acked;
        result.received = info.tcpi_bytes_received;
    }
    return result;
}

} // namespace

std::vector<ClientSocket> socketsOf(const DaemonAddress& daemon) {
    const FileDescriptor diag = ask(daemon.port);
    const in_addr_t local = inet_addr(daemon.address.c_str());
    std::vector<ClientSocket> sockets;
    alignas(nlmsghdr) std::array<char, 32768> buffer{};
    for (;;) {
        const ssize_t size = recv(diag.get(), buffer.data(), buffer.size(), 0);
        if (size <= 0)
            failed(size < 0 ? errno : EPROTO);
        auto rest = static_cast<unsigned>(size);
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(header, rest);
             header = NLMSG_NEXT(header, rest)) {
            if (header->nlmsg_type == NLMSG_DONE)
                return sockets;
            if (header->nlmsg_type == NLMSG_ERROR)
                failed(-static_cast<nlmsgerr*>(NLMSG_DATA(header))->error);
            const auto& message = *static_cast<inet_diag_msg*>(NLMSG_DATA(header));
            // No inode: not accepted yet, or closed by its process.
            if (message.idiag_inode != 0 &&
                (local == INADDR_ANY || message.id.idiag_src[0] == local))
                sockets.push_back(toClientSocket(message, NLMSG_PAYLOAD(header, 0)));
        }
    }
}

} // namespace Vorl::Session
