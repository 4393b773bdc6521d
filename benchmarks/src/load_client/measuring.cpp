#include "load_client/measuring.h"

#include <algorithm>

namespace Hox::Benchmarks {

double microseconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

Figures Stopwatch::per(std::size_t count, const std::string& rateName) const {
    const auto wall = microseconds(Clock::now() - m_start);
    const auto processor = microseconds(m_meter.processorTime() - m_processorStart);
    return {{rateName, 1e6 * static_cast<double>(count) / wall},
            {"cpu_us", processor / static_cast<double>(count)}};
}

double quantile(std::vector<double>& samples, double share) {
    const auto position =
        static_cast<std::ptrdiff_t>(share * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + position, samples.end());
    return samples[static_cast<std::size_t>(position)];
}

}  // namespace Hox::Benchmarks
