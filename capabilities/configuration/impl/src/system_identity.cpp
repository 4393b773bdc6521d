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
constexpr const char* partNumberFile = "partno";

/// A package may hold pipes and devices, which are never opened: they might not come to an end.
bool isSomethingElseThanAFile(const fs::path& path) {
    return fs::exists(path) && !fs::is_regular_file(path);
}

void writePartNumber(std::uint32_t partNumber, const fs::path& path) {
    std::ofstream file;
    if (!isSomethingElseThanAFile(path)) {
        file.open(path, std::ios::trunc);
    }
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
    identity.variant = isSomethingElseThanAFile(dir / variantFile)
                           ? HeadendSWVariant::UNKNOWN
                           : Hox::SystemAPI::deSerialize(dir / variantFile);
    if (isSomethingElseThanAFile(dir / partNumberFile)) {
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
    Hox::SystemAPI::serialize(identity.variant, dir / variantFile);
    writePartNumber(identity.partNumber, dir / partNumberFile);
}

std::string describeIdentity(const SystemIdentity& identity) {
    return std::string("output: ") + nameOf(identity.variant) +
           " partNo:" + std::to_string(identity.partNumber);
}

}  // namespace Hox::Capability::Configuration
