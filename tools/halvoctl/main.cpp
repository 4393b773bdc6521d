#include <google/protobuf/stubs/logging.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "command_line.h"
#include "hox/cpputil/log/logsystem.h"
#include "interrupt_signals.h"
#include "silent_logsystem.h"

int main(int argc, char** argv) {
    std::ios::sync_with_stdio(false);
    google::protobuf::SetLogHandler(nullptr);
    Hox::Log::setLogsystem(std::make_unique<Hox::Ctl::SilentLogsystem>());
    Hox::Ctl::Interrupt interrupt;
    const Hox::Ctl::InterruptSignals signals(interrupt);
    const auto environment = [](const std::string& name) {
        const char* const value = std::getenv(name.c_str());
        return std::string(value == nullptr ? "" : value);
    };
    Hox::Ctl::Surroundings surroundings{std::cin,
                                        std::cout,
                                        std::cerr,
                                        interrupt,
                                        Hox::Ctl::makeChannel,
                                        std::chrono::system_clock::now,
                                        environment,
                                        ::isatty(STDIN_FILENO) == 1,
                                        ::isatty(STDOUT_FILENO) == 1};
    return static_cast<int>(
        Hox::Ctl::runCommandLine(std::vector<std::string>(argv + 1, argv + argc), surroundings));
}
