#include "system_identity.h"

#include <fstream>

#include "hox/cpputil/error/file_system_error.h"
#include "hox/system_api/models.h"

namespace fs = std::filesystem;

namespace Hox::Capability::Configuration {

using Hox::SystemAPI::HeadendSWVariant;

namespace {

constexpr const char* systemVariantFile = "/etc/sw_variant";
constexpr const char* variantFile = "swvariant";
constexpr const char* variantTemporary = "swvariant.new";
constexpr const char* partNumberFile = "partno";

/// A package may hold pipes and devices, which are never opened: they might not come to an end.
bool mayBlock(const fs::path& path) {
    const auto status = fs::status(path);
    return fs::is_fifo(status) || fs::is_character_file(status) || fs::is_block_file(status);
}

/// A package may also hold what leads out of the folder or blocks: a file that is written there
/// must be its own.
void makeWayForAFile(const fs::path& path) {
    const auto status = fs::symlink_status(path);
    const bool isOwnFile = fs::is_regular_file(status) && fs::hard_link_count(path) == 1;
    if (fs::exists(status) && !fs::is_directory(status) && !isOwnFile) {
        fs::remove(path);
    }
}

void writePartNumber(std::uint32_t partNumber, const fs::path& path) {
    makeWayForAFile(path);
    std::ofstream file(path, std::ios::trunc);
    file << partNumber << '\n';
    file.close();
    if (file.fail()) {
        throw Hox::CppUtil::FileSystemError("Unable to write partno file", __FILE__, __LINE__);
    }
}

const char* nameOf(HeadendSWVariant variant) {
    switch (variant) {
        case HeadendSWVariant::QAM:
            return "QAM";
        case HeadendSWVariant::COFDM:
            return "COFDM";
        case HeadendSWVariant::UNKNOWN:
            return "UNKNOWN";
    }
    return "";
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
    identity.variant = mayBlock(dir / variantFile) ? HeadendSWVariant::UNKNOWN
                                                   : Hox::SystemAPI::deSerialize(dir / variantFile);
    if (mayBlock(dir / partNumberFile)) {
        return identity;
    }
    std::ifstream file(dir / partNumberFile);
    std::string line;
    if (std::getline(file, line)) {
        identity.partNumber = static_cast<std::uint32_t>(std::stoi(line));
    }
    return identity;
}

void writePackageIdentity(const SystemIdentity& identity, const fs::path& dir) {
    makeWayForAFile(dir / variantTemporary);  // which is renamed to the variant file in the end
    Hox::SystemAPI::serialize(identity.variant, dir / variantFile);
    writePartNumber(identity.partNumber, dir / partNumberFile);
}

std::string describeIdentity(const SystemIdentity& identity) {
    return std::string("output: ") + nameOf(identity.variant) +
           " partNo:" + std::to_string(identity.partNumber);
}

}  // namespace Hox::Capability::Configuration
