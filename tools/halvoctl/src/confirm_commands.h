#pragma once

#include <string>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// An import as the user writes it.
struct ImportWords {
    std::string path;           ///< The package, "-" for the input.
    std::string time;           ///< When it reverts unless it is confirmed; empty: never.
    bool isDiscarding = false;  ///< Whether unsaved changes may be lost.
};

/// Replaces the configuration by a package, for some time if there is one. Then it throws CtlError
/// with No, before anything is sent, if there are unsaved changes; and a tool that is killed, or
/// loses its terminal, reverts all the same.
ExitCode importPackage(Session& session, const ImportWords& words);

/// Discards unsaved changes at the end of the time unless they are confirmed. Throws CtlError with
/// No if there are some already.
ExitCode guardConf(Session& session, const std::string& time);

/// Keeps the change with this id; without one the only change of a configuration.
ExitCode confirmChange(Session& session, const std::string& id);

/// Prints the changes that are neither confirmed nor reverted. Returns No if nothing will revert
/// one of them.
ExitCode showPending(Session& session);

}  // namespace Hox::Ctl
