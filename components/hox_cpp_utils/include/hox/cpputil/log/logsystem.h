#pragma once

#include <memory>

#include "hox/cpputil/log/ilogsystem.h"

namespace Hox::Log {

/// The log system of the process, never empty: if none is set, one for standard output is installed
/// and a warning is logged. Callable from any thread.
std::shared_ptr<ILogsystem> getLogsystem();

/// Replaces the log system of the process. Loggers returned earlier stay valid. Callable from any
/// thread.
void setLogsystem(std::unique_ptr<ILogsystem> logsystem);

}  // namespace Hox::Log
