#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Bench {

/// Latencies of one measure, in nanoseconds.
using Samples = std::vector<std::int64_t>;

/// The figures of all targets and rounds.
class Results {
public:
    /// A figure of one round.
    void add(const std::string& target, const std::string& measure, const std::string& metric,
             double value);

    /// The latencies of one round. The first tenth is left out: there the connection warms up.
    void addLatencies(const std::string& target, const std::string& measure,
                      const Samples& samples);

    /// Writes a line for each figure: target, measure, metric and value, separated by tabs. The
    /// figures of each round, and the percentiles 1 to 99 of the latencies of all rounds together,
    /// in microseconds, as "p1" to "p99".
    /// @throws std::system_error when the file cannot be written
    void write(const std::string& path) const;

private:
    struct Figure {
        std::string target;
        std::string measure;
        std::string metric;
        double value;
    };

    std::vector<Figure> figures;
    std::map<std::pair<std::string, std::string>, Samples> latencies; // by target and measure
};

} // namespace Bench
