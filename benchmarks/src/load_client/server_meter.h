#pragma once

#include <sys/types.h>

#include <chrono>
#include <ctime>
#include <string>

namespace Hox::Benchmarks {

/// Reads what a server process uses, from outside it.
class ServerMeter {
public:
    /// Throws std::runtime_error when there is no such process.
    explicit ServerMeter(pid_t process);

    /// Processor time of all its threads so far, user and system.
    std::chrono::nanoseconds processorTime() const;

    /// Its resident memory in bytes.
    long residentBytes() const;

private:
    std::string m_statusFile;
    clockid_t m_clock = 0;
};

}  // namespace Hox::Benchmarks
