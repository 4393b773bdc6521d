#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

/// Packs a folder's tree into one archive and unpacks one, in a file or in memory.
///
/// The operations share no state: any thread may call them, but not two at once with the same
/// folder, and an unpack reads the process's umask by setting it for an instant. File names are
/// packed as the bytes that they are. Besides what is said below, std::bad_alloc and
/// std::filesystem::filesystem_error, for a file that cannot be read, may be thrown.
/// Nothing stays open on any way out; what was written until then stays.
namespace Hox::Archive {

/// What to write. Any archive that libarchive knows can be read.
enum class ArchiveFormat {
    TarGz = 0,   ///< pax tar, compressed with gzip
    TarBz2 = 1,  ///< pax tar, compressed with bzip2
    Zip = 2,
};

/// An archive in memory: its start and its length in bytes. What packToBuffer returns comes from
/// new[] and belongs to the caller, who frees it with delete[].
using Buffer = std::pair<std::uint8_t*, std::size_t>;

/// Whether the archive file has an entry of exactly that name. Reads all of it.
///
/// Throws CppUtil::FileSystemError if the file cannot be opened as an archive, ArchiveError if it
/// is broken behind that.
bool containsEntry(const std::filesystem::path& archive, const std::string& name);

/// Packs the folder with all below it into a new file, which takes the place of an old one.
///
/// With stripBase the entries' names are relative to the folder, which has no entry of its own;
/// otherwise they are absolute paths. Links are stored as links. diskOptions changes nothing about
/// an archive: what it stands for concerns the writing of plain files only.
///
/// Throws CppUtil::FileSystemError if the folder does not exist or if the archive or a file of the
/// folder cannot be opened, and ArchiveError for all else, with libarchive's text.
void packToFile(ArchiveFormat format, const std::filesystem::path& archive,
                const std::filesystem::path& directory, bool stripBase, bool diskOptions);

/// The same in memory.
///
/// What the archive may take is estimated before anything is read: the sizes of the files, 32 bytes
/// for each folder below this one (at least 32), and 1536 bytes; just 1536 if the folder cannot be
/// walked or a size cannot be told. Throws ArchiveError as well if the estimate is above
/// bufMaxSize, and if the archive outgrows the estimate, as it may with many small files.
Buffer packToBuffer(ArchiveFormat format, const std::filesystem::path& directory,
                    std::size_t bufMaxSize, bool stripBase, bool diskOptions);

/// Unpacks the archive file into the folder, which is made if need be.
///
/// Names are taken as they stand: one with ".." in it may lie outside of the folder. Permissions
/// are restored as the umask lets them be, times and owners are not. The first entry that cannot be
/// read or made ends it in ArchiveError, with the text of what could not be made (none if it was
/// the reading that failed); data that cannot be written to an entry once made is passed over.
/// Throws CppUtil::FileSystemError if the file does not exist.
void unpackFile(const std::filesystem::path& archive, const std::filesystem::path& directory);

/// The same from memory, which stays the caller's, into a folder that exists.
///
/// Throws CppUtil::InvalidArgumentError for a null pointer, CppUtil::FileSystemError if there is no
/// such folder. An archive of no bytes at all counts as one without entries.
void unpackBuffer(const Buffer& buffer, const std::filesystem::path& directory);

}  // namespace Hox::Archive
