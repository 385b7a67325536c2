#include "results.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Bench {

Results::Results(const std::string& path, std::string to, int number)
    : out(path, std::ios::app), target(std::move(to)), round(number) {
    if (!out)
        throw std::system_error(errno, std::generic_category(), path);
}

void Results::add(std::string_view measure, std::string_view metric, double value) {
    out << target << '\t' << round << '\t' << measure << '\t' << metric << '\t' << value
        << std::endl;
}

void Results::addLatencies(std::string_view measure, Samples samples) {
    samples.erase(samples.begin(),
                  samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 10));
    if (samples.empty())
        throw std::runtime_error("nothing arrived in measure " + std::string(measure));
    std::sort(samples.begin(), samples.end());
    for (std::size_t percent = 1; percent < 100; ++percent) {
        const std::size_t rank = samples.size() * percent / 100;
        add(measure, "p" + std::to_string(percent), static_cast<double>(samples[rank]) / 1000);
    }
}

} // namespace Bench
