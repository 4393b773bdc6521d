#include "silent_logsystem.h"

#include <spdlog/sinks/null_sink.h>

namespace Hox::Ctl {

std::shared_ptr<spdlog::logger> SilentLogsystem::getLogger(const std::string& name) {
    return getLogger(name, spdlog::level::off);
}

std::shared_ptr<spdlog::logger> SilentLogsystem::getLogger(const std::string& name,
                                                           spdlog::level::level_enum level) {
    auto logger =
        std::make_shared<spdlog::logger>(name, std::make_shared<spdlog::sinks::null_sink_mt>());
    logger->set_level(level);
    return logger;
}

void SilentLogsystem::shutdown() {}

}  // namespace Hox::Ctl
