#include "system_identity.h"

#include <optional>
#include <sstream>

#include "hox/cpputil/error/file_system_error.h"
#include "hox/linutils/files.h"
#include "hox/system_api/models.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {

namespace {

constexpr const char* systemVariantFile = "/etc/sw_variant";
constexpr const char* variantFile = "swvariant";
constexpr const char* variantTemporary = "swvariant.new";
constexpr const char* partNumberFile = "partno";

constexpr fs::perms fileRights =
    fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;

/// Empty for a file that does not exist. Throws std::filesystem::filesystem_error for one that
/// cannot be read.
std::optional<std::istringstream> openIfThere(const fs::path& path) {
    return fs::exists(path) ? std::make_optional<std::istringstream>(LinuxCppUtil::readFile(path))
                            : std::nullopt;
}

/// Removes anything at the path except a folder and a regular file with a single link. A folder
/// that was changed by hand may contain a link that leads out of it or a pipe that blocks.
void makeWayForAFile(const fs::path& path) {
    const auto status = fs::symlink_status(path);
    const bool isOwnFile = fs::is_regular_file(status) && fs::hard_link_count(path) == 1;
    if (fs::exists(status) && !fs::is_directory(status) && !isOwnFile) {
        fs::remove(path);
    }
}

void writePartNumber(std::uint32_t partNumber, const fs::path& path) {
    makeWayForAFile(path);
    try {
        LinuxCppUtil::writeFile(path, std::to_string(partNumber) + "\n");
    } catch (const fs::filesystem_error&) {
        throw Hox::CppUtil::FileSystemError("Unable to write partno file", __FILE__, __LINE__);
    }
}

}  // namespace

bool operator==(const SystemIdentity& left, const SystemIdentity& right) {
    return left.variant == right.variant && left.partNumber == right.partNumber;
}

SystemIdentity readSystemIdentity() {
    SystemIdentity identity;
    identity.variant = Hox::SystemAPI::deSerialize(fs::path(systemVariantFile));
    if (const auto model = Hox::SystemAPI::findModel()) {
        identity.partNumber = static_cast<std::uint32_t>(model->partNumber);
    }
    return identity;
}

SystemIdentity readPackageIdentity(const fs::path& dir) {
    SystemIdentity identity;
    if (auto file = openIfThere(dir / variantFile)) {
        identity.variant = Hox::SystemAPI::deSerialize(*file);
    }
    auto file = openIfThere(dir / partNumberFile);
    std::string line;
    if (file && std::getline(*file, line)) {
        identity.partNumber = static_cast<std::uint32_t>(std::stoi(line));
    }
    return identity;
}

void writePackageIdentity(const SystemIdentity& identity, const fs::path& dir) {
    makeWayForAFile(dir / variantTemporary);  // renamed to the variant file at the end
    Hox::SystemAPI::serialize(identity.variant, dir / variantFile);
    fs::permissions(dir / variantFile, fileRights);
    writePartNumber(identity.partNumber, dir / partNumberFile);
}

std::string describeIdentity(const SystemIdentity& identity) {
    return std::string("output: ") + nameOf(identity.variant) +
           " partNo:" + std::to_string(identity.partNumber);
}

}  // namespace Hox::Capability::Configuration
