#pragma once

#include <cstdint>
#include <optional>
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

/// The same of a package, whose identity may be one that cannot be read.
std::string identityText(const std::optional<MachineIdentity>& identity);

/// Both identities for a reader: "made for QAM part 100001; this machine is COFDM part 100003".
std::string machinesText(const std::optional<MachineIdentity>& madeFor,
                         const MachineIdentity& machine);

/// For which machine the package was made, as a service reads it; nothing if it cannot be read,
/// because its part number is no number or one of its files is a folder.
std::optional<MachineIdentity> identityOf(const Package& package);

/// Which machine has made the package just now: one of an unknown variant leaves it out, so that it
/// does not accept its own exports. Throws CtlError if the identity cannot be read.
MachineIdentity exporterOf(const Package& package);

/// The identity of the machine whose files are below this folder, "" for this one. Throws CtlError
/// for a serial file that ends the service.
MachineIdentity identityOfMachine(const std::string& root);

/// The files of a package with its identity.
///@{
constexpr const char* packageVariant = "swvariant";
constexpr const char* packagePartNumber = "partno";
///@}

}  // namespace Hox::Ctl
