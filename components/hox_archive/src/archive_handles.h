#pragma once

#include <archive.h>
#include <archive_entry.h>

#include <memory>
#include <string>

namespace Hox::Archive {

/// Closes and frees a handle for reading.
struct ReaderDeleter {
    void operator()(::archive* handle) const { archive_read_free(handle); }
};

/// Closes and frees a handle for writing. Closing flushes pending data, so the memory that the
/// archive is written to must outlive its writer.
struct WriterDeleter {
    void operator()(::archive* handle) const {
        archive_write_close(handle);  // after a fatal error, freeing alone leaves the file open
        archive_write_free(handle);
    }
};

/// Frees an entry.
struct EntryDeleter {
    void operator()(::archive_entry* entry) const { archive_entry_free(entry); }
};

using Reader = std::unique_ptr<::archive, ReaderDeleter>;
using Writer = std::unique_ptr<::archive, WriterDeleter>;
using Entry = std::unique_ptr<::archive_entry, EntryDeleter>;

/// Reads archives of all formats through all filters. This and the next four throw std::bad_alloc.
Reader newReader();

/// Walks the file system and looks up the names of users and groups.
Reader newDiskReader();

/// Writes an archive; the caller sets the format.
Writer newWriter();

/// Writes to the file system and looks up the numbers of users and groups.
Writer newDiskWriter();

/// An empty entry.
Entry newEntry();

/// A copy of the entry; throws std::bad_alloc.
Entry cloneOf(::archive_entry* entry);

/// The last error text of the handle; empty if there was no error.
std::string errorText(::archive* handle);

}  // namespace Hox::Archive
