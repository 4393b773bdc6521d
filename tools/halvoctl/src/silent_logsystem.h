#pragma once

#include <memory>
#include <string>

#include "hox/cpputil/log/ilogsystem.h"

namespace Hox::Ctl {

/// Discards all records: the output of the tool is its result, and its libraries must not add to
/// it.
class SilentLogsystem : public Hox::Log::ILogsystem {
public:
    std::shared_ptr<spdlog::logger> getLogger(const std::string& name) override;
    std::shared_ptr<spdlog::logger> getLogger(const std::string& name,
                                              spdlog::level::level_enum level) override;
    void shutdown() override;
};

}  // namespace Hox::Ctl
