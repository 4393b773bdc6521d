#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Hox::Archive {

/// A longer name of an entry is not a valid path.
constexpr std::size_t maxForeignName = 4096;

/// The upper limits for an archive.
struct ForeignLimits {
    std::size_t entries;     ///< files and folders
    std::uint64_t bytes;     ///< of all files together, declared or actual, whichever is more
    std::size_t components;  ///< of each name
};

/// A file or a folder of an archive.
struct ForeignEntry {
    std::string name;  ///< relative, without "." and empty components; UTF-8
    bool isFolder;
    std::string content;  ///< of a file; empty for a folder
};

/// An entry as it is in an archive, whatever its name and kind.
struct RawEntry {
    /// What it is.
    enum class Kind {
        File,
        Folder,
        Other,  ///< a link, a device, a pipe
    };

    std::string name;  ///< byte for byte; empty if there is none that can be read
    Kind kind;
    std::string content;  ///< of a file
};

/// Reads an untrusted archive to its last byte and stops at the first error. Touches no file,
/// starts no program, and needs no more memory and time than the limits allow, whatever the archive
/// declares.
///
/// Throws ArchiveError for an entry that is neither a file nor a folder, for a name that is
/// absolute, contains "..", or is not UTF-8, for an archive above the limits, for a wrong checksum
/// or length of the compression, for an empty archive, and for anything that libarchive cannot
/// read. Names are read byte for byte; formats with their own name encoding (zip) may use ASCII
/// only. No shared state: any thread may call it.
std::vector<ForeignEntry> readForeignArchive(std::string_view bytes, const ForeignLimits& limits);

/// The same for those who examine an archive: takes all names and kinds. Of the limits, that of the
/// components does not count.
std::vector<RawEntry> readRawEntries(std::string_view bytes, const ForeignLimits& limits);

}  // namespace Hox::Archive
