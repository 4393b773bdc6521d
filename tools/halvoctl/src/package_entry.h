#pragma once

#include <string>
#include <vector>

namespace Hox::Ctl {

/// One entry of a package, as it is in the archive.
struct PackageEntry {
    /// What it is.
    enum class Kind {
        File,
        Folder,
        Other,  ///< A link, a device, a pipe.
    };

    std::string name;  ///< Byte for byte; empty if the archive has none that can be read.
    std::string path;  ///< The name without empty components and those that are a dot.
    Kind kind = Kind::File;
    std::string content;  ///< Of a file.
};

/// The texts between the slashes, without those that are empty or a dot.
std::vector<std::string> componentsOf(const std::string& path);

/// Reads an archive in memory; nothing of it reaches the disk, and no file or program that it names
/// is opened. Throws CtlError if no service can read it, or if it unpacks to more than 64 MiB or
/// 100,000 entries.
std::vector<PackageEntry> readPackageEntries(const std::string& archive);

}  // namespace Hox::Ctl
