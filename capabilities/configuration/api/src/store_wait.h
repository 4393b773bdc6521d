#pragma once

#include <spdlog/logger.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace Hox::Capability::Configuration {

/// One wait for the central store: says what it waits for, at first after three seconds and then
/// once per minute.
///
/// Used by one thread.
class StoreWait {
public:
    /// How long the caller may wait before it asks again.
    static constexpr std::chrono::milliseconds step{200};

    /// `what` follows "Waiting for " in the log. `isEnding` says whether the process, or whoever
    /// waits, is about to end.
    StoreWait(std::shared_ptr<spdlog::logger> logger, std::string what,
              std::function<bool()> isEnding);

    /// Whether the wait must end before it has its result. Logs when it is time to.
    bool mustEnd();

    /// How long the wait has lasted.
    std::chrono::steady_clock::duration duration() const;

private:
    const std::shared_ptr<spdlog::logger> m_logger;
    const std::string m_what;
    const std::function<bool()> m_isEnding;
    const std::chrono::steady_clock::time_point m_begin;
    std::chrono::steady_clock::time_point m_nextNotice;
};

}  // namespace Hox::Capability::Configuration
