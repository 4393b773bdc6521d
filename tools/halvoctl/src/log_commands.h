#pragma once

#include <cstddef>
#include <string>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Prints the loggers whose short or whole name matches the pattern of a shell, with their levels.
/// Throws CtlError if there is none.
ExitCode listLoggers(Session& session, const std::string& pattern);

/// Which part of a log is printed.
struct TailWords {
    std::string path = "/var/log/halvo/halvo-system.log";  ///< The log file.
    std::size_t count = 10;                                ///< How many of the last lines.
    bool isFollowing = false;                              ///< Whether it goes on.
};

/// Prints the last lines of a log on this machine, and the following ones until the user ends it.
ExitCode tailLog(Session& session, const TailWords& words);

}  // namespace Hox::Ctl
