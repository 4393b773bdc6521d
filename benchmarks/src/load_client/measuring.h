#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "load_client/event_loop.h"
#include "load_client/server_meter.h"

namespace Hox::Benchmarks {

/// Name of a figure to its value.
using Figures = std::map<std::string, double>;

/// The time in microseconds.
double microseconds(std::chrono::nanoseconds time);

/// Time on the wall and on the server's processors since it was made.
class Stopwatch {
public:
    /// Keeps a reference to the meter.
    explicit Stopwatch(const ServerMeter& meter)
        : m_meter(meter), m_processorStart(meter.processorTime()), m_start(Clock::now()) {}

    /// The rate on the wall and the processor time of one, for what has happened that many times.
    Figures per(std::size_t count, const std::string& rateName) const;

private:
    const ServerMeter& m_meter;
    const std::chrono::nanoseconds m_processorStart;
    const Clock::time_point m_start;
};

/// The value below which this share of the samples lies; reorders them.
double quantile(std::vector<double>& samples, double share);

}  // namespace Hox::Benchmarks
