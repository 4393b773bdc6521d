#include "load_client/server_meter.h"

#include <fstream>
#include <stdexcept>

namespace Hox::Benchmarks {

ServerMeter::ServerMeter(pid_t process)
    : m_statusFile("/proc/" + std::to_string(process) + "/status") {
    if (clock_getcpuclockid(process, &m_clock) != 0) {
        throw std::runtime_error("No process " + std::to_string(process));
    }
}

std::chrono::nanoseconds ServerMeter::processorTime() const {
    timespec time{};
    if (clock_gettime(m_clock, &time) != 0) {
        throw std::runtime_error("The server has gone");
    }
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

long ServerMeter::residentBytes() const {
    std::ifstream status(m_statusFile);
    std::string word;
    while (status >> word) {
        if (word == "VmRSS:") {
            long kilobytes = 0;
            status >> kilobytes;
            return kilobytes * 1024;
        }
    }
    throw std::runtime_error("The server has gone");
}

}  // namespace Hox::Benchmarks
