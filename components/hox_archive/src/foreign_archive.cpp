#include "hox/archive/foreign_archive.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <codecvt>
#include <locale>
#include <new>
#include <utility>

#include "archive_handles.h"
#include "gzip_check.h"
#include "hox/archive/error/archive_error.h"
#include "unfiltered_stream.h"

namespace Hox::Archive {

namespace {

/// The size of an entry's header, including the headers for a long name and the padding of its last
/// block.
constexpr std::uint64_t bytesPerHeader = 3072;

void require(bool condition, const std::string& reason) {
    if (!condition) {
        throw ArchiveError(reason, __FILE__, __LINE__);
    }
}

bool isUtf8(const std::string& text) {
    const auto& utf8 =
        std::use_facet<std::codecvt<char32_t, char, std::mbstate_t>>(std::locale::classic());
    std::u32string characters(text.size(), U'\0');
    std::mbstate_t state{};
    const char* end = nullptr;
    char32_t* last = nullptr;
    utf8.in(state, text.data(), text.data() + text.size(), end, characters.data(),
            characters.data() + characters.size(), last);
    const auto isSurrogate = [](char32_t code) { return code >= 0xd800 && code < 0xe000; };
    return end == text.data() + text.size() && std::none_of(characters.data(), last, isSurrogate);
}

/// The name for messages, shortened to its start if it is long.
std::string shown(const std::string& name) {
    constexpr std::size_t maxSize = 200;
    if (name.size() <= maxSize) {
        return name;
    }
    std::size_t size = maxSize;
    while (size > 0 && (static_cast<unsigned char>(name[size]) & 0xc0U) == 0x80U) {
        --size;  // inside a character
    }
    return name.substr(0, size) + "...";
}

/// During its lifetime libarchive cannot convert the names of this thread's archives and leaves
/// them unchanged. Otherwise it normalises their characters.
class NamesAsTheyAre {
public:
    NamesAsTheyAre() : m_locale(::newlocale(LC_CTYPE_MASK, "C", nullptr)) {
        if (m_locale == nullptr) {
            throw std::bad_alloc();
        }
        m_former = ::uselocale(m_locale);
    }
    ~NamesAsTheyAre() {
        ::uselocale(m_former);
        ::freelocale(m_locale);
    }
    NamesAsTheyAre(const NamesAsTheyAre&) = delete;
    NamesAsTheyAre(NamesAsTheyAre&&) = delete;
    NamesAsTheyAre& operator=(const NamesAsTheyAre&) = delete;
    NamesAsTheyAre& operator=(NamesAsTheyAre&&) = delete;

private:
    locale_t m_locale;
    locale_t m_former = nullptr;
};

/// Reads the entries of one archive within its limits.
class ForeignReader {
public:
    ForeignReader(std::string_view bytes, const ForeignLimits& limits)
        : m_limits(limits),
          m_bytesLeft(limits.bytes),
          m_stream(bytes, limits.bytes + limits.entries * bytesPerHeader) {}

    /// The next entry; null after the last one.
    ::archive_entry* next() {
        ::archive_entry* entry = m_stream.nextEntry();
        require(entry == nullptr || ++m_entries <= m_limits.entries,
                "More entries than an archive may have");
        return entry;
    }

    /// The content of the entry. The name is for messages.
    std::string contentOf(::archive_entry* entry, const std::string& name) {
        const std::int64_t declared =
            archive_entry_size_is_set(entry) != 0 ? archive_entry_size(entry) : 0;
        require(declared >= 0, "File of a negative size: " + shown(name));
        const auto size = static_cast<std::uint64_t>(declared);
        require(size <= m_bytesLeft, "More bytes than an archive may have, at: " + shown(name));
        std::string content;
        std::array<char, 65536> block;  // NOLINT(cppcoreguidelines-pro-type-member-init)
        while (const std::size_t length = m_stream.readData(block.data(), block.size())) {
            require(content.size() + length <= m_bytesLeft,
                    "More bytes than an archive may have, at: " + shown(name));
            content.append(block.data(), length);
        }
        require(archive_entry_size_is_set(entry) == 0 || content.size() <= size,
                "File of more bytes than it declares: " + shown(name));
        // A hole at the end is not part of the data.
        content.resize(std::max<std::size_t>(content.size(), size));
        m_bytesLeft -= content.size();
        return content;
    }

private:
    const ForeignLimits m_limits;
    std::uint64_t m_bytesLeft;
    std::size_t m_entries = 0;
    UnfilteredStream m_stream;
};

RawEntry::Kind kindOf(::archive_entry* entry) {
    const auto type = archive_entry_filetype(entry);
    if (archive_entry_hardlink(entry) != nullptr || (type != AE_IFREG && type != AE_IFDIR)) {
        return RawEntry::Kind::Other;
    }
    return type == AE_IFREG ? RawEntry::Kind::File : RawEntry::Kind::Folder;
}

std::string cleanName(const std::string& path, std::size_t maxComponents) {
    require(path.size() <= maxForeignName, "Entry with a name that is too long");
    require(isUtf8(path), "Entry with a name that is no UTF-8");
    require(path.front() != '/', "Entry with an absolute name: " + shown(path));
    std::string name;
    std::size_t components = 0;
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string component = path.substr(start, end - start);
        require(component != "..", "Entry with \"..\" in its name: " + shown(path));
        if (!component.empty() && component != ".") {
            require(++components <= maxComponents,
                    "Entry with a name of too many components: " + shown(path));
            name += (name.empty() ? "" : "/") + component;
        }
        start = end + 1;
    }
    return name;
}

/// The entry, if its name and kind are allowed.
ForeignEntry examined(::archive_entry* entry, std::size_t maxComponents) {
    const char* path = archive_entry_pathname(entry);
    require(path != nullptr && *path != '\0', "Entry without a name that can be read");
    const auto kind = kindOf(entry);
    ForeignEntry read{cleanName(path, maxComponents), kind == RawEntry::Kind::Folder, {}};
    require(kind != RawEntry::Kind::Other,
            "Entry that is neither file nor folder: " + shown(read.name));
    require(read.isFolder || !read.name.empty(), "File without a name");
    return read;
}

/// Finds what libarchive does not.
void checkWhole(std::string_view bytes, const ForeignLimits& limits) {
    require(!bytes.empty(), "No byte at all");
    checkGzip(bytes, limits.bytes + limits.entries * bytesPerHeader);
}

}  // namespace

std::vector<ForeignEntry> readForeignArchive(std::string_view bytes, const ForeignLimits& limits) {
    checkWhole(bytes, limits);
    const NamesAsTheyAre names;
    ForeignReader reader(bytes, limits);
    std::vector<ForeignEntry> entries;
    while (::archive_entry* entry = reader.next()) {
        ForeignEntry read = examined(entry, limits.components);
        if (!read.isFolder) {
            read.content = reader.contentOf(entry, read.name);
        }
        if (!read.name.empty()) {
            entries.push_back(std::move(read));
        }
    }
    return entries;
}

std::vector<RawEntry> readRawEntries(std::string_view bytes, const ForeignLimits& limits) {
    checkWhole(bytes, limits);
    const NamesAsTheyAre names;
    ForeignReader reader(bytes, limits);
    std::vector<RawEntry> entries;
    while (::archive_entry* entry = reader.next()) {
        const char* path = archive_entry_pathname(entry);
        RawEntry read{path == nullptr ? "" : path, kindOf(entry), {}};
        if (read.kind == RawEntry::Kind::File) {
            read.content = reader.contentOf(entry, read.name);
        }
        entries.push_back(std::move(read));
    }
    return entries;
}

}  // namespace Hox::Archive
