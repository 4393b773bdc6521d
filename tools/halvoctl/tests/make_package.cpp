#include "make_package.h"

#include <archive.h>
#include <archive_entry.h>

#include <memory>

namespace Hox::Ctl {

namespace {

void add(archive* writer, const std::string& name, const std::string& content, bool isLink) {
    const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(),
                                                                         archive_entry_free);
    const bool isFolder = name.back() == '/';
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), isLink ? AE_IFLNK : isFolder ? AE_IFDIR : AE_IFREG);
    archive_entry_set_perm(entry.get(), 0640);
    if (isLink) {
        archive_entry_set_symlink(entry.get(), content.c_str());
    } else {
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
    }
    archive_write_header(writer, entry.get());
    if (!isLink) {
        archive_write_data(writer, content.data(), content.size());
    }
}

}  // namespace

std::string makePackage(const PackageFiles& files, const PackageFiles& links) {
    std::string bytes(std::size_t{4} << 20, '\0');
    std::size_t used = 0;
    const std::unique_ptr<archive, int (*)(archive*)> writer(archive_write_new(),
                                                             archive_write_free);
    archive_write_add_filter_gzip(writer.get());
    archive_write_set_format_pax_restricted(writer.get());
    archive_write_set_format_option(writer.get(), nullptr, "hdrcharset", "BINARY");
    archive_write_open_memory(writer.get(), bytes.data(), bytes.size(), &used);
    for (const auto& [name, content] : files) {
        add(writer.get(), name, content, false);
    }
    for (const auto& [name, target] : links) {
        add(writer.get(), name, target, true);
    }
    archive_write_close(writer.get());
    bytes.resize(used);
    return bytes;
}

std::string savedText(const std::string& text) {
    return R"({"@type":"type.googleapis.com/google.protobuf.StringValue","value":")" + text + "\"}";
}

}  // namespace Hox::Ctl
