#include "hox/linutils/open_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <system_error>

namespace fs = std::filesystem;

namespace Hox::LinuxCppUtil {

namespace {

constexpr mode_t folderMode = 0750;
constexpr mode_t fileMode = 0640;
constexpr std::size_t listSize = 32768;  // bytes of entries that the system gives at once

[[noreturn]] void fail(const char* what, const std::string& path, int error) {
    throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

/// Repeats a call that a signal interrupts.
template <typename Call>
auto uninterrupted(const Call& call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

fs::file_type typeFor(mode_t mode) {
    if (S_ISDIR(mode)) {
        return fs::file_type::directory;
    }
    if (S_ISREG(mode)) {
        return fs::file_type::regular;
    }
    return S_ISLNK(mode) ? fs::file_type::symlink : fs::file_type::unknown;
}

bool isItselfOrParent(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

}  // namespace

OpenFolder::OpenFolder(const std::string& path) : OpenFolder(OpenFolder(), path, 0) {}

OpenFolder::OpenFolder(const OpenFolder& parent, const std::string& name, int flags)
    : m_path(parent.pathOf(name)), m_descriptor(parent.open(name, O_RDONLY | O_DIRECTORY | flags)) {
    parent.require(m_descriptor != nullptr, "cannot open", name);
}

OpenFolder OpenFolder::below(const std::string& name) const {
    return {*this, name, O_NOFOLLOW};
}

int OpenFolder::number() const {
    return m_descriptor ? *m_descriptor : AT_FDCWD;
}

std::string OpenFolder::pathOf(const std::string& name) const {
    return m_path.empty() ? name : m_path + '/' + name;
}

void OpenFolder::require(bool condition, const char* what, const std::string& name) const {
    if (!condition) {
        fail(what, pathOf(name), errno);
    }
}

OwnedFileDescriptor OpenFolder::open(const std::string& name, int flags) const {
    return ownFileDescriptor(uninterrupted(
        [&] { return ::openat(number(), name.c_str(), flags | O_CLOEXEC, fileMode); }));
}

fs::file_type OpenFolder::typeOf(const std::string& name) const {
    struct stat status {};
    require(::fstatat(number(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0, "cannot list",
            name);
    return typeFor(status.st_mode);
}

std::vector<OpenFolder::Entry> OpenFolder::list() const {
    std::vector<Entry> entries;
    // Only what the system has written is read.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
    alignas(dirent64) std::array<char, listSize> buffer;
    ssize_t size = 0;
    while ((size = uninterrupted(
                [&] { return ::getdents64(number(), buffer.data(), buffer.size()); })) > 0) {
        for (std::size_t offset = 0; offset < static_cast<std::size_t>(size);) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + offset);
            offset += entry->d_reclen;
            if (!isItselfOrParent(entry->d_name)) {
                // Not every file system tells the type.
                entries.push_back(
                    {entry->d_name, entry->d_type == DT_UNKNOWN
                                        ? typeOf(entry->d_name)
                                        : typeFor(static_cast<mode_t>(DTTOIF(entry->d_type)))});
            }
        }
    }
    if (size < 0) {
        fail("cannot list", m_path, errno);
    }
    std::sort(entries.begin(), entries.end(),
              [](const Entry& left, const Entry& right) { return left.name < right.name; });
    return entries;
}

bool OpenFolder::isRegularFile(const std::string& name) const {
    struct stat status {};
    const bool isThere = ::fstatat(number(), name.c_str(), &status, 0) == 0;
    require(isThere || errno == ENOENT || errno == ENOTDIR, "cannot examine", name);
    return isThere && S_ISREG(status.st_mode);
}

OpenFolder::Made OpenFolder::makeFolder(const std::string& name) const {
    if (::mkdirat(number(), name.c_str(), folderMode) == 0) {
        require(::fchmodat(number(), name.c_str(), folderMode, 0) == 0, "cannot set rights of",
                name);
        return Made::Yes;
    }
    // An entry that exists but is not a folder shows as soon as something is created in it.
    require(errno == EEXIST || errno == ENOENT, "cannot make folder", name);
    return errno == EEXIST ? Made::WasThere : Made::NoParent;
}

void OpenFolder::writeFile(const std::string& name, std::string_view text) const {
    auto target = open(name, O_WRONLY | O_CREAT | O_TRUNC);
    require(target != nullptr, "cannot open for writing", name);
    require(::fchmod(*target, fileMode) == 0, "cannot set rights of", name);
    while (!text.empty()) {
        const auto written =
            uninterrupted([&] { return ::write(*target, text.data(), text.size()); });
        require(written >= 0, "cannot write", name);
        if (written == 0) {
            fail("cannot write all of", pathOf(name), EIO);
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    // Some file systems report only now that there is no space.
    const std::unique_ptr<int> number(target.release());
    require(::close(*number) == 0, "cannot close", name);
}

std::string OpenFolder::readFile(const std::string& name) const {
    const auto source = open(name, O_RDONLY | O_NONBLOCK);  // no wait for a pipe's writer
    require(source != nullptr, "cannot open", name);
    struct stat status {};
    require(::fstat(*source, &status) == 0, "cannot get size of", name);
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t size = 0;
    while (size < content.size()) {
        const auto count = uninterrupted(
            [&] { return ::read(*source, content.data() + size, content.size() - size); });
        require(count >= 0, "cannot read", name);
        if (count == 0) {
            fail("cannot read all of", pathOf(name), EIO);
        }
        size += static_cast<std::size_t>(count);
    }
    return content;
}

void OpenFolder::rename(const std::string& from, const std::string& to) const {
    require(::renameat(number(), from.c_str(), number(), to.c_str()) == 0, "cannot rename", from);
}

void OpenFolder::removeFile(const std::string& name) const {
    require(::unlinkat(number(), name.c_str(), 0) == 0 || errno == ENOENT, "cannot remove", name);
}

void OpenFolder::removeEmptyFolder(const std::string& name) const {
    require(::unlinkat(number(), name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT,
            "cannot remove", name);
}

}  // namespace Hox::LinuxCppUtil
