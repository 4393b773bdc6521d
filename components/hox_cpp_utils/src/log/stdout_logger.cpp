#include "hox/cpputil/log/stdout_logger.h"

#include <spdlog/async.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

namespace Hox::Log {

namespace {

constexpr std::size_t queueSize = 8192;
constexpr std::size_t workerCount = 1;

}  // namespace

StdoutLogger::StdoutLogger(spdlog::level::level_enum level) : m_defaultLevel(level) {
    spdlog::details::registry::instance().set_tp(
        std::make_shared<spdlog::details::thread_pool>(queueSize, workerCount, [] {}));
    m_sinks.push_back(std::make_shared<spdlog::sinks::stdout_sink_mt>());
    for (const auto& sink : m_sinks) {
        sink->set_pattern("[%T.%e] [%l] %v");
    }
}

std::shared_ptr<spdlog::logger> StdoutLogger::getLogger(const std::string& name) {
    return getLogger(name, m_defaultLevel);
}

std::shared_ptr<spdlog::logger> StdoutLogger::getLogger(const std::string& name,
                                                        spdlog::level::level_enum level) {
    auto& registry = spdlog::details::registry::instance();
    if (auto existing = registry.get(name)) {
        return existing;
    }
    auto logger = std::make_shared<spdlog::async_logger>(
        name, m_sinks.begin(), m_sinks.end(), registry.get_tp(),
        spdlog::async_overflow_policy::overrun_oldest);
    registry.register_logger(logger);
    logger->set_level(level);
    return logger;
}

void StdoutLogger::shutdown() {
    spdlog::shutdown();
}

}  // namespace Hox::Log
