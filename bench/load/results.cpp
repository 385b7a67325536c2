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
    const auto warmUp = static_cast<std::ptrdiff_t>(samples.size() / 10);
    Samples warm(samples.begin() + warmUp, samples.end());
    turn.emplace_back(&pools[{target, measure, part}], warm);

    const auto middle = warm.begin() + static_cast<std::ptrdiff_t>(warm.size() / 2);
    std::nth_element(warm.begin(), middle, warm.end());
    add(target, measure, "median", static_cast<double>(*middle) / 1000);
}

void Results::endTurn(bool disturbed) {
    for (const auto& [pool, samples] : turn) {
        Samples& all = disturbed ? pool->disturbed : pool->undisturbed;
        all.insert(all.end(), samples.begin(), samples.end());
        ++turns;
        disturbedTurns += disturbed ? 1 : 0;
    }
    turn.clear();
}

void Results::write(const std::string& path) const {
    std::ofstream out(path);
    const auto writeLine = [&out](const Figure& figure) {
        out << figure.target << '\t' << figure.measure << '\t' << figure.metric << '\t'
            << figure.value << '\n';
    };
    for (const Figure& figure : figures)
        writeLine(figure);
    writeLine({"host", "turns", "disturbed %", 100.0 * disturbedTurns / std::max(turns, 1)});
    for (const auto& [key, pool] : pools) {
        const auto& [target, measure, unused] = key;
        Samples sorted = pool.undisturbed.empty() ? pool.disturbed : pool.undisturbed;
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
