#include "archive_kit.h"

#include <array>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <tuple>

namespace Hox::Archive {

namespace fs = std::filesystem;

bool operator==(const StoredEntry& left, const StoredEntry& right) {
    return std::tie(left.name, left.type, left.content) ==
           std::tie(right.name, right.type, right.content);
}

void PrintTo(const StoredEntry& entry, std::ostream* out) {
    *out << entry.name << " (type " << std::oct << entry.type << std::dec << ", "
         << entry.content.size() << " bytes)";
}

Tree treeOf(const fs::path& folder) {
    Tree tree;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const auto name = entry.path().lexically_relative(folder).string();
        if (entry.is_symlink()) {
            tree[name] = "link " + fs::read_symlink(entry.path()).string();
        } else if (entry.is_directory()) {
            tree[name] = "folder";
        } else if (entry.is_regular_file()) {
            tree[name] = "file " + readFile(entry.path());
        } else {
            tree[name] = entry.is_fifo() ? "fifo" : "other";
        }
    }
    return tree;
}

void writeFile(const fs::path& file, const std::string& content) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

std::string readFile(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string incompressible(std::size_t length, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(length, '\0');
    for (auto& byte : bytes) {
        byte = static_cast<char>(random() & 0xffU);
    }
    return bytes;
}

void fillSampleTree(const fs::path& folder) {
    writeFile(folder / "plain", "a line\n");
    writeFile(folder / "empty", "");
    writeFile(folder / "one block", std::string(10240, 'b'));
    writeFile(folder / "blocks and one", incompressible(3 * 10240 + 1));
    writeFile(folder / "sub/deeper/leaf", std::string("\0with\0zeros\0", 12));
    writeFile(folder / "sub" / std::string(200, 'n'), "behind a long name");
    fs::create_directories(folder / "sub/nothing");
}

std::string packed(ArchiveFormat format, const fs::path& folder, bool stripBase, bool diskOptions,
                   std::size_t limit) {
    const auto [memory, length] = packToBuffer(format, folder, limit, stripBase, diskOptions);
    const std::unique_ptr<std::uint8_t[]> owner(memory);
    return {memory, memory + length};
}

void unpackBytes(std::string bytes, const fs::path& folder) {
    // A copy of exactly this size, so that a read beyond its end is detected.
    const std::unique_ptr<std::uint8_t[]> memory(new std::uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), memory.get());
    unpackBuffer({memory.get(), bytes.size()}, folder);
}

std::vector<StoredEntry> entriesOf(const std::string& bytes) {
    const auto reader = newReader();
    if (archive_read_open_memory(reader.get(), bytes.data(), bytes.size()) != ARCHIVE_OK) {
        throw std::runtime_error(errorText(reader.get()));
    }
    std::vector<StoredEntry> entries;
    ::archive_entry* entry = nullptr;
    while (archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK) {
        StoredEntry stored{archive_entry_pathname(entry), archive_entry_filetype(entry), ""};
        if (stored.type == AE_IFLNK) {
            stored.content = archive_entry_symlink(entry);
        }
        std::array<char, 4096> block{};
        for (auto length = archive_read_data(reader.get(), block.data(), block.size()); length > 0;
             length = archive_read_data(reader.get(), block.data(), block.size())) {
            stored.content.append(block.data(), static_cast<std::size_t>(length));
        }
        entries.push_back(stored);
    }
    return entries;
}

std::vector<std::string> namesOf(const std::string& bytes) {
    std::vector<std::string> names;
    for (const auto& entry : entriesOf(bytes)) {
        names.push_back(entry.name);
    }
    return names;
}

std::string foreignArchive(const std::function<void(::archive*)>& setUp,
                           const std::vector<StoredEntry>& entries) {
    std::string memory(1U << 20U, '\0');
    std::size_t used = 0;
    const auto writer = newWriter();
    const auto check = [&writer](int result) {
        if (result != ARCHIVE_OK) {
            throw std::runtime_error("foreign archive: " + errorText(writer.get()));
        }
    };
    setUp(writer.get());
    check(archive_write_open_memory(writer.get(), memory.data(), memory.size(), &used));
    for (const auto& [name, type, content] : entries) {
        const auto entry = newEntry();
        archive_entry_set_pathname(entry.get(), name.c_str());
        archive_entry_set_filetype(entry.get(), type);
        archive_entry_set_perm(entry.get(), type == AE_IFDIR ? 0755 : 0644);
        if (type == AE_IFLNK) {
            archive_entry_set_symlink(entry.get(), content.c_str());
        } else {
            archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
        }
        check(archive_write_header(writer.get(), entry.get()));
        if (type == AE_IFREG && !content.empty()) {
            archive_write_data(writer.get(), content.data(), content.size());
        }
    }
    check(archive_write_close(writer.get()));
    return memory.substr(0, used);
}

std::size_t openDescriptors() {
    const fs::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

ScopedCharacterType::ScopedCharacterType(const char* locale)
    : m_former(std::setlocale(LC_CTYPE, nullptr)) {
    if (std::setlocale(LC_CTYPE, locale) == nullptr) {
        throw std::runtime_error(std::string("no locale ") + locale);
    }
}

ScopedCharacterType::~ScopedCharacterType() {
    std::setlocale(LC_CTYPE, m_former.c_str());
}

ArchiveTest::ArchiveTest() {
    fs::create_directory(m_source);
    fs::create_directory(m_destination);
}

void ArchiveTest::TearDown() {
    EXPECT_EQ(openDescriptors(), m_descriptors);
    EXPECT_EQ(fs::current_path(), m_workingDirectory);
}

}  // namespace Hox::Archive
