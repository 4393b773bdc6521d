#pragma once

#include <string>
#include <vector>

#include "connection.h"
#include "doctor.pb.h"

namespace Hox::Ctl {

/// Examines a service through its endpoint. An endpoint that does not answer is one check that has
/// failed. Throws CtlError only if the user ends the command.
std::vector<Check> checkService(const Connection& connection);

}  // namespace Hox::Ctl
