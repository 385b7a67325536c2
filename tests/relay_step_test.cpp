#include "fixtures/daemon_test.h"
#include "proxy/relay/relay_step.h"

#include <array>
#include <functional>

namespace VorlTest {

namespace {

using Pair = std::array<FileDescriptor, 2>;

Pair socketPair() {
    int fds[2]{-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    return {FileDescriptor(fds[0]), FileDescriptor(fds[1])};
}

Pair pipePair() { // to read from, to write to
    int fds[2]{-1, -1};
    EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
    return {FileDescriptor(fds[0]), FileDescriptor(fds[1])};
}

Pair acceptedPair() {
    auto pair = tcpPair();
    return {std::move(pair.second), std::move(pair.first)};
}

Pair written(Pair pair, size_t size) {
    EXPECT_EQ(write(pair[1].get(), std::string(size, 'x').data(), size), ssize_t(size));
    return pair;
}

Pair closed(Pair pair) {
    pair[1].reset();
    return pair;
}

Pair reset(Pair pair) {
    const linger atOnce{1, 0};
    setsockopt(pair[1].get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
    return closed(std::move(pair));
}

Pair alone(int fd) {
    return {FileDescriptor(fd), FileDescriptor()};
}

Pair withPendingClient() {
    FileDescriptor listener = boundSocket("127.0.0.1", 0);
    listen(listener.get(), 1);
    const uint16_t port = portOf(listener);
    return {std::move(listener), connectTo(port)};
}

struct Source {
    const char* name;
    std::function<Pair()> make; // the source is the first
    std::int64_t result;
    const char* failure; // the line in the journal; null for none
};

const Source sources[] = {
    {"none", [] { return alone(-1); }, 0, nullptr},
    {"without bytes", socketPair, 0, nullptr},
    {"with few bytes", [] { return written(socketPair(), 7); }, 7, nullptr},
    {"with as many bytes as the buffer", [] { return written(socketPair(), 100); }, 100, nullptr},
    {"with more bytes", [] { return written(socketPair(), 50'000); }, 50'000, nullptr},
    {"at its end", [] { return closed(socketPair()); }, -2, nullptr},
    {"bytes before its end", [] { return closed(written(acceptedPair(), 7)); }, 7, nullptr},
    {"reset", [] { return reset(acceptedPair()); }, -3, "*: recv failed, error: *, code: 104"},
    {"TCP, not connected", [] { return alone(socket(AF_INET, SOCK_STREAM, 0)); }, 0, nullptr},
    {"local, not connected", [] { return alone(socket(AF_UNIX, SOCK_STREAM, 0)); }, 0, nullptr},
    {"listening", withPendingClient, -1, "hasData: ioctl failed, error: *, code: 22"},
    {"empty pipe", pipePair, 0, nullptr},
    {"pipe", [] { return written(pipePair(), 7); }, -3, "*: recv failed, error: *, code: 88"},
    {"pipe at its end", [] { return closed(pipePair()); }, 0, nullptr},
    {"not countable", [] { return alone(open("/dev/zero", O_RDWR | O_CLOEXEC)); }, -1,
     "hasData: ioctl failed, error: *, code: 25"},
};

} // namespace

// Whether it asks for input first or receives first.
TEST(RelayStep, GivesTheSameResultForEverySource) {
    Journal journal;
    const std::atomic<bool> running = true;
    for (const Source& source : sources) {
        for (const bool receivesFirst : {false, true}) {
            journal.forget();
            const Pair pair = source.make();
            const Pair destination = socketPair();
            std::vector<std::uint8_t> buffer(100);
            const auto step = receivesFirst ? Vorl::streamTransferIter : Vorl::jobTransferIter;
            const std::int64_t result = step(pair[0].get(), destination[0].get(), buffer, &running);
            EXPECT_EQ(result, source.result) << source.name << ", " << receivesFirst;
            if (source.failure) {
                EXPECT_TRUE(journal.saw({source.failure})) << source.name << ", " << receivesFirst;
            }
            std::string arrived(1 << 20, '\0');
            const ssize_t size =
                recv(destination[1].get(), arrived.data(), arrived.size(), MSG_DONTWAIT);
            EXPECT_EQ(size, result > 0 ? result : -1) << source.name << ", " << receivesFirst;
            if (!receivesFirst && result > 0) {
                EXPECT_EQ(buffer.size(), size_t(result));
            }
        }
    }
}

// A longer step could wait for room at its destination, and the other direction with it.
TEST(RelayStep, IsBoundedWhereItReceivesFirst) {
    const std::atomic<bool> running = true;
    const Pair pair = written(socketPair(), 150'000);
    const Pair destination = socketPair();
    std::vector<std::uint8_t> buffer;
    for (const std::int64_t moved : {128 * 1024, 150'000 - 128 * 1024, 0})
        EXPECT_EQ(Vorl::streamTransferIter(pair[0].get(), destination[0].get(), buffer, &running),
                  moved);
}

// A relay that waits for traffic, and one whose client was dropped.
TEST_F(DaemonTest, IdleRelaysDoNotWakeUp) {
    start();
    const auto switches = [this] { // of each thread, by its directory
        std::map<std::string, std::string> counts;
        for (const auto& task : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(daemon.process->pid()) + "/task")) {
            const std::string status = readFile(task.path() / "status");
            counts[task.path()] = status.substr(std::min(status.find("volun"), status.size()));
        }
        return counts;
    };
    const auto others = switches();
    const FileDescriptor client = open(7);
    service.answer("proxySessionConnected", Answer::Error);
    allow(8, 8);
    EXPECT_TRUE(ends(connectTo(port)));
    EXPECT_TRUE(journal.saw({"actionCreateTransport: exception: *, session id: 8"}));
    EXPECT_TRUE(eventually([&] { return switches().size() == others.size() + 4; }))
        << "two for each relay";
    const auto sleep = [&] { // not before each thread has begun its wait
        const auto before = switches();
        std::this_thread::sleep_for(2500ms); // a thread that wakes up does so within that time
        return std::ranges::all_of(switches(), [&](const auto& thread) {
            return others.contains(thread.first) || before.at(thread.first) == thread.second;
        });
    };
    EXPECT_TRUE(eventually(sleep));
}

} // namespace VorlTest
