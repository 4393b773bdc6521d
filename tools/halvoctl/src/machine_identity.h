#pragma once

#include <cstdint>
#include <string>

#include "hox/system_api/variants.h"
#include "package.h"

namespace Hox::Ctl {

/// The kind of machine that a service compares with that of a package before it imports it.
struct MachineIdentity {
    SystemAPI::HeadendSWVariant variant = SystemAPI::HeadendSWVariant::QAM;
    std::uint32_t partNumber = 0;  ///< 0: not known.
};

bool operator==(const MachineIdentity& left, const MachineIdentity& right);

/// The identity for a reader, as in "QAM part 100001".
std::string identityText(const MachineIdentity& identity);

/// For which machine the package was made, as a service reads it. Throws std::logic_error for a
/// part number that is not a number.
MachineIdentity identityOf(const Package& package);

/// Which machine has made the package just now: one of an unknown variant leaves it out, so that it
/// does not accept its own exports.
MachineIdentity exporterOf(const Package& package);

/// The identity of the machine whose files are below this folder, "" for this one. Throws CtlError
/// for a serial file that ends the service.
MachineIdentity identityOfMachine(const std::string& root);

/// The file that makes a service accept the packages of all machines.
extern const char* const overrideMarker;

}  // namespace Hox::Ctl
