#pragma once

#include <spdlog/logger.h>

#include <memory>
#include <string>

namespace Hox::Log {

/// Hands out the loggers of the process.
class ILogsystem {
public:
    virtual ~ILogsystem() = default;

    /// Finds or creates the logger with the log system's default level.
    virtual std::shared_ptr<spdlog::logger> getLogger(const std::string& name) = 0;

    /// Finds or creates the logger. The level applies to a new logger only; an existing logger is
    /// returned unchanged. Throws spdlog::spdlog_ex if other code registers the name in the
    /// meantime.
    virtual std::shared_ptr<spdlog::logger> getLogger(const std::string& name,
                                                      spdlog::level::level_enum level) = 0;

    /// Drops all loggers and releases spdlog's threads.
    virtual void shutdown() = 0;
};

}  // namespace Hox::Log
