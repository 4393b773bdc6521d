#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hox/cpputil/log/ilogsystem.h"

namespace Hox::Log {

/// Log system that writes every record to a rotating file and, from warnings up, to the journal.
///
/// A log call blocks for the write and is flushed immediately at every level, so that a crash loses
/// nothing. The file holds about 2000000 bytes; one older file is kept. All functions may be called
/// from any thread.
class SplitLogger : public ILogsystem {
public:
    /// Opens "/var/log/halvo/" + fileName for appending and creates missing folders. Throws
    /// spdlog::spdlog_ex if that fails.
    SplitLogger(const std::string& fileName, spdlog::level::level_enum level);

    std::shared_ptr<spdlog::logger> getLogger(const std::string& name) override;
    std::shared_ptr<spdlog::logger> getLogger(const std::string& name,
                                              spdlog::level::level_enum level) override;
    void shutdown() override;

private:
    const spdlog::level::level_enum m_defaultLevel;
    std::vector<spdlog::sink_ptr> m_sinks;  // set by the constructor, constant afterwards
    std::mutex m_mutex;  // makes finding and creating a logger one step; spdlog's own locks inside
};

}  // namespace Hox::Log
