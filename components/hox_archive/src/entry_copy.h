#pragma once

#include <archive.h>

#include <filesystem>

namespace Hox::Archive {

/// Copies all entries of the reader to the disk writer, below the directory, and closes both.
///
/// Returns libarchive's code: 0, or the first one of reading a header, making an entry, reading
/// data or closing the writer that ended it.
int copyEntries(::archive* in, ::archive* out, const std::filesystem::path& directory);

/// Copies the data of one entry from the reader to the writer. Returns 0 at its end, the code of a
/// read that failed, or 1 if a block could not be written, of which no more is copied then.
int copyData(::archive* ar, ::archive* aw);

}  // namespace Hox::Archive
