#include "hox/cpputil/log/logsystem.h"

#include <mutex>
#include <utility>

#include "hox/cpputil/log/source_location.h"
#include "hox/cpputil/log/stdout_logger.h"

namespace Hox::Log {

namespace {

std::mutex logsystemMutex;
std::shared_ptr<ILogsystem> storedLogsystem;  // GUARDED_BY(logsystemMutex)

}  // namespace

std::shared_ptr<ILogsystem> getLogsystem() {
    const std::lock_guard<std::mutex> lock(logsystemMutex);
    if (!storedLogsystem) {
        storedLogsystem = std::make_shared<StdoutLogger>(spdlog::level::info);
        storedLogsystem->getLogger("Logsystem")
            ->log(here(), spdlog::level::warn, "No logsystem initialized. Falling back to stdout.");
    }
    return storedLogsystem;
}

void setLogsystem(std::unique_ptr<ILogsystem> logsystem) {
    const std::lock_guard<std::mutex> lock(logsystemMutex);
    storedLogsystem = std::move(logsystem);
}

}  // namespace Hox::Log
