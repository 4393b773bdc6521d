#include "package_entry.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "ctl_error.h"
#include "error_reason.h"
#include "hox/archive/error/archive_error.h"
#include "hox/archive/foreign_archive.h"

namespace Hox::Ctl {

using Hox::Archive::RawEntry;

namespace {

/// More than a service takes, so that what is too much can be examined.
constexpr Hox::Archive::ForeignLimits readableLimits{100000, std::uint64_t{64} << 20, 0};

std::vector<RawEntry> rawEntriesOf(const std::string& archive) {
    try {
        return Hox::Archive::readRawEntries(archive, readableLimits);
    } catch (const Hox::Archive::ArchiveError& error) {
        throw CtlError(ExitCode::Usage, "the package cannot be read: " + reasonOf(error));
    }
}

PackageEntry::Kind kindOf(RawEntry::Kind kind) {
    switch (kind) {
        case RawEntry::Kind::File:
            return PackageEntry::Kind::File;
        case RawEntry::Kind::Folder:
            return PackageEntry::Kind::Folder;
        case RawEntry::Kind::Other:
            break;
    }
    return PackageEntry::Kind::Other;
}

std::string cleanPath(const std::string& name) {
    std::string path;
    for (const auto& component : componentsOf(name)) {
        path.append(path.empty() ? "" : "/").append(component);
    }
    return path;
}

}  // namespace

std::vector<std::string> componentsOf(const std::string& path) {
    std::vector<std::string> components;
    for (std::size_t start = 0; start < path.size();) {
        const auto end = std::min(path.find('/', start), path.size());
        if (end > start && path.compare(start, end - start, ".") != 0) {
            components.push_back(path.substr(start, end - start));
        }
        start = end + 1;
    }
    return components;
}

std::vector<PackageEntry> readPackageEntries(const std::string& archive) {
    std::vector<PackageEntry> entries;
    for (auto& raw : rawEntriesOf(archive)) {
        PackageEntry entry{std::move(raw.name), {}, kindOf(raw.kind), std::move(raw.content)};
        entry.path = cleanPath(entry.name);
        entries.push_back(std::move(entry));
    }
    return entries;
}

}  // namespace Hox::Ctl
