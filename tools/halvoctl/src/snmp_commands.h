#pragma once

#include <string>
#include <vector>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// The manager that gets the traps, as the user writes it.
struct ManagerWords {
    std::string address;               ///< Its address or name, without a port.
    std::string port = "162";          ///< The port on which it listens.
    std::string community = "public";  ///< The community of the traps.
};

/// The types of reports that are sent as traps.
const std::vector<std::string>& trapTypes();

/// Prints the manager that gets the traps.
ExitCode showManager(Session& session);

/// Sends the traps to this manager from now on. Throws CtlError for one that cannot get any, before
/// anything is sent, and if the service refuses it, as one that sends no traps does.
ExitCode setManager(Session& session, const ManagerWords& words);

/// Sends no more traps.
ExitCode clearManager(Session& session);

/// Reports a bad state of the type and then OK, each of which is sent as a trap. Throws CtlError,
/// before anything is sent, if there is no manager.
ExitCode testTraps(Session& session, const std::string& type);

}  // namespace Hox::Ctl
