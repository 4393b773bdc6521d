#pragma once

#include <archive.h>
#include <archive_entry.h>

#include <cstdint>
#include <filesystem>
#include <string>

namespace Hox::Archive {

/// Writes all entries of the tree to the open writer and closes it.
///
/// The directory's path is canonical. Returns libarchive's code: 0, or the first other one,
/// warnings and the code of closing included; the writer then has the text. Throws
/// CppUtil::FileSystemError if a file cannot be opened, std::filesystem::filesystem_error if it
/// cannot be read.
int writeDirectory(::archive* ar, const std::filesystem::path& directory, bool stripBase);

/// Writes one entry of the walk, with its data if it is a regular file; the walk's root has no name
/// of its own with stripBase and is left out. Returns the code of writing the header. Throws as
/// writeDirectory does.
int writeEntry(::archive* ar, ::archive_entry* entry, const std::string& base, bool stripBase);

/// An estimate in bytes of what the tree takes in an archive: the sizes of all that is no
/// directory, and 32 for each directory below this one, but at least 32. 0 if the file system
/// refuses to tell.
std::uintmax_t directorySize(const std::filesystem::path& directory);

}  // namespace Hox::Archive
