#pragma once

#include <optional>
#include <string>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Prints for each service that has reported it whether its configuration is saved, and since when;
/// with a log on this machine also which slices have been changed since. Returns No if one is not
/// saved.
ExitCode showSaving(Session& session, const std::optional<std::string>& log);

/// Saves the configuration in force.
ExitCode saveConf(Session& session);

/// Reverts to the saved configuration. Asks first, unless isSure; throws CtlError without a
/// terminal or another answer than yes.
ExitCode revertConf(Session& session, bool isSure);

/// Removes the whole configuration; asks like revertConf.
ExitCode clearConf(Session& session, bool isSure);

/// Writes the saved configuration to the file, or to the output for "-".
ExitCode exportConf(Session& session, const std::string& path);

/// Replaces the configuration by the package in the file, or on the input for "-".
ExitCode importConf(Session& session, const std::string& path);

}  // namespace Hox::Ctl
