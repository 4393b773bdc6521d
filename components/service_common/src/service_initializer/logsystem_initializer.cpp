#include "hox/service_common/service_initializer/logsystem_initializer.h"

#include <fmt/format.h>
#include <spdlog/logger.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "hox/cpputil/log/logger_name.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/cpputil/log/stdout_logger.h"
#include "hox/linutils/log/split_logger.h"

namespace Hox::Service {

LogsystemInitializer::LogsystemInitializer(int argc, char** argv) {
    const bool toStdout = std::any_of(argv, argv + argc, [](const char* argument) {
        return std::strcmp(argument, "--logstdout") == 0;
    });
    if (toStdout) {
        Log::setLogsystem(std::make_unique<Log::StdoutLogger>(spdlog::level::info));
    } else {
        Log::setLogsystem(std::make_unique<Log::SplitLogger>(
            fmt::format("{}.log", program_invocation_short_name), spdlog::level::info));
    }

    const std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    Log::getLogsystem()
        ->getLogger(_HALVOMACRO_loggerName())
        ->log(Log::here(), spdlog::level::debug, "Logsystem initialized.");
}

}  // namespace Hox::Service
