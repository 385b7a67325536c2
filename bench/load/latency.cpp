// The latencies of one connection.

#include "measures.h"

#include "clock.h"
#include "delay_line.h"
#include "placement.h"
#include "stream.h"
#include "traffic.h"
#include "usage.h"

namespace Bench {

namespace {

constexpr auto apart = Placement::Processors::apart;

Samples timeFrames(const Connection& connection, double seconds) {
    return timeMessages(connection.shadow.get(), connection.client.get(), frame, framesPerSecond,
                        seconds);
}

Samples timeKeystrokes(const Connection& connection, double perSecond, double seconds) {
    return timeMessages(connection.client.get(), connection.shadow.get(), keystroke, perSecond,
                        seconds);
}

/// @param receive how the shadow server takes the upload
Samples timeFramesDuringUpload(const Road& road, std::jthread (*receive)(int fd)) {
    const Connection connection = road.connect();
    const std::jthread upload = sendWithoutPause(connection.client.get());
    const std::jthread shadow = receive(connection.shadow.get());
    const HangUp hangUp(connection);
    pause(0.15); // the way up is full
    return timeFrames(connection, 0.4);
}

} // namespace

void measureEcho(const Target& target, Results& results) {
    const Placement placement(target.relay, apart);
    const Connection connection = target.road.connect();
    const std::jthread shadow([fd = connection.shadow.get()] {
        char bytes[keystroke];
        while (receiveAll(fd, bytes, sizeof bytes) && sendAll(fd, bytes, sizeof bytes)) {
        }
    });
    const HangUp hangUp(connection);

    Message message(keystroke);
    Samples samples;
    const std::int64_t before = target.relay != 0 ? usageOf(target.relay).processorTime : 0;
    for (const auto end = after(0.03); Clock::now() < end;) {
        if (!message.send(connection.client.get()))
            failed("send");
        samples.push_back(message.receive(connection.client.get()));
    }
    if (target.relay != 0) {
        const std::int64_t used = usageOf(target.relay).processorTime - before;
        results.add(target.name, "echo", "relay CPU us",
                    static_cast<double>(used) / 1000 / static_cast<double>(samples.size()));
    }
    results.addLatencies(target.name, "echo", samples);
}

void measureOneWay(const Target& target, Results& results) {
    const Placement placement(target.relay, apart);
    const Connection connection = target.road.connect();
    results.addLatencies(
        target.name, "one way",
        timeMessages(connection.shadow.get(), connection.client.get(), keystroke, 1000, 0.04));
}

void measureFrames(const Target& target, Results& results) {
    const Placement placement(target.relay, apart);
    const Connection connection = target.road.connect();
    results.addLatencies(target.name, "frames", timeFrames(connection, 0.25));
}

void measureFramesOverDelayLine(const Target& target, Results& results) {
    const Placement placement(target.relay, apart);
    const DelayLine line;
    const Connection connection = target.road.connect(&line);
    const std::jthread typing = type(connection.client.get());
    const std::jthread shadow = receiveWithoutPause(connection.shadow.get());
    const HangUp hangUp(connection);
    (void)timeFrames(connection, 0.2); // until the congestion window holds a frame
    results.addLatencies(target.name, "frames 20 ms", timeFrames(connection, 0.4));
}

void measureKeystrokeUnderLoad(const Target& target, Results& results) {
    const Placement placement(target.relay, apart);
    const Connection connection = target.road.connect();
    const std::jthread picture = sendWithoutPause(connection.shadow.get());
    const std::jthread client = receiveSlowly(connection.client.get());
    const HangUp hangUp(connection);
    pause(0.05); // the way down is full
    results.addLatencies(target.name, "keystroke", timeKeystrokes(connection, 300, 0.1));
}

void measureKeystrokeOnSlowLine(const Target& target, Results& results) {
    constexpr double bytesPerSecond = 250'000;
    const Placement placement(target.relay, apart);
    const DelayLine line(bytesPerSecond);
    const Connection connection = target.road.connect(&line);
    const std::jthread picture = sendWithoutPause(connection.shadow.get());
    const std::jthread client = receiveWithoutPause(connection.client.get());
    const HangUp hangUp(connection);
    pause(0.3); // the line is full
    results.addLatencies(target.name, "keystroke slow line", timeKeystrokes(connection, 100, 0.3));
}

void measureFramesDuringUpload(const Target& target, Results& results) {
    // Without a place: all processors are busy, and at one real-time priority nobody would share.
    results.addLatencies(target.name, "frames in upload",
                         timeFramesDuringUpload(target.road, receiveWithoutPause));
}

void measureFramesDuringSlowUpload(const Target& target, Results& results) {
    const Placement placement(target.relay, apart);
    results.addLatencies(target.name, "frames in slow upload",
                         timeFramesDuringUpload(target.road, receiveSlowly));
}

} // namespace Bench
