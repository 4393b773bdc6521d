#pragma once

#include <cstdint>
#include <string_view>

namespace Hox::Archive {

/// Checks the checksums and lengths of gzip data, which libarchive does not check. Does nothing for
/// data in another format. Throws ArchiveError if they are wrong or missing, if anything but zeros
/// follows them, and if the data decompresses to more than maxSize bytes.
void checkGzip(std::string_view bytes, std::uint64_t maxSize);

}  // namespace Hox::Archive
