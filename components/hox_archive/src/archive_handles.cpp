#include "archive_handles.h"

#include <new>

namespace Hox::Archive {

namespace {

template <typename Owner>
Owner ownedOrThrow(typename Owner::pointer handle) {
    if (handle == nullptr) {
        throw std::bad_alloc();
    }
    return Owner(handle);
}

}  // namespace

Reader newReader() {
    auto reader = ownedOrThrow<Reader>(archive_read_new());
    archive_read_support_filter_all(reader.get());
    archive_read_support_format_all(reader.get());
    return reader;
}

Reader newDiskReader() {
    auto reader = ownedOrThrow<Reader>(archive_read_disk_new());
    archive_read_disk_set_standard_lookup(reader.get());
    return reader;
}

Writer newWriter() {
    return ownedOrThrow<Writer>(archive_write_new());
}

Writer newDiskWriter() {
    auto writer = ownedOrThrow<Writer>(archive_write_disk_new());
    archive_write_disk_set_standard_lookup(writer.get());
    return writer;
}

Entry newEntry() {
    return ownedOrThrow<Entry>(archive_entry_new());
}

Entry cloneOf(::archive_entry* entry) {
    return ownedOrThrow<Entry>(archive_entry_clone(entry));
}

std::string errorText(::archive* handle) {
    const char* text = archive_error_string(handle);
    return text == nullptr ? "" : text;
}

}  // namespace Hox::Archive
