#include "discovery/daemon_wait_notice.h"

#include <utility>

#include "hox/cpputil/log/source_location.h"

namespace Hox::Service {

DaemonWaitNotice::DaemonWaitNotice(std::shared_ptr<spdlog::logger> logger)
    : m_logger(std::move(logger)) {
    m_timer.emplace();
    m_timer->add(std::chrono::steady_clock::now() + patience, [this](bool timerEnds) {
        if (!timerEnds) {
            m_logger->log(Log::here(), spdlog::level::warn, waitingText);
            m_isTold = true;
        }
    });
}

void DaemonWaitNotice::daemonAppeared() {
    m_timer.reset();  // so that the records are in order
    if (m_isTold) {
        m_logger->log(Log::here(), spdlog::level::info, appearedText);
    }
}

}  // namespace Hox::Service
