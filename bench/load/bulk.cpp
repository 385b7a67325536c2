#include "measures.h"

#include "clock.h"
#include "placement.h"
#include "stream.h"
#include "traffic.h"

namespace Bench {

namespace {

double megabytesPerSecond(const Road& road, bool up) {
    const Connection connection = road.connect();
    const int from = up ? connection.client.get() : connection.shadow.get();
    const int to = up ? connection.shadow.get() : connection.client.get();
    const std::jthread sender = sendWithoutPause(from);
    const HangUp hangUp(connection);

    std::vector<char> bytes(block);
    const auto receiveFor = [&](double seconds) {
        const auto start = Clock::now();
        const auto end = after(seconds);
        double received = 0;
        while (Clock::now() < end)
            received += static_cast<double>(receiveSome(to, bytes.data(), bytes.size()));
        return received / 1e6 / Seconds(Clock::now() - start).count();
    };
    (void)receiveFor(0.1); // until buffers and windows have grown
    return receiveFor(0.25);
}

} // namespace

void measureBulk(const Target& target, Results& results) {
    const Placement placement(target.relay, Placement::Processors::any);
    results.add(target.name, "bulk down", "MB/s", megabytesPerSecond(target.road, false));
    results.add(target.name, "bulk up", "MB/s", megabytesPerSecond(target.road, true));
}

} // namespace Bench
