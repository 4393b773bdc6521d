#include "package_entry.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

constexpr std::size_t mostBytes = std::size_t{64} << 20;
constexpr std::size_t mostEntries = 100000;

struct ReadFree {
    void operator()(archive* handle) const { archive_read_free(handle); }
};
using Reader = std::unique_ptr<archive, ReadFree>;

[[noreturn]] void refuse(const std::string& reason) {
    throw CtlError(ExitCode::Usage, "the package cannot be read: " + reason);
}

[[noreturn]] void refuse(archive* reader) {
    const char* const text = archive_error_string(reader);
    refuse(text == nullptr ? "unknown error" : text);
}

Reader open(const std::string& bytes) {
    Reader reader(archive_read_new());
    if (!reader) {
        throw std::bad_alloc();
    }
    archive_read_support_filter_all(reader.get());
    archive_read_support_format_all(reader.get());
    if (archive_read_open_memory(reader.get(), bytes.data(), bytes.size()) != ARCHIVE_OK) {
        refuse(reader.get());
    }
    return reader;
}

std::string contentOf(archive* reader, std::size_t& left) {
    constexpr std::size_t blockSize = 65536;
    std::vector<char> block(blockSize);
    std::string content;
    for (;;) {
        const auto count = archive_read_data(reader, block.data(), block.size());
        if (count < 0) {
            refuse(reader);
        }
        if (count == 0) {
            return content;
        }
        const auto size = static_cast<std::size_t>(count);
        if (size > left) {
            refuse("it unpacks to more than 64 MiB");
        }
        left -= size;
        content.append(block.data(), size);
    }
}

PackageEntry::Kind kindOf(::archive_entry* entry) {
    const auto type = archive_entry_filetype(entry);
    if (archive_entry_hardlink(entry) != nullptr || (type != AE_IFREG && type != AE_IFDIR)) {
        return PackageEntry::Kind::Other;
    }
    return type == AE_IFREG ? PackageEntry::Kind::File : PackageEntry::Kind::Folder;
}

std::string cleanPath(const std::string& name) {
    std::string path;
    for (const auto& component : componentsOf(name)) {
        path.append(path.empty() ? "" : "/").append(component);
    }
    return path;
}

}  // namespace

std::vector<std::string> componentsOf(const std::string& path) {
    std::vector<std::string> components;
    for (std::size_t start = 0; start < path.size();) {
        const auto end = std::min(path.find('/', start), path.size());
        if (end > start && path.compare(start, end - start, ".") != 0) {
            components.push_back(path.substr(start, end - start));
        }
        start = end + 1;
    }
    return components;
}

std::vector<PackageEntry> readPackageEntries(const std::string& archive) {
    const auto reader = open(archive);
    std::vector<PackageEntry> entries;
    ::archive_entry* header = nullptr;
    auto left = mostBytes;
    int result = ARCHIVE_OK;
    while ((result = archive_read_next_header(reader.get(), &header)) == ARCHIVE_OK ||
           result == ARCHIVE_WARN) {
        if (entries.size() == mostEntries) {
            refuse("it has more than 100,000 entries");
        }
        const char* const name = archive_entry_pathname(header);
        PackageEntry entry{name == nullptr ? "" : name, {}, kindOf(header), {}};
        entry.path = cleanPath(entry.name);
        if (entry.kind == PackageEntry::Kind::File) {
            entry.content = contentOf(reader.get(), left);
        }
        entries.push_back(std::move(entry));
    }
    if (result != ARCHIVE_EOF) {
        refuse(reader.get());
    }
    return entries;
}

}  // namespace Hox::Ctl
