#pragma once

#include <vector>

#include "hox/cpputil/log/ilogsystem.h"

namespace Hox::Log {

/// Log system that writes to standard output from one worker thread.
///
/// Callers only enqueue and never block: when the queue is full, its oldest record is dropped.
/// getLogger has no lock of its own; the frame creates loggers on the main thread.
class StdoutLogger : public ILogsystem {
public:
    /// Starts the worker thread and stores it in spdlog's registry.
    explicit StdoutLogger(spdlog::level::level_enum level);

    std::shared_ptr<spdlog::logger> getLogger(const std::string& name) override;
    std::shared_ptr<spdlog::logger> getLogger(const std::string& name,
                                              spdlog::level::level_enum level) override;
    void shutdown() override;

private:
    spdlog::level::level_enum m_defaultLevel;
    std::vector<spdlog::sink_ptr> m_sinks;
};

}  // namespace Hox::Log
