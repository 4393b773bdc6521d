#include "unfiltered_stream.h"

#include <cerrno>
#include <new>
#include <string>

#include "hox/archive/error/archive_error.h"

namespace Hox::Archive {

namespace {

/// The formats of newReader() without those that let a foreign archive reach beyond this process:
/// lists of local files (mtree) and filters that are external programs. Also without xar, whose
/// files this libarchive mixes up.
constexpr std::array foreignFormats = {
    ARCHIVE_FORMAT_TAR, ARCHIVE_FORMAT_ZIP,    ARCHIVE_FORMAT_CPIO, ARCHIVE_FORMAT_7ZIP,
    ARCHIVE_FORMAT_AR,  ARCHIVE_FORMAT_CAB,    ARCHIVE_FORMAT_LHA,  ARCHIVE_FORMAT_ISO9660,
    ARCHIVE_FORMAT_RAR, ARCHIVE_FORMAT_RAR_V5, ARCHIVE_FORMAT_WARC};
constexpr std::array foreignFilters = {
    ARCHIVE_FILTER_GZIP, ARCHIVE_FILTER_BZIP2,    ARCHIVE_FILTER_XZ,   ARCHIVE_FILTER_LZMA,
    ARCHIVE_FILTER_LZIP, ARCHIVE_FILTER_COMPRESS, ARCHIVE_FILTER_ZSTD, ARCHIVE_FILTER_LZ4};

Reader emptyReader() {
    Reader reader(archive_read_new());
    if (!reader) {
        throw std::bad_alloc();
    }
    return reader;
}

[[noreturn]] void fail(::archive* handle) {
    throw ArchiveError(errorText(handle), __FILE__, __LINE__);
}

void check(int result, ::archive* handle) {
    if (result != ARCHIVE_OK) {
        fail(handle);
    }
}

/// Whether the only error is a name that could not be converted, which is intended.
bool onlyKeptAName(::archive* handle) {
    constexpr std::string_view end = " to current locale.";
    const std::string text = errorText(handle);
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// The decompressed bytes, as one entry; null if the bytes are not compressed.
Reader openFilters(std::string_view bytes) {
    auto reader = emptyReader();
    for (const int filter : foreignFilters) {
        archive_read_support_filter_by_code(reader.get(), filter);
    }
    archive_read_support_format_raw(reader.get());
    check(archive_read_open_memory(reader.get(), bytes.data(), bytes.size()), reader.get());
    ::archive_entry* all = nullptr;
    const int result = archive_read_next_header(reader.get(), &all);
    if (result != ARCHIVE_EOF) {
        check(result, reader.get());
    }
    return archive_filter_count(reader.get()) > 1 ? std::move(reader) : nullptr;
}

}  // namespace

UnfilteredStream::UnfilteredStream(std::string_view bytes, std::uint64_t maxSize)
    : m_left(maxSize), m_filters(openFilters(bytes)), m_entries(emptyReader()) {
    for (const int format : foreignFormats) {
        archive_read_support_format_by_code(m_entries.get(), format);
    }
    // From memory, some formats are read from their end.
    check(m_filters ? archive_read_open(m_entries.get(), this, nullptr, readMore, nullptr)
                    : archive_read_open_memory(m_entries.get(), bytes.data(), bytes.size()),
          m_entries.get());
}

la_ssize_t UnfilteredStream::readMore(::archive* archive, void* self, const void** block) {
    auto& stream = *static_cast<UnfilteredStream*>(self);
    *block = stream.m_block.data();
    return stream.decompress(archive);
}

la_ssize_t UnfilteredStream::decompress(::archive* archive) {
    const la_ssize_t size = archive_read_data(m_filters.get(), m_block.data(), m_block.size());
    if (size < 0) {
        archive_copy_error(archive, m_filters.get());
        return ARCHIVE_FATAL;
    }
    if (static_cast<std::uint64_t>(size) > m_left) {
        archive_set_error(archive, EFBIG, "More bytes than an archive may have");
        return ARCHIVE_FATAL;
    }
    m_left -= static_cast<std::uint64_t>(size);
    return size;
}

::archive_entry* UnfilteredStream::nextEntry() {
    ::archive_entry* entry = nullptr;
    const int result = archive_read_next_header(m_entries.get(), &entry);
    if (result == ARCHIVE_EOF) {
        // libarchive reads neither the data after the end of the archive nor the checksum after
        // that.
        la_ssize_t size = m_filters ? decompress(m_entries.get()) : 0;
        while (size > 0) {
            size = decompress(m_entries.get());
        }
        if (size < 0) {
            fail(m_entries.get());
        }
        return nullptr;
    }
    if (result != ARCHIVE_OK && !(result == ARCHIVE_WARN && onlyKeptAName(m_entries.get()))) {
        fail(m_entries.get());
    }
    return entry;
}

std::size_t UnfilteredStream::readData(char* block, std::size_t size) {
    const la_ssize_t length = archive_read_data(m_entries.get(), block, size);
    if (length < 0) {
        fail(m_entries.get());
    }
    return static_cast<std::size_t>(length);
}

}  // namespace Hox::Archive
