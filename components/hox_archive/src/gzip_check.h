#pragma once

#include <cstdint>
#include <string_view>

namespace Hox::Archive {

/// Compares the checksums and lengths of gzip's, which libarchive does not look at; does nothing
/// for bytes of another form. Throws ArchiveError if they are wrong or missing, if anything but
/// zeros comes after them, and if more than maxSize bytes come out.
void checkGzip(std::string_view bytes, std::uint64_t maxSize);

}  // namespace Hox::Archive
