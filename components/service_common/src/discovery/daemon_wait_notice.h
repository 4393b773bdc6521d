#pragma once

#include <spdlog/logger.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>

#include "hox/cpputil/timer/timer.h"

namespace Hox::Service {

/// Tells the log that the start waits for the mDNS daemon, once, when it has done so for three
/// seconds. Used on one thread.
class DaemonWaitNotice {
public:
    /// The time begins. Throws std::system_error if no thread can be created.
    explicit DaemonWaitNotice(std::shared_ptr<spdlog::logger> logger);

    /// The daemon is there: tells the log if the wait was told. Called once.
    void daemonAppeared();

    /// How long a start waits without a word.
    static constexpr std::chrono::seconds patience{3};

    /// What the log is told.
    static constexpr const char* waitingText = "Waiting for the mDNS daemon";
    static constexpr const char* appearedText = "The mDNS daemon has appeared";

private:
    const std::shared_ptr<spdlog::logger> m_logger;
    std::atomic<bool> m_isTold{false};
    std::optional<CppUtil::Timer> m_timer;
};

}  // namespace Hox::Service
