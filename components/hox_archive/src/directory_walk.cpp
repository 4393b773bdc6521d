#include "directory_walk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "archive_handles.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Archive {

namespace {

constexpr std::size_t readBlock = 10240;
constexpr std::uintmax_t directoryEstimate = 32;

std::string sourcePathOf(::archive_entry* entry) {
    const char* path = archive_entry_sourcepath(entry);
    return path == nullptr ? "" : path;
}

std::string nameBelow(std::string base, const std::string& path) {
    if (base.empty() || base.back() != '/') {
        base += '/';
    }
    return path.size() > base.size() ? path.substr(base.size()) : "";
}

void writeFileData(::archive* ar, const std::string& path) {
    const auto file = LinuxCppUtil::openFileDescriptor(path, O_RDONLY);
    const int fd = LinuxCppUtil::fileDescriptorNumber(file);
    std::array<char, readBlock> block;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    auto length = ::read(fd, block.data(), block.size());
    while (length > 0) {
        archive_write_data(ar, block.data(), static_cast<std::size_t>(length));
        length = ::read(fd, block.data(), block.size());
    }
    if (length < 0) {
        throw std::filesystem::filesystem_error("cannot read", path,
                                                std::error_code(errno, std::generic_category()));
    }
}

}  // namespace

int writeDirectory(::archive* ar, const std::filesystem::path& directory, bool stripBase) {
    HOX_ASSERT(ar != nullptr);
    const auto disk = newDiskReader();
    const int opened = archive_read_disk_open(disk.get(), directory.c_str());
    if (opened != ARCHIVE_OK) {
        archive_copy_error(ar, disk.get());
        return opened;
    }
    while (true) {
        const auto entry = newEntry();
        const int read = archive_read_next_header2(disk.get(), entry.get());
        if (read == ARCHIVE_EOF) {
            archive_read_close(disk.get());
            return archive_write_close(ar);
        }
        if (read != ARCHIVE_OK) {
            archive_copy_error(ar, disk.get());
            return read;
        }
        archive_read_disk_descend(disk.get());
        const int written = writeEntry(ar, entry.get(), directory.string(), stripBase);
        if (written != ARCHIVE_OK) {
            return written;
        }
    }
}

int writeEntry(::archive* ar, ::archive_entry* entry, const std::string& base, bool stripBase) {
    HOX_ASSERT(ar != nullptr);
    HOX_ASSERT(entry != nullptr);
    const auto path = sourcePathOf(entry);
    int written = ARCHIVE_OK;
    if (stripBase) {
        const auto name = nameBelow(base, path);
        if (name.empty()) {
            return ARCHIVE_OK;
        }
        const auto renamed = cloneOf(entry);
        archive_entry_set_pathname(renamed.get(), name.c_str());
        written = archive_write_header(ar, renamed.get());
    } else {
        written = archive_write_header(ar, entry);
    }
    if (written <= ARCHIVE_FAILED) {
        return written;
    }
    const bool isFile = archive_entry_filetype(entry) == AE_IFREG;
    archive_entry_set_size(entry, isFile ? archive_entry_stat(entry)->st_size : 0);
    if (written >= ARCHIVE_WARN && isFile) {
        const auto warning = errorText(ar);
        const int number = archive_errno(ar);
        writeFileData(ar, path);
        if (written != ARCHIVE_OK) {
            archive_set_error(ar, number, "%s", warning.c_str());  // writing data has cleared it
        }
    }
    return written;
}

std::uintmax_t directorySize(const std::filesystem::path& directory) {
    std::uintmax_t fileBytes = 0;
    std::uintmax_t directories = 0;
    try {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
            if (entry.is_directory()) {
                ++directories;
            } else {
                fileBytes += entry.file_size();
            }
        }
    } catch (const std::filesystem::filesystem_error&) {
        return 0;
    }
    return fileBytes + std::max<std::uintmax_t>(directories, 1) * directoryEstimate;
}

}  // namespace Hox::Archive
