#include "store_wait.h"

#include <utility>

#include "hox/cpputil/log/source_location.h"

namespace Hox::Capability::Configuration {

namespace {

constexpr std::chrono::seconds firstNotice{3};
constexpr std::chrono::minutes noticeInterval{1};

}  // namespace

StoreWait::StoreWait(std::shared_ptr<spdlog::logger> logger, std::string what,
                     std::function<bool()> isEnding)
    : m_logger(std::move(logger)),
      m_what(std::move(what)),
      m_isEnding(std::move(isEnding)),
      m_begin(std::chrono::steady_clock::now()),
      m_nextNotice(m_begin + firstNotice) {}

bool StoreWait::mustEnd() {
    if (m_isEnding()) {
        return true;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now >= m_nextNotice) {
        m_nextNotice = now + noticeInterval;
        m_logger->log(Hox::Log::here(), spdlog::level::warn, "Waiting for {}", m_what);
    }
    return false;
}

std::chrono::steady_clock::duration StoreWait::duration() const {
    return std::chrono::steady_clock::now() - m_begin;
}

}  // namespace Hox::Capability::Configuration
