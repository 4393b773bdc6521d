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

/// Measures wall-clock time and the server's processor time since its construction.
class Stopwatch {
public:
    /// Keeps a reference to the meter.
    explicit Stopwatch(const ServerMeter& meter)
        : m_meter(meter), m_processorStart(meter.processorTime()), m_start(Clock::now()) {}

    /// The rate per wall-clock time and the processor time per operation, for `count` operations.
    Figures per(std::size_t count, const std::string& rateName) const;

private:
    const ServerMeter& m_meter;
    const std::chrono::nanoseconds m_processorStart;
    const Clock::time_point m_start;
};

/// The value below which this share of the samples is; reorders them.
double quantile(std::vector<double>& samples, double share);

}  // namespace Hox::Benchmarks
