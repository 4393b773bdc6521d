#pragma once

#include <string>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Where a command on packages reads one: a file, "-" for the input, "@" for the saved copy of the
/// endpoint. All of them throw CtlError if it cannot be read, and all but the last two also if it
/// is no package.
using PackagePlace = std::string;

/// Prints the keys of a package, also their sizes and values if it is long.
ExitCode listKeys(Session& session, const PackagePlace& place, bool isLong);

/// Prints the value of a key; control characters on a terminal in escaped form. Throws CtlError
/// with No if the package does not have it.
ExitCode printKey(Session& session, const std::string& key, const PackagePlace& place);

/// Prints the keys that differ between two packages. Returns No if there are any.
ExitCode comparePackages(Session& session, const PackagePlace& before, const PackagePlace& after);

/// Prints what is wrong in a package. Returns No if there is anything.
ExitCode lintPackage(Session& session, const PackagePlace& place);

/// Prints whether the endpoint, or with isHere this machine, accepts the package. Returns No if it
/// does not.
ExitCode verifyPackage(Session& session, const PackagePlace& place, bool isHere);

}  // namespace Hox::Ctl
