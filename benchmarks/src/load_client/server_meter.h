#pragma once

#include <sys/types.h>

#include <chrono>
#include <ctime>
#include <string>

namespace Hox::Benchmarks {

/// Reads the resource usage of a server process from outside.
class ServerMeter {
public:
    /// Throws std::runtime_error if there is no such process.
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
