#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Bench {

/// Latencies of one measure, in nanoseconds.
using Samples = std::vector<std::int64_t>;

/// The figures of all targets and turns.
class Results {
public:
    /// Latencies added from here on belong to this part of the run. Percentiles are taken of each
    /// part by itself, so that a disturbance of the machine spoils one of them and not all.
    void startPart(int number) { part = number; }

    /// Ends a turn: what was added since the last one is its own.
    /// @param disturbed the host took a processor away meanwhile, for milliseconds. Its latencies
    ///                  count for percentiles only where a part has no other turn: they would tell
    ///                  which relay the host has met
    void endTurn(bool disturbed);

    /// A figure of one turn.
    void add(const std::string& target, const std::string& measure, const std::string& metric,
             double value);

    /// The latencies of one turn, whose median becomes a figure. The first tenth is left out: there
    /// the connection warms up.
    void addLatencies(const std::string& target, const std::string& measure,
                      const Samples& samples);

    /// Writes a line for each figure: target, measure, metric and value, separated by tabs. The
    /// figures of each turn, and the percentiles 1 to 99 of the latencies of each part, in
    /// microseconds, as "p1" to "p99".
    /// The share of the turns with latencies that were disturbed comes as target "host".
    /// @throws std::system_error when the file cannot be written
    void write(const std::string& path) const;

private:
    struct Figure {
        std::string target;
        std::string measure;
        std::string metric;
        double value;
    };

    /// Latencies of a target, a measure and a part.
    struct Pool {
        Samples undisturbed;
        Samples disturbed;
    };

    int part = 0;
    std::vector<Figure> figures;
    std::map<std::tuple<std::string, std::string, int>, Pool> pools;
    std::vector<std::pair<Pool*, Samples>> turn; // not ended yet
    int turns = 0;
    int disturbedTurns = 0;
};

} // namespace Bench
