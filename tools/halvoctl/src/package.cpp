#include "package.h"

#include <archive.h>
#include <archive_entry.h>

#include <array>
#include <memory>
#include <new>
#include <sstream>
#include <vector>

#include "ctl_error.h"

namespace Hox::Ctl {

namespace {

constexpr std::size_t mostBytes = std::size_t{64} << 20;
constexpr std::size_t mostEntries = 100000;

/// The folders before the content of a slice: /sys/conf, node type, node id, capability.
constexpr std::size_t sliceDepth = 5;

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

/// The components of a path, without those that are empty or a dot.
std::vector<std::string> componentsOf(const std::string& path) {
    std::vector<std::string> components;
    std::istringstream stream(path);
    std::string component;
    while (std::getline(stream, component, '/')) {
        if (!component.empty() && component != ".") {
            components.push_back(component);
        }
    }
    return components;
}

std::string joined(const std::vector<std::string>& components) {
    std::string path;
    for (const auto& component : components) {
        path += (path.empty() ? "" : "/") + component;
    }
    return path;
}

/// The components of the key that the file holds, empty if it holds none.
std::vector<std::string> keyOf(const std::string& path) {
    auto components = componentsOf(path);
    if (components.size() < sliceDepth + 1 || components.back() != "data" ||
        components[0] != "sys" || components[1] != "conf") {
        return {};
    }
    components.pop_back();
    return components;
}

/// The name after the last "output:" at the start of a line.
std::string variantOf(const std::string& text) {
    const std::string mark = "output:";
    std::istringstream stream(text);
    std::string line;
    std::string variant = "QAM";
    while (std::getline(stream, line)) {
        if (line.compare(0, mark.size(), mark) == 0) {
            variant = line.substr(mark.size());
        }
    }
    return variant;
}

}  // namespace

Package::Package(const std::string& archive) {
    const auto reader = open(archive);
    ::archive_entry* entry = nullptr;
    std::size_t entries = 0;
    auto left = mostBytes;
    int result = ARCHIVE_OK;
    while ((result = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK ||
           result == ARCHIVE_WARN) {
        if (++entries > mostEntries) {
            refuse("it has more than 100,000 entries");
        }
        const char* const name = archive_entry_pathname(entry);
        if (name != nullptr && archive_entry_filetype(entry) == AE_IFREG) {
            m_files[joined(componentsOf(name))] = contentOf(reader.get(), left);
        }
    }
    if (result != ARCHIVE_EOF) {
        refuse(reader.get());
    }
}

std::string Package::identity() const {
    const auto variant = m_files.find("swvariant");
    const auto partNumber = m_files.find("partno");
    std::string number = "0";
    if (partNumber != m_files.end()) {
        number = partNumber->second.substr(0, partNumber->second.find('\n'));
    }
    return (variant == m_files.end() ? "QAM" : variantOf(variant->second)) + " part " + number;
}

std::set<std::string> Package::slices() const {
    std::set<std::string> found;
    for (const auto& [path, content] : m_files) {
        const auto key = keyOf(path);
        if (!key.empty()) {
            found.insert(key[2] + "/" + key[3] + "/" + key[4]);
        }
    }
    return found;
}

std::map<std::string, std::string> Package::values() const {
    std::map<std::string, std::string> found;
    for (const auto& [path, content] : m_files) {
        const auto key = keyOf(path);
        if (!key.empty() && key.back() != "__csid") {
            found[joined(key)] = content;
        }
    }
    return found;
}

std::size_t Package::keyCount() const {
    return values().size();
}

bool Package::hasSameValues(const Package& other) const {
    return values() == other.values();
}

}  // namespace Hox::Ctl
