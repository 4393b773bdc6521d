#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

/// Packs a folder tree into an archive and unpacks an archive, in a file or in memory.
///
/// The operations share no state: any thread may call them, but not two at the same time with the
/// same folder. An unpack reads the process's umask by setting it for an instant. File names are
/// packed byte for byte. In addition to the exceptions documented below, all functions may throw
/// std::bad_alloc, and std::filesystem::filesystem_error for a file that cannot be read. On every
/// exit all descriptors are closed; data written before an error stays.
namespace Hox::Archive {

/// The format to write. Every archive format that libarchive knows can be read.
enum class ArchiveFormat {
    TarGz = 0,   ///< pax tar, compressed with gzip
    TarBz2 = 1,  ///< pax tar, compressed with bzip2
    Zip = 2,
};

/// An archive in memory: its start and its length in bytes. The memory that packToBuffer returns is
/// allocated with new[]; the caller owns it and frees it with delete[].
using Buffer = std::pair<std::uint8_t*, std::size_t>;

/// Whether the archive file has an entry of exactly that name. Reads the whole archive.
///
/// Throws CppUtil::FileSystemError if the file cannot be opened as an archive, ArchiveError if it
/// is broken later on.
bool containsEntry(const std::filesystem::path& archive, const std::string& name);

/// Packs the folder with all its content into a new file, which replaces an existing one.
///
/// With stripBase the names of the entries are relative to the folder, and the folder itself has no
/// entry; otherwise they are absolute paths. Links are stored as links. diskOptions has no effect
/// on an archive: these options concern writing plain files only.
///
/// Throws CppUtil::FileSystemError if the folder does not exist or if the archive or a file of the
/// folder cannot be opened, and ArchiveError for all other errors, with libarchive's text.
void packToFile(ArchiveFormat format, const std::filesystem::path& archive,
                const std::filesystem::path& directory, bool stripBase, bool diskOptions);

/// The same in memory.
///
/// The size of the archive is estimated before anything is read: the sizes of the files, 32 bytes
/// for each folder below this one (at least 32), and 1536 bytes; only 1536 if the folder cannot be
/// walked or a size cannot be read. Also throws ArchiveError if the estimate is above bufMaxSize,
/// and if the archive outgrows the estimate, which can happen with many small files.
Buffer packToBuffer(ArchiveFormat format, const std::filesystem::path& directory,
                    std::size_t bufMaxSize, bool stripBase, bool diskOptions);

/// Unpacks the archive file into the folder, which is created if necessary.
///
/// Names are used unchanged: a name with ".." may point outside of the folder. Permissions are
/// restored subject to the umask; times and owners are not restored. The first entry that cannot be
/// read or created ends the unpacking with ArchiveError, with the error text of the creation (no
/// text if reading failed). Data that cannot be written to an entry after its creation is skipped.
/// Throws CppUtil::FileSystemError if the file does not exist.
void unpackFile(const std::filesystem::path& archive, const std::filesystem::path& directory);

/// The same from memory, which the caller keeps owning, into an existing folder.
///
/// Throws CppUtil::InvalidArgumentError for a null pointer, CppUtil::FileSystemError if the folder
/// does not exist. An archive of zero bytes counts as an archive without entries.
void unpackBuffer(const Buffer& buffer, const std::filesystem::path& directory);

}  // namespace Hox::Archive
