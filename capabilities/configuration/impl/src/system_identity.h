#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "hox/system_api/variants.h"

namespace Hox::Capability::Configuration {

/// The kind of appliance that a configuration belongs to.
struct SystemIdentity {
    Hox::SystemAPI::HeadendSWVariant variant = Hox::SystemAPI::HeadendSWVariant::QAM;
    std::uint32_t partNumber = 0;  ///< 0: not known.
};

bool operator==(const SystemIdentity& left, const SystemIdentity& right);

/// The identity of this machine.
SystemIdentity readSystemIdentity();

/// The identity of an unpacked package, which contains only files and folders. A member without a
/// file keeps its default. Throws std::logic_error for a part number that is not a number, and
/// std::filesystem::filesystem_error for a file that cannot be read.
SystemIdentity readPackageIdentity(const std::filesystem::path& dir);

/// Writes the identity into the folder to be packed; replaces links, pipes and similar entries with
/// these names. The files are for their owner and group only. Throws CppUtil::FileSystemError, and
/// std::filesystem::filesystem_error for an entry that cannot be replaced.
void writePackageIdentity(const SystemIdentity& identity, const std::filesystem::path& dir);

/// For the log: "output: QAM partNo:100001".
std::string describeIdentity(const SystemIdentity& identity);

}  // namespace Hox::Capability::Configuration
