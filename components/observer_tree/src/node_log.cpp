#include "hox/observer_tree/node_log.h"

#include <spdlog/logger.h>

#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"

namespace Hox::ObserverTree {

NodeLog::NodeLog(const std::string& loggerName)
    : m_logger(Hox::Log::getLogsystem()->getLogger(loggerName)) {}

void NodeLog::callFailed(const std::string& text, const std::string& label,
                         const std::string& message) const {
    m_logger->log(Hox::Log::here(), spdlog::level::err, "{}", text);
    m_logger->log(Hox::Log::here(), spdlog::level::err, "{}: {}", label, message);
}

void NodeLog::deliveryFailed(const std::string& reason) const {
    m_logger->log(Hox::Log::here(), spdlog::level::err,
                  "Caught exception in Observer Tree observe Callback:\n{}", reason);
}

}  // namespace Hox::ObserverTree
