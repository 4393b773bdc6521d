#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "hox/system_api/variants.h"

namespace Hox::Capability::Configuration {

/// What kind of appliance configuration belongs to.
struct SystemIdentity {
    Hox::SystemAPI::HeadendSWVariant variant = Hox::SystemAPI::HeadendSWVariant::QAM;
    std::uint32_t partNumber = 0;  ///< 0: not known.
};

bool operator==(const SystemIdentity& left, const SystemIdentity& right);

/// That of this machine.
SystemIdentity readSystemIdentity();

/// That of an unpacked package, which holds nothing but files and folders. What has no file keeps
/// its default. Throws std::logic_error for a part number that is none, and
/// std::filesystem::filesystem_error for a file that cannot be read.
SystemIdentity readPackageIdentity(const std::filesystem::path& dir);

/// Writes the identity into the folder that is to be packed, in place of links, pipes and the like
/// that may have been put there, for its owner and group alone. Throws CppUtil::FileSystemError,
/// and std::filesystem::filesystem_error for what cannot be replaced.
void writePackageIdentity(const SystemIdentity& identity, const std::filesystem::path& dir);

/// For the log: "output: QAM partNo:100001".
std::string describeIdentity(const SystemIdentity& identity);

}  // namespace Hox::Capability::Configuration
