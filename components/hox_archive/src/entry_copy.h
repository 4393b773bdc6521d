#pragma once

#include <archive.h>

#include <filesystem>

namespace Hox::Archive {

/// Copies all entries of the reader to the disk writer, below the directory, and closes both.
///
/// Returns libarchive's code: 0, or the code that ended the copy, from reading a header, creating
/// an entry, reading data or closing the writer.
int copyEntries(::archive* in, ::archive* out, const std::filesystem::path& directory);

/// Copies the data of one entry from the reader to the writer. Returns 0 at the end of the data,
/// the code of a failed read, or 1 if a block could not be written; the copy of this entry stops
/// then.
int copyData(::archive* ar, ::archive* aw);

}  // namespace Hox::Archive
