// Puts one load after another on one relay and appends the figures to a file.

#include "measures.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>

namespace {

constexpr const char* usage =
    "usage: vorl_bench_load TARGET RELAY_PID ROUND SCALE SOCKET RESULTS [MEASURE]\n"
    "A pid of 0 stands for no relay: the clients connect to the shadow server itself.\n";

constexpr std::string_view ownRelay = "vorl_proxy"; // it can end its jobs on a signal

struct Measure {
    std::string_view name;
    void (*take)(const Bench::Run& run);
};

constexpr Measure measures[] = {
    {"many", Bench::measureMany}, // first: the relay's memory is as it was started
    {"bulk", Bench::measureBulk},
    {"echo", Bench::measureEcho},
    {"oneway", Bench::measureOneWay},
    {"frames", Bench::measureFrames},
    {"delay", Bench::measureFramesOverDelayLine},
    {"keystroke", Bench::measureKeystrokeUnderLoad},
    {"slowline", Bench::measureKeystrokeOnSlowLine},
    {"upload", Bench::measureFramesDuringUpload},
    {"end", Bench::measureEndOfStalledJob},
};

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 7 && argc != 8) {
        std::fputs(usage, stderr);
        return EXIT_FAILURE;
    }
    try {
        const pid_t relay = std::atoi(argv[2]);
        const Bench::Road road(relay == 0, argv[5]);
        Bench::Results results(argv[6], argv[1], std::atoi(argv[3]));
        const Bench::Run run{road, results, relay, std::atof(argv[4])};
        for (const Measure& measure : measures) {
            const bool wanted = argc < 8 || measure.name == argv[7];
            if (wanted && (measure.name != "end" || argv[1] == ownRelay))
                measure.take(run);
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "vorl_bench_load: %s: %s\n", argv[1], failure.what());
        return EXIT_FAILURE;
    }
}
