#include "hox/linutils/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <system_error>

#include "hox/linutils/raii_filedescriptors.h"

namespace fs = std::filesystem;

namespace Hox::LinuxCppUtil {

namespace {

constexpr mode_t folderMode = 0750;
constexpr mode_t fileMode = 0640;

[[noreturn]] void fail(const char* what, const std::string& path, int error) {
    throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

void require(bool condition, const char* what, const std::string& path) {
    if (!condition) {
        fail(what, path, errno);
    }
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

OwnedFileDescriptor open(const std::string& file, int flags) {
    return ownFileDescriptor(uninterrupted(
        [&file, flags] { return ::open(file.c_str(), flags | O_CLOEXEC, fileMode); }));
}

enum class Made { Yes, WasThere, NoParent };

Made makeFolder(const std::string& folder) {
    if (::mkdir(folder.c_str(), folderMode) == 0) {
        require(::chmod(folder.c_str(), folderMode) == 0, "cannot set rights of", folder);
        return Made::Yes;
    }
    // An entry that exists but is not a folder shows as soon as something is created in it.
    require(errno == EEXIST || errno == ENOENT, "cannot make folder", folder);
    return errno == EEXIST ? Made::WasThere : Made::NoParent;
}

/// Gives the owner the rights to remove the content of the folder.
void giveRights(const std::string& folder) {
    const auto give = [](const fs::path& path) {
        fs::permissions(path, fs::perms::owner_all, fs::perm_options::add);
    };
    give(folder);
    forEachEntry(folder, [&give](const fs::directory_entry& entry) {
        if (entry.is_directory() && !entry.is_symlink()) {
            give(entry.path());
        }
    });
}

}  // namespace

bool makeFolders(const std::string& folder) {
    Made made = makeFolder(folder);
    if (made == Made::NoParent) {
        const fs::path parent = fs::path(folder).parent_path();
        if (!parent.empty()) {
            makeFolders(parent.native());
        }
        made = makeFolder(folder);
        require(made != Made::NoParent, "cannot make folder", folder);
    }
    return made == Made::Yes;
}

void writeFile(const std::string& file, std::string_view text) {
    auto target = open(file, O_WRONLY | O_CREAT | O_TRUNC);
    require(target != nullptr, "cannot open for writing", file);
    require(::fchmod(*target, fileMode) == 0, "cannot set rights of", file);
    while (!text.empty()) {
        const auto written =
            uninterrupted([&] { return ::write(*target, text.data(), text.size()); });
        require(written >= 0, "cannot write", file);
        if (written == 0) {
            fail("cannot write all of", file, EIO);
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    // Some file systems report only now that there is no space.
    const std::unique_ptr<int> number(target.release());
    require(::close(*number) == 0, "cannot close", file);
}

void renameFile(const std::string& from, const std::string& to) {
    require(::rename(from.c_str(), to.c_str()) == 0, "cannot rename", from);
}

std::string readFile(const std::string& file) {
    const auto source = open(file, O_RDONLY | O_NONBLOCK);  // no wait for a pipe's writer
    require(source != nullptr, "cannot open", file);
    struct stat status {};
    require(::fstat(*source, &status) == 0, "cannot get size of", file);
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t size = 0;
    while (size < content.size()) {
        const auto count = uninterrupted(
            [&] { return ::read(*source, content.data() + size, content.size() - size); });
        require(count >= 0, "cannot read", file);
        if (count == 0) {
            fail("cannot read all of", file, EIO);
        }
        size += static_cast<std::size_t>(count);
    }
    return content;
}

void forEachEntry(const std::string& folder,
                  const std::function<void(const fs::directory_entry&)>& visit) {
    std::error_code error;
    std::string last = folder;
    fs::recursive_directory_iterator entry(folder, error);
    while (!error && entry != fs::recursive_directory_iterator()) {
        last = entry->path().native();
        visit(*entry);
        entry.increment(error);
    }
    if (error) {
        fail("cannot list", last, error.value());
    }
}

void removeFolder(const std::string& folder) {
    std::error_code error;
    fs::remove_all(folder, error);
    if (error == std::errc::permission_denied) {
        giveRights(folder);
        fs::remove_all(folder, error);
    }
    if (error) {
        fail("cannot remove", folder, error.value());
    }
}

}  // namespace Hox::LinuxCppUtil
