#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "archive_handles.h"

namespace Hox::Archive {

/// The entries of an archive in memory. At most maxSize bytes are decompressed, however often the
/// archive is compressed and whatever its format skips. Every error is an ArchiveError.
class UnfilteredStream {
public:
    /// Opens the archive; the bytes must outlive this object.
    UnfilteredStream(std::string_view bytes, std::uint64_t maxSize);
    ~UnfilteredStream() = default;
    // Neither copyable nor movable: libarchive refers to this object.
    UnfilteredStream(const UnfilteredStream&) = delete;
    UnfilteredStream(UnfilteredStream&&) = delete;
    UnfilteredStream& operator=(const UnfilteredStream&) = delete;
    UnfilteredStream& operator=(UnfilteredStream&&) = delete;

    /// The next entry, valid until the next call; null after the last one, when all data has been
    /// decompressed.
    ::archive_entry* nextEntry();

    /// Reads data of the entry; 0 at its end. Holes are read as zeros, except a hole at the end.
    std::size_t readData(char* block, std::size_t size);

private:
    static la_ssize_t readMore(::archive* archive, void* self, const void** block);
    la_ssize_t decompress(::archive* archive);

    std::uint64_t m_left;
    std::array<char, 65536> m_block{};
    Reader m_filters;  // null for an archive that is not compressed
    Reader m_entries;
};

}  // namespace Hox::Archive
