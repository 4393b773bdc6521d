#include "hox/linutils/log/split_logger.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include "hox/linutils/log/systemd_sink.h"

namespace Hox::Log {

namespace {

constexpr auto logFolder = "/var/log/halvo/";
constexpr std::size_t maxFileSize = 2000000;
constexpr std::size_t maxRotatedFiles = 1;

}  // namespace

SplitLogger::SplitLogger(const std::string& fileName, spdlog::level::level_enum level)
    : m_defaultLevel(level) {
    auto journalSink = std::make_shared<systemd_sink<std::mutex>>();
    m_sinks.push_back(journalSink);
    auto fileSink = std::make_shared<spdlog::sinks::rotating_file_sink<std::mutex>>(
        logFolder + fileName, maxFileSize, maxRotatedFiles, false);
    m_sinks.push_back(fileSink);

    journalSink->set_level(spdlog::level::warn);
    journalSink->set_pattern("[%s:%#] %v");
    fileSink->set_level(spdlog::level::trace);
    fileSink->set_pattern("[%Y-%m-%d %T.%e][%l][%s:%#] %v");
}

std::shared_ptr<spdlog::logger> SplitLogger::getLogger(const std::string& name) {
    return getLogger(name, m_defaultLevel);
}

std::shared_ptr<spdlog::logger> SplitLogger::getLogger(const std::string& name,
                                                       spdlog::level::level_enum level) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto& registry = spdlog::details::registry::instance();
    if (auto existing = registry.get(name)) {
        return existing;
    }
    auto logger = std::make_shared<spdlog::logger>(name, m_sinks.begin(), m_sinks.end());
    registry.register_logger(logger);
    logger->set_level(level);
    logger->flush_on(spdlog::level::trace);
    return logger;
}

void SplitLogger::shutdown() {
    spdlog::shutdown();
}

}  // namespace Hox::Log
