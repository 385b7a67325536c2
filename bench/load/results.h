#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace Bench {

/// Latencies of one measure, in nanoseconds.
using Samples = std::vector<std::int64_t>;

/// The figures of all targets and rounds.
class Results {
public:
    /// Latencies added from here on belong to this part of the run. Percentiles are taken of each
    /// part by itself, so that a disturbance of the machine spoils one of them and not all.
    void startPart(int number) { part = number; }

    /// A figure of one round.
    void add(const std::string& target, const std::string& measure, const std::string& metric,
             double value);

    /// The latencies of one round. The first tenth is left out: there the connection warms up.
    void addLatencies(const std::string& target, const std::string& measure,
                      const Samples& samples);

    /// Writes a line for each figure: target, measure, metric and value, separated by tabs. The
    /// figures of each round, and the percentiles 1 to 99 of the latencies of each part, in
    /// microseconds, as "p1" to "p99".
    /// @throws std::system_error when the file cannot be written
    void write(const std::string& path) const;

private:
    struct Figure {
        std::string target;
        std::string measure;
        std::string metric;
        double value;
    };

    int part = 0;
    std::vector<Figure> figures;
    std::map<std::tuple<std::string, std::string, int>, Samples> latencies; // target, measure, part
};

} // namespace Bench
