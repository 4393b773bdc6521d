#pragma once

#include <string>

#include "machine_identity.h"
#include "package.pb.h"

namespace Hox::Ctl {

/// What a service on this machine says to the archive as a package, with the reason, in the order
/// of its own checks. With isOverridden it accepts the packages of all machines.
Verdict verdictOf(const std::string& archive, const MachineIdentity& machine, bool isOverridden);

/// Whether services on the machine whose files are below this folder, "" for this one, accept the
/// packages of all machines.
bool hasOverrideMarker(const std::string& root);

}  // namespace Hox::Ctl
