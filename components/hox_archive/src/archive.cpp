#include "hox/archive/archive.h"

#include <memory>
#include <system_error>

#include "archive_handles.h"
#include "directory_walk.h"
#include "entry_copy.h"
#include "hox/archive/error/archive_error.h"
#include "hox/cpputil/error/file_system_error.h"
#include "hox/cpputil/error/invalid_argument_error.h"

namespace Hox::Archive {

namespace {

constexpr std::size_t readBlock = 10240;
constexpr std::uintmax_t bufferReserve = 1536;

bool pathExists(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::exists(std::filesystem::status(path, error));
}

/// Throws FileSystemError if the path does not exist.
std::filesystem::path canonicalOrThrow(const std::filesystem::path& directory) {
    if (!pathExists(directory)) {
        throw CppUtil::FileSystemError("Error opening path", __FILE__, __LINE__);
    }
    return std::filesystem::canonical(directory);
}

/// Throws ArchiveError with the handle's text for any code but 0.
void check(int result, ::archive* handle) {
    if (result != ARCHIVE_OK) {
        throw ArchiveError(errorText(handle), __FILE__, __LINE__);
    }
}

/// Names are written to the headers byte for byte.
int setTar(::archive* writer) {
    const int result = archive_write_set_format_pax_restricted(writer);
    return result != ARCHIVE_OK
               ? result
               : archive_write_set_format_option(writer, nullptr, "hdrcharset", "BINARY");
}

/// The writer's filter and format. A value outside of the enumeration sets neither.
int setFormat(::archive* writer, ArchiveFormat format) {
    int result = ARCHIVE_OK;
    if (format == ArchiveFormat::TarGz) {
        result = archive_write_add_filter_gzip(writer);
    } else if (format == ArchiveFormat::TarBz2) {
        result = archive_write_add_filter_bzip2(writer);
    }
    if (result != ARCHIVE_OK) {
        return result;
    }
    switch (format) {
        case ArchiveFormat::TarGz:
        case ArchiveFormat::TarBz2:
            return setTar(writer);
        case ArchiveFormat::Zip:
            return archive_write_set_format_zip(writer);
    }
    return ARCHIVE_OK;
}

void unpack(::archive* reader, const std::filesystem::path& directory) {
    const auto writer = newDiskWriter();
    check(copyEntries(reader, writer.get(), directory), writer.get());
}

}  // namespace

bool containsEntry(const std::filesystem::path& archive, const std::string& name) {
    const auto reader = newReader();
    if (archive_read_open_filename(reader.get(), archive.c_str(), readBlock) != ARCHIVE_OK) {
        throw CppUtil::FileSystemError("Error opening file: " + errorText(reader.get()), __FILE__,
                                       __LINE__);
    }
    bool found = false;
    while (true) {
        ::archive_entry* entry = nullptr;
        const int result = archive_read_next_header(reader.get(), &entry);
        if (result == ARCHIVE_EOF) {
            return found;
        }
        check(result, reader.get());
        const char* entryName = archive_entry_pathname(entry);
        found = found || (entryName != nullptr && name == entryName);
    }
}

// The disk options are not passed on: libarchive treats every handle as a disk writer there and
// would write beyond the end of an archive handle.

void packToFile(ArchiveFormat format, const std::filesystem::path& archive,
                const std::filesystem::path& directory, bool stripBase, bool /*diskOptions*/) {
    const auto source = canonicalOrThrow(directory);
    const auto writer = newWriter();
    check(setFormat(writer.get(), format), writer.get());
    if (archive_write_open_filename(writer.get(), archive.c_str()) != ARCHIVE_OK) {
        throw CppUtil::FileSystemError("Error opening archive " + errorText(writer.get()), __FILE__,
                                       __LINE__);
    }
    check(writeDirectory(writer.get(), source, stripBase), writer.get());
}

Buffer packToBuffer(ArchiveFormat format, const std::filesystem::path& directory,
                    std::size_t bufMaxSize, bool stripBase, bool /*diskOptions*/) {
    const auto source = canonicalOrThrow(directory);
    const auto size = directorySize(source) + bufferReserve;
    if (bufMaxSize < size) {
        throw ArchiveError("the buffer is exceeding bufMaxSize", __FILE__, __LINE__);
    }
    std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[size]);
    std::size_t used = 0;
    const auto writer = newWriter();  // after the two that it writes to until it is freed
    check(setFormat(writer.get(), format), writer.get());
    check(archive_write_open_memory(writer.get(), buffer.get(), size, &used), writer.get());
    check(writeDirectory(writer.get(), source, stripBase), writer.get());
    return {buffer.release(), used};
}

void unpackFile(const std::filesystem::path& archive, const std::filesystem::path& directory) {
    if (!pathExists(archive)) {
        throw CppUtil::FileSystemError("Error opening file: (archive)", __FILE__, __LINE__);
    }
    const auto reader = newReader();
    check(archive_read_open_filename(reader.get(), archive.c_str(), readBlock), reader.get());
    unpack(reader.get(), directory);
}

void unpackBuffer(const Buffer& buffer, const std::filesystem::path& directory) {
    const auto [memory, length] = buffer;
    if (memory == nullptr) {
        throw CppUtil::InvalidArgumentError("memlocation buffer is a invalid", __FILE__, __LINE__);
    }
    if (!pathExists(directory)) {
        throw CppUtil::FileSystemError("Error opening path", __FILE__, __LINE__);
    }
    const auto reader = newReader();
    check(archive_read_open_memory(reader.get(), memory, length), reader.get());
    unpack(reader.get(), directory);
}

}  // namespace Hox::Archive
