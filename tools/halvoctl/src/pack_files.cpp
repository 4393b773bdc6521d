#include "pack_files.h"

#include <archive.h>
#include <archive_entry.h>

#include <memory>
#include <new>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

struct WriteFree {
    void operator()(archive* handle) const { archive_write_free(handle); }
};

struct EntryFree {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};

void check(int result, archive* writer) {
    if (result < ARCHIVE_WARN) {
        const char* const text = archive_error_string(writer);
        throw CtlError(ExitCode::Usage,
                       std::string("cannot pack: ") + (text == nullptr ? "unknown error" : text));
    }
}

la_ssize_t take(archive* /*writer*/, void* bytes, const void* block, std::size_t size) {
    static_cast<std::string*>(bytes)->append(static_cast<const char*>(block), size);
    return static_cast<la_ssize_t>(size);
}

void add(archive* writer, const std::string& name, const std::string& content) {
    constexpr mode_t rights = 0640;
    const std::unique_ptr<archive_entry, EntryFree> entry(archive_entry_new());
    if (!entry) {
        throw std::bad_alloc();
    }
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), rights);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
    check(archive_write_header(writer, entry.get()), writer);
    if (archive_write_data(writer, content.data(), content.size()) < 0) {
        check(ARCHIVE_FATAL, writer);
    }
}

}  // namespace

std::string packFiles(const std::map<std::string, std::string>& files) {
    std::string bytes;
    const std::unique_ptr<archive, WriteFree> writer(archive_write_new());
    if (!writer) {
        throw std::bad_alloc();
    }
    check(archive_write_add_filter_gzip(writer.get()), writer.get());
    check(archive_write_set_format_pax_restricted(writer.get()), writer.get());
    check(archive_write_set_format_option(writer.get(), nullptr, "hdrcharset", "BINARY"),
          writer.get());
    check(archive_write_open(writer.get(), &bytes, nullptr, take, nullptr), writer.get());
    for (const auto& [name, content] : files) {
        add(writer.get(), name, content);
    }
    check(archive_write_close(writer.get()), writer.get());
    return bytes;
}

}  // namespace Hox::Ctl
