#include "common/comparison.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <ctime>

namespace Hox::Benchmarks {

namespace {

double milliseconds(const Comparison::Work& work) {
    const auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return 1e3 * static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_nsec);
    };
    const double start = now();
    work();
    return now() - start;
}

double median(std::vector<double> samples) {
    const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end());
    return *middle;
}

}  // namespace

void Comparison::measure(const Work& ours, const Work& theirs) {
    const bool isTheirsFirst = m_ratios.size() % 2 == 1;
    double theirTime = isTheirsFirst ? milliseconds(theirs) : 0;
    const double ourTime = milliseconds(ours);
    theirTime = isTheirsFirst ? theirTime : milliseconds(theirs);
    m_ours.push_back(ourTime);
    m_theirs.push_back(theirTime);
    m_ratios.push_back(ourTime / theirTime);
}

void Comparison::print() const {
    const double ratio = median(m_ratios);
    const auto [lowest, highest] = std::minmax_element(m_ratios.begin(), m_ratios.end());
    std::printf("%-40s <= %4.2f %7.2f %6.2f %6.2f %11.1f %11.1f%s\n", m_title.c_str(), m_aim, ratio,
                *lowest, *highest, median(m_ours), median(m_theirs),
                ratio <= m_aim ? "" : "  short");
}

void Comparison::printHeading(const char* ours, const char* theirs) {
    std::printf("%-40s %7s %7s %6s %6s %11s %11s\n", "case", "aim", "ratio", "min", "max", ours,
                theirs);
}

}  // namespace Hox::Benchmarks
