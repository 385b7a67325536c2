// The measures of one connection.

#include "measures.h"

#include "clock.h"
#include "delay_line.h"
#include "placement.h"
#include "processes.h"
#include "stream.h"
#include "traffic.h"
#include "usage.h"

#include <csignal>
#include <stdexcept>

#include <sys/socket.h>

namespace Bench {

namespace {

double megabytesPerSecond(int from, int to, double seconds) {
    const std::jthread sender = sendWithoutPause(from);
    std::vector<char> bytes(256 * 1024);
    const auto receiveFor = [&](double time) {
        const auto start = Clock::now();
        const auto end = after(time);
        double received = 0;
        while (Clock::now() < end)
            received += static_cast<double>(receiveSome(to, bytes.data(), bytes.size()));
        return received / 1e6 / Seconds(Clock::now() - start).count();
    };
    receiveFor(seconds / 5); // until buffers and windows have grown
    const double result = receiveFor(seconds);
    shutdown(from, SHUT_RDWR);
    while (receiveSome(to, bytes.data(), bytes.size()) > 0) {
    }
    return result;
}

void waitForThreads(pid_t process, std::size_t count) {
    const auto limit = after(5);
    while (threadsOf(process).size() != count) {
        if (Clock::now() > limit)
            throw std::runtime_error("the relay's threads have not become as few as expected");
        pause(0.00005);
    }
}

/// @return milliseconds
double timeEndOfJob(const Run& run, bool clientReads) {
    constexpr std::size_t idleThreads = 1;
    waitForThreads(run.relay, idleThreads);
    const Connection connection = run.road.connect();
    std::jthread reader;
    if (clientReads)
        reader = receiveWithoutPause(connection.client.get());
    const std::jthread sender = sendWithoutPause(connection.shadow.get());
    const HangUp hangUp(connection);
    pause(0.3); // more than enough to fill every buffer on the way
    const std::int64_t start = now();
    if (kill(run.relay, SIGUSR1) < 0)
        failed("kill");
    waitForThreads(run.relay, idleThreads);
    return static_cast<double>(now() - start) / 1e6;
}

/// @param receive how the shadow server takes the upload
void timeFramesDuringUpload(const Run& run, std::string_view measure,
                            std::jthread (*receive)(int fd)) {
    const Connection connection = run.road.connect();
    const std::jthread upload = sendWithoutPause(connection.client.get());
    const std::jthread shadow = receive(connection.shadow.get());
    const HangUp hangUp(connection);
    pause(0.2);
    run.results.addLatencies(measure, timeMessages(connection.shadow.get(), connection.client.get(),
                                                   frame, framesPerSecond, 1.5 * run.scale));
}

} // namespace

void measureBulk(const Run& run) {
    const double seconds = 0.6 * run.scale;
    const Connection down = run.road.connect();
    run.results.add("bulk down", "MB/s",
                    megabytesPerSecond(down.shadow.get(), down.client.get(), seconds));
    const Connection up = run.road.connect();
    run.results.add("bulk up", "MB/s",
                    megabytesPerSecond(up.client.get(), up.shadow.get(), seconds));
}

void measureEcho(const Run& run) {
    const Placement placement(run.relay);
    const Connection connection = run.road.connect();
    const std::jthread shadow([fd = connection.shadow.get()] {
        char bytes[keystroke];
        while (receiveAll(fd, bytes, sizeof bytes) && sendAll(fd, bytes, sizeof bytes)) {
        }
    });
    const HangUp hangUp(connection);
    Message message(keystroke);
    Samples samples;
    const std::int64_t before = run.relay != 0 ? usageOf(run.relay).processorTime : 0;
    const auto end = after(1.0 * run.scale);
    while (Clock::now() < end) {
        if (!message.send(connection.client.get()))
            failed("send");
        samples.push_back(message.receive(connection.client.get()));
    }
    if (run.relay != 0) {
        const std::int64_t used = usageOf(run.relay).processorTime - before;
        run.results.add("echo", "relay CPU us",
                        static_cast<double>(used) / 1000 / static_cast<double>(samples.size()));
    }
    run.results.addLatencies("echo", std::move(samples));
}

void measureOneWay(const Run& run) {
    const Placement placement(run.relay);
    const Connection connection = run.road.connect();
    run.results.addLatencies("one way",
                             timeMessages(connection.shadow.get(), connection.client.get(),
                                          keystroke, 500, 1.0 * run.scale));
}

void measureFrames(const Run& run) {
    const Placement placement(run.relay);
    const Connection connection = run.road.connect();
    run.results.addLatencies("frames",
                             timeMessages(connection.shadow.get(), connection.client.get(), frame,
                                          framesPerSecond, 2.0 * run.scale));
}

void measureFramesOverDelayLine(const Run& run) {
    const Placement placement(run.relay);
    const DelayLine line;
    const Connection connection = run.road.connect(&line);
    const std::jthread typing = type(connection.client.get());
    const std::jthread shadow = receiveWithoutPause(connection.shadow.get());
    const HangUp hangUp(connection);
    const double toWarmUp = 0.3; // until the congestion window holds a frame
    (void)timeMessages(connection.shadow.get(), connection.client.get(), frame, framesPerSecond,
                       toWarmUp);
    run.results.addLatencies("frames 20 ms",
                             timeMessages(connection.shadow.get(), connection.client.get(), frame,
                                          framesPerSecond, 2.0 * run.scale));
}

void measureKeystrokeUnderLoad(const Run& run) {
    const Placement placement(run.relay);
    const Connection connection = run.road.connect();
    const std::jthread picture = sendWithoutPause(connection.shadow.get());
    const std::jthread client = receiveSlowly(connection.client.get());
    const HangUp hangUp(connection);
    pause(0.3); // the way down is full
    run.results.addLatencies("keystroke",
                             timeMessages(connection.client.get(), connection.shadow.get(),
                                          keystroke, 200, 1.2 * run.scale));
}

void measureKeystrokeOnSlowLine(const Run& run) {
    const Placement placement(run.relay);
    constexpr double bytesPerSecond = 250'000;
    const DelayLine line(bytesPerSecond);
    const Connection connection = run.road.connect(&line);
    const std::jthread picture = sendWithoutPause(connection.shadow.get());
    const std::jthread client = receiveWithoutPause(connection.client.get());
    const HangUp hangUp(connection);
    pause(0.5);
    run.results.addLatencies("keystroke slow line",
                             timeMessages(connection.client.get(), connection.shadow.get(),
                                          keystroke, 100, 1.2 * run.scale));
}

void measureFramesDuringUpload(const Run& run) {
    timeFramesDuringUpload(run, "frames in upload", receiveWithoutPause);
    timeFramesDuringUpload(run, "frames in slow upload", receiveSlowly);
}

void measureEndOfStalledJob(const Run& run) {
    run.results.add("end of job", "stalled ms", timeEndOfJob(run, false));
    run.results.add("end of job", "reading ms", timeEndOfJob(run, true));
}

} // namespace Bench
