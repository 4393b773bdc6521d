#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Hox::Archive {

/// What an archive may hold at most.
struct ForeignLimits {
    std::size_t entries;     ///< files and folders
    std::uint64_t bytes;     ///< of all files together, as declared or as there, whichever is more
    std::size_t components;  ///< of any name
};

/// A file or a folder of an archive.
struct ForeignEntry {
    std::string name;  ///< relative, without "." and empty components; UTF-8
    bool isFolder;
    std::string content;  ///< of a file
};

/// Reads an archive that nobody vouches for, to its last byte, and stops at the first thing in it
/// that is wrong. Touches no file, starts no program, and needs no more memory and time than the
/// limits let pass, whatever the archive declares.
///
/// Throws ArchiveError for anything but files and folders, for an absolute name, one with "..", one
/// that is no UTF-8, for anything above the limits, for a wrong checksum or length of the
/// compression, for no byte at all, and for what libarchive cannot read. Names are the bytes that
/// they are; formats whose names are in an encoding of their own (zip) may hold ASCII only.
/// Free of shared state: any thread may call.
std::vector<ForeignEntry> readForeignArchive(std::string_view bytes, const ForeignLimits& limits);

}  // namespace Hox::Archive
