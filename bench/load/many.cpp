// The measures of a hundred connections.

#include "measures.h"

#include "clock.h"
#include "placement.h"
#include "stream.h"
#include "traffic.h"
#include "usage.h"

#include <cstring>

#include <poll.h>
#include <sys/socket.h>

namespace Bench {

namespace {

constexpr int connectionCount = 100;
constexpr int uploadCount = 5;
constexpr double busyFramesPerSecond = 10;

double percent(std::int64_t nanoseconds, double seconds) {
    return static_cast<double>(nanoseconds) / 1e9 / seconds * 100;
}

double kibibytes(std::int64_t bytes, int connections) {
    return static_cast<double>(bytes) / 1024 / connections;
}

/// Uploads to a shadow server that reads in bursts, so that as much waits for the relay as can.
void upload(const Connection& connection) {
    constexpr std::size_t amount = 24'000'000;
    const std::jthread sender([fd = connection.client.get()] {
        const std::vector<char> bytes(amount);
        sendAll(fd, bytes.data(), bytes.size());
    });
    std::vector<char> bytes(amount / 16);
    for (int burst = 0; burst < 16; ++burst) {
        pause(0.003);
        receiveAll(connection.shadow.get(), bytes.data(), bytes.size());
    }
}

/// Frames that arrive at a hundred clients, put together as their bytes come.
class Arrivals {
public:
    explicit Arrivals(const std::vector<Connection>& connections) : parts(connections.size()) {
        for (const Connection& connection : connections)
            entries.push_back({connection.client.get(), POLLIN, 0});
    }

    void receiveFor(double seconds) {
        const auto end = after(seconds);
        while (Clock::now() < end) {
            (void)poll(entries.data(), entries.size(), 1);
            for (std::size_t at = 0; at < entries.size(); ++at) {
                if ((entries[at].revents & POLLIN) != 0)
                    receive(entries[at].fd, parts[at]);
            }
        }
    }

    /// Forgets what has come so far, but for the frames that have come in part.
    void startOver() {
        samples.clear();
        for (Part& part : parts)
            part.total = 0;
    }

    [[nodiscard]] const Samples& latencies() const { return samples; }

    /// Jain's index of the bytes that each client has got: 1 when all have got the same.
    [[nodiscard]] double fairness() const {
        double sum = 0;
        double squares = 0;
        for (const Part& part : parts) {
            sum += part.total;
            squares += part.total * part.total;
        }
        return squares > 0 ? sum * sum / squares / static_cast<double>(parts.size()) : 0;
    }

private:
    struct Part {
        std::vector<char> bytes = std::vector<char>(frame);
        std::size_t have = 0;
        double total = 0;
    };

    void receive(int fd, Part& part) {
        const ssize_t got =
            recv(fd, part.bytes.data() + part.have, frame - part.have, MSG_DONTWAIT);
        if (got <= 0)
            return;
        part.have += static_cast<std::size_t>(got);
        part.total += static_cast<double>(got);
        if (part.have < frame)
            return;
        std::int64_t stamp = 0;
        std::memcpy(&stamp, part.bytes.data(), sizeof stamp);
        samples.push_back(now() - stamp);
        part.have = 0;
    }

    std::vector<pollfd> entries;
    std::vector<Part> parts;
    Samples samples;
};

/// Sends frames on all connections in turn, each at its rate.
std::jthread sendFrames(const std::vector<Connection>& connections) {
    return std::jthread([&connections](const std::stop_token& stop) {
        const auto interval = std::chrono::duration_cast<Clock::duration>(
            Seconds(1 / busyFramesPerSecond / static_cast<double>(connections.size())));
        Message message(frame);
        auto due = Clock::now();
        for (std::size_t at = 0; !stop.stop_requested(); at = (at + 1) % connections.size()) {
            due += interval;
            std::this_thread::sleep_until(due);
            if (!message.send(connections[at].shadow.get()))
                failed("send");
        }
    });
}

} // namespace

void measureBusy(const Target& target, Results& results) {
    const Placement placement(target.relay, Placement::Processors::apart);
    const std::vector<Connection> connections = target.road.connect(connectionCount);
    Arrivals arrivals(connections);
    const std::jthread sender = sendFrames(connections);
    arrivals.receiveFor(0.15);
    arrivals.startOver();

    const std::int64_t before = target.relay != 0 ? usageOf(target.relay).processorTime : 0;
    const auto start = Clock::now();
    arrivals.receiveFor(0.5);
    const double took = Seconds(Clock::now() - start).count();
    if (target.relay != 0) {
        results.add(target.name, "busy", "% of a core",
                    percent(usageOf(target.relay).processorTime - before, took));
    }
    results.add(target.name, "busy", "fairness", arrivals.fairness());
    results.addLatencies(target.name, "busy", arrivals.latencies());
}

void measureIdleAndMemory(const Target& target, Results& results) {
    if (target.relay == 0)
        return;
    const Usage empty = usageOf(target.relay);
    const std::vector<Connection> connections = target.road.connect(connectionCount);
    pause(0.3);
    const Usage idle = usageOf(target.relay);
    const double idleMemory = kibibytes(idle.memory - empty.memory, connectionCount);
    results.add(target.name, "memory", "idle KiB", idleMemory);

    constexpr double seconds = 2;
    pause(seconds);
    const Usage later = usageOf(target.relay);
    results.add(target.name, "idle", "wake-ups/s",
                static_cast<double>(later.wakeUps - idle.wakeUps) / seconds / connectionCount);
    results.add(target.name, "idle", "% of a core",
                percent(later.processorTime - idle.processorTime, seconds));

    for (int at = 0; at < uploadCount; ++at)
        upload(connections[static_cast<std::size_t>(at)]);
    results.add(target.name, "memory", "upload KiB",
                idleMemory + kibibytes(usageOf(target.relay).memory - later.memory, uploadCount));
}

} // namespace Bench
