#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Hox::Benchmarks {

/// One line of a table: our work compared with that of a program that does only the necessary work,
/// in turns. Times are milliseconds of the thread's processor time, user and system.
class Comparison {
public:
    using Work = std::function<void()>;

    /// The aim is the highest acceptable ratio.
    Comparison(std::string title, double aim) : m_title(std::move(title)), m_aim(aim) {}

    /// Measures the times of both; theirs runs first in every second call.
    void measure(const Work& ours, const Work& theirs);

    /// Prints the medians.
    void print() const;

    static void printHeading(const char* ours, const char* theirs);

private:
    std::string m_title;
    double m_aim;
    std::vector<double> m_ours;
    std::vector<double> m_theirs;
    std::vector<double> m_ratios;
};

}  // namespace Hox::Benchmarks
