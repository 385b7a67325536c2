#include "results.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <system_error>

namespace Bench {

void Results::add(const std::string& target, const std::string& measure, const std::string& metric,
                  double value) {
    figures.push_back({target, measure, metric, value});
}

void Results::addLatencies(const std::string& target, const std::string& measure,
                           const Samples& samples) {
    Samples& all = latencies[{target, measure, part}];
    const auto warmUp = static_cast<std::ptrdiff_t>(samples.size() / 10);
    all.insert(all.end(), samples.begin() + warmUp, samples.end());
}

void Results::write(const std::string& path) const {
    std::ofstream out(path);
    const auto writeLine = [&out](const Figure& figure) {
        out << figure.target << '\t' << figure.measure << '\t' << figure.metric << '\t'
            << figure.value << '\n';
    };
    for (const Figure& figure : figures)
        writeLine(figure);
    for (const auto& [key, samples] : latencies) {
        const auto& [target, measure, unused] = key;
        Samples sorted = samples;
        std::sort(sorted.begin(), sorted.end());
        for (std::size_t percent = 1; percent < 100; ++percent) {
            const std::int64_t value = sorted[sorted.size() * percent / 100];
            writeLine({target, measure, "p" + std::to_string(percent),
                       static_cast<double>(value) / 1000});
        }
    }
    if (!out.flush())
        throw std::system_error(errno, std::generic_category(), path);
}

} // namespace Bench
