#pragma once

#include <set>
#include <string>
#include <vector>

namespace Hox::Ctl {

/// The log of the service that runs on this machine, unless it has another name.
extern const char* const defaultLog;

/// The lines of the log file and of the one before it, the oldest first. Throws CtlError if the
/// log cannot be read.
std::vector<std::string> linesOfLog(const std::string& path);

/// The slices, as nodeType/nodeId/capability, that have been changed since the configuration was
/// last saved, reverted, replaced or loaded, by the lines of the service's log.
std::set<std::string> changedSlices(const std::vector<std::string>& lines);

}  // namespace Hox::Ctl
