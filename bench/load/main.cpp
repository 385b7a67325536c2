// Puts one load after another on each relay in turn, for a number of rounds.

#include "measures.h"
#include "usage.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <unistd.h>

namespace {

using namespace Bench;

constexpr const char* usage =
    "usage: vorl_bench_load ROUNDS MEASURE RESULTS NAME PID PORT SOCKET [NAME PID PORT SOCKET]...\n"
    "MEASURE is one of the measures, or \"all\". A PID of 0, with an empty SOCKET, stands for no\n"
    "relay: the clients connect to the shadow server itself.\n";

constexpr int parts = 3;
constexpr std::string_view ownRelay = "vorl_proxy"; // it can end its jobs on a signal

struct Measure {
    std::string_view name;
    void (*take)(const Target& target, Results& results);
    int turns = 1; // of each target in a round: many and short where the machine's noise is coarse
    int mostRounds = 1000;
};

constexpr Measure measures[] = {
    {"idle", measureIdleAndMemory, 1, 1}, // the relays are as they were started
    {"bulk", measureBulk},
    {"echo", measureEcho, 12},
    {"oneway", measureOneWay, 12},
    {"frames", measureFrames, 3},
    {"delay", measureFramesOverDelayLine},
    {"keystroke", measureKeystrokeUnderLoad, 6},
    {"slowline", measureKeystrokeOnSlowLine},
    {"upload", measureFramesDuringUpload},
    {"slowupload", measureFramesDuringSlowUpload},
    {"busy", measureBusy},
    {"end", measureEndOfStalledJob, 1, 5},
};

int numberFrom(std::string_view text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        throw std::runtime_error("not a number: '" + std::string(text) + "'");
    return value;
}

void takeMeasure(const Measure& measure, const Target& target, Results& results) {
    if (measure.name == "end" && target.name != ownRelay)
        return;
    const std::int64_t before = timeTakenByHost();
    try {
        measure.take(target, results);
        results.endTurn(timeTakenByHost() > before);
    } catch (const std::exception& failure) {
        throw std::runtime_error(std::string(measure.name) + " on " + target.name + ": " +
                                 failure.what());
    }
}

/// A turn of each target, beginning with another one each time: the first one bears what the last
/// measure has left behind.
void takeTurns(const Measure& measure, const std::vector<Target>& targets, int first,
               Results& results) {
    for (std::size_t turn = 0; turn < targets.size(); ++turn)
        takeMeasure(measure, targets[(static_cast<std::size_t>(first) + turn) % targets.size()],
                    results);
}

void showProgress(int round, int rounds, std::string_view measure) {
    if (isatty(STDERR_FILENO) != 0) {
        std::fprintf(stderr, "\rround %d of %d: %-12.*s", round, rounds,
                     static_cast<int>(measure.size()), measure.data());
    }
}

void measureAll(int rounds, std::string_view wanted, const std::vector<Target>& targets,
                Results& results) {
    for (int round = 1; round <= rounds; ++round) {
        results.startPart((round - 1) * parts / rounds);
        for (const Measure& measure : measures) {
            if (round > measure.mostRounds || (wanted != "all" && wanted != measure.name))
                continue;
            showProgress(round, rounds, measure.name);
            for (int turn = 0; turn < measure.turns; ++turn)
                takeTurns(measure, targets, round + turn, results);
        }
    }
    showProgress(rounds, rounds, "done\n");
}

} // namespace

int main(int argc, char* argv[]) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() < 7 || arguments.size() % 4 != 3) {
        std::fputs(usage, stderr);
        return EXIT_FAILURE;
    }
    try {
        std::vector<Target> targets;
        for (std::size_t at = 3; at < arguments.size(); at += 4) {
            const auto port = static_cast<std::uint16_t>(numberFrom(arguments[at + 2]));
            targets.push_back(
                {arguments[at], numberFrom(arguments[at + 1]), Road(port, arguments[at + 3])});
        }
        Results results;
        measureAll(numberFrom(arguments[0]), arguments[1], targets, results);
        results.write(arguments[2]);
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "vorl_bench_load: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}
