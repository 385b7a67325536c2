#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace Bench {

/// Latencies of one measure, in nanoseconds.
using Samples = std::vector<std::int64_t>;

/// The figures of one run of the load against one target: appended to a file, a line each, as
/// "target round measure metric value", separated by tabs.
class Results {
public:
    /// @throws std::system_error when the file cannot be opened
    Results(const std::string& path, std::string target, int round);

    void add(std::string_view measure, std::string_view metric, double value);
    /// The percentiles 1 to 99 in microseconds, as "p1" to "p99". The first tenth of the samples is
    /// left out: there the connection still warms up.
    void addLatencies(std::string_view measure, Samples samples);

private:
    std::ofstream out;
    std::string target;
    int round;
};

} // namespace Bench
