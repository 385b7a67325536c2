#include "delay_line.h"

#include "clock.h"
#include "stream.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace Bench {

namespace {

using namespace std::chrono_literals;
using Vorl::FileDescriptor;

constexpr auto oneWay = 10ms;
constexpr std::size_t queuedPackets = 40;        // 60 KB, as the routers of slow lines have them
constexpr const char* farAddress = "198.18.0.2"; // RFC 2544: addresses for benchmarks
constexpr const char* ownNamespace = "/proc/thread-self/ns/net";

FileDescriptor openFile(const char* path, int flags) {
    FileDescriptor file(open(path, flags | O_CLOEXEC));
    if (!file)
        failed(path);
    return file;
}

void setAddress(int control, ifreq request, unsigned long what, const char* address) {
    sockaddr_in value{};
    value.sin_family = AF_INET;
    inet_pton(AF_INET, address, &value.sin_addr);
    std::memcpy(&request.ifr_addr, &value, sizeof value);
    if (ioctl(control, what, &request) < 0)
        failed("setting the address of a TUN device");
}

/// A TUN device of the calling thread's namespace.
FileDescriptor openTun(const char* local, const char* peer) {
    FileDescriptor tun = openFile("/dev/net/tun", O_RDWR | O_NONBLOCK);
    ifreq request{};
    std::strcpy(request.ifr_name, "line");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (ioctl(tun.get(), TUNSETIFF, &request) < 0)
        failed("TUNSETIFF");

    const FileDescriptor control(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    setAddress(control.get(), request, SIOCSIFADDR, local);
    setAddress(control.get(), request, SIOCSIFDSTADDR, peer);
    request.ifr_flags = IFF_UP | IFF_RUNNING | IFF_POINTOPOINT;
    if (ioctl(control.get(), SIOCSIFFLAGS, &request) < 0)
        failed("SIOCSIFFLAGS");
    return tun;
}

struct Packet {
    Clock::time_point due;
    std::vector<char> bytes;
};

/// One way of the line.
struct Way {
    int from;
    int to;
    double bytesPerSecond = 0; // 0: no limit
    Clock::time_point free{};  // when the line has sent what it was given
    std::deque<Packet> underway{};

    void take() {
        std::array<char, 2048> bytes{};
        for (;;) {
            const ssize_t size = read(from, bytes.data(), bytes.size());
            if (size <= 0)
                return;
            if (bytesPerSecond > 0 && underway.size() >= queuedPackets)
                continue;
            free = std::max(free, Clock::now());
            if (bytesPerSecond > 0) {
                free += std::chrono::duration_cast<Clock::duration>(
                    Seconds(static_cast<double>(size) / bytesPerSecond));
            }
            underway.push_back({free + oneWay, {bytes.data(), bytes.data() + size}});
        }
    }

    void deliver() {
        while (!underway.empty() && underway.front().due <= Clock::now()) {
            const auto& bytes = underway.front().bytes;
            (void)!write(to, bytes.data(), bytes.size()); // a link may lose a packet
            underway.pop_front();
        }
    }
};

} // namespace

DelayLine::DelayLine(double bytesPerSecond) : nearTun(openTun(nearAddress, farAddress)) {
    // Namespaces belong to threads: a thread that moves and ends leaves the others where they are.
    std::jthread([this] {
        if (unshare(CLONE_NEWNET) < 0)
            failed("unshare");
        farNamespace = openFile(ownNamespace, O_RDONLY);
        farTun = openTun(farAddress, nearAddress);
    }).join();
    carrier = std::jthread(
        [this, bytesPerSecond](const std::stop_token& stop) { carry(stop, bytesPerSecond); });
}

DelayLine::~DelayLine() {
    pause(0.03); // the ends of the connections are still underway
}

FileDescriptor DelayLine::farSocket() const {
    const FileDescriptor home = openFile(ownNamespace, O_RDONLY);
    if (setns(farNamespace.get(), CLONE_NEWNET) < 0)
        failed("setns");
    FileDescriptor far(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (setns(home.get(), CLONE_NEWNET) < 0)
        failed("setns");
    return far;
}

void DelayLine::carry(const std::stop_token& stop, double bytesPerSecond) const {
    Way out{nearTun.get(), farTun.get(), bytesPerSecond};
    Way back{farTun.get(), nearTun.get()};
    while (!stop.stop_requested()) {
        auto next = Clock::now() + 100ms;
        for (const Way* way : {&out, &back}) {
            if (!way->underway.empty())
                next = std::min(next, way->underway.front().due);
        }
        const auto wait = std::max<std::int64_t>((next - Clock::now()) / 1ns, 0);
        const timespec limit{wait / 1'000'000'000, wait % 1'000'000'000};
        pollfd entries[] = {{nearTun.get(), POLLIN, 0}, {farTun.get(), POLLIN, 0}};
        (void)ppoll(entries, 2, &limit, nullptr);
        for (Way* way : {&out, &back}) {
            way->take();
            way->deliver();
        }
    }
}

} // namespace Bench
