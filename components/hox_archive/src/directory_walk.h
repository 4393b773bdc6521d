#pragma once

#include <archive.h>
#include <archive_entry.h>

#include <cstdint>
#include <filesystem>
#include <string>

namespace Hox::Archive {

/// Writes all entries of the tree to the open writer and closes it.
///
/// The directory's path is canonical. Returns libarchive's code: 0, or the first other code,
/// including warnings and the code of closing; the writer then holds the text. Throws
/// CppUtil::FileSystemError if a file cannot be opened, std::filesystem::filesystem_error if it
/// cannot be read.
int writeDirectory(::archive* ar, const std::filesystem::path& directory, bool stripBase);

/// Writes one entry of the walk, with its data if it is a regular file; with stripBase the root of
/// the walk has no name and is left out. Returns the code of writing the header. Throws as
/// writeDirectory does.
int writeEntry(::archive* ar, ::archive_entry* entry, const std::string& base, bool stripBase);

/// An estimate in bytes of the size of the tree in an archive: the sizes of all entries that are
/// not directories, and 32 for each directory below this one, but at least 32. 0 if the file system
/// reports an error.
std::uintmax_t directorySize(const std::filesystem::path& directory);

}  // namespace Hox::Archive
