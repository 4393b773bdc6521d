#include "hox/linutils/remove_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace Hox::LinuxCppUtil {

namespace {

struct StreamCloser {
    void operator()(DIR* stream) const { ::closedir(stream); }
};

using Stream = std::unique_ptr<DIR, StreamCloser>;

struct Entry {
    std::string name;
    bool isDirectory;  // false also where the file system does not tell
};

/// A directory between the root and where the work is.
struct Level {
    std::string name;
    std::vector<Entry> left;
    dev_t device;
    ino_t inode;
};

bool lacksRights(const struct stat& status) {
    return S_ISDIR(status.st_mode) && (status.st_mode & S_IRWXU) != S_IRWXU;
}

mode_t withRights(const struct stat& status) {
    return (status.st_mode & 07777U) | S_IRWXU;
}

/// Whether the directory had no rights for its owner and has them now.
bool grantRights(int parent, const std::string& name) {
    struct stat status {};
    return ::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           lacksRights(status) &&
           ::fchmodat(parent, name.c_str(), withRights(status), AT_SYMLINK_NOFOLLOW) == 0;
}

/// Null, with errno, if there is no such directory or it cannot be opened.
Stream openDirectory(int parent, const std::string& name) {
    const int descriptor =
        ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    Stream stream(::fdopendir(descriptor));
    if (!stream) {
        const int error = errno;
        ::close(descriptor);
        errno = error;
    }
    return stream;
}

/// The same for a directory that may have to give its owner rights first.
Stream openWithRights(int parent, const std::string& name) {
    Stream directory = openDirectory(parent, name);
    if (!directory && errno == EACCES) {
        const bool isWorthATry = grantRights(parent, name);
        errno = EACCES;
        directory = isWorthATry ? openDirectory(parent, name) : nullptr;
    }
    return directory;
}

/// One removal. Goes down by name and up by "..", so that it never needs a long path.
class Removal {
public:
    explicit Removal(std::string root) : m_root(std::move(root)) {}

    void run() {
        if (!enter(m_root)) {
            removeFile(m_root);
            return;
        }
        while (!m_levels.empty()) {
            auto& left = m_levels.back().left;
            if (left.empty()) {
                leave();
                continue;
            }
            const Entry entry = std::move(left.back());
            left.pop_back();
            if (!(entry.isDirectory && enter(entry.name)) && !removeFile(entry.name)) {
                enterOrFail(entry.name);
            }
        }
    }

private:
    int current() const { return m_current ? ::dirfd(m_current.get()) : AT_FDCWD; }

    /// False if there is something else of that name, or nothing.
    bool enter(const std::string& name) {
        Stream directory = openWithRights(current(), name);
        if (!directory && (errno == ENOTDIR || errno == ENOENT || errno == ELOOP)) {
            return false;
        }
        struct stat status {};
        if (!directory || ::fstat(::dirfd(directory.get()), &status) != 0) {
            fail(name);
        }
        if (lacksRights(status)) {
            ::fchmod(::dirfd(directory.get()), withRights(status));  // a failure shows further on
        }
        m_current = std::move(directory);
        m_levels.push_back({name, {}, status.st_dev, status.st_ino});
        list(m_levels.back().left);
        return true;
    }

    void enterOrFail(const std::string& name) {
        if (!enter(name)) {
            fail(name);
        }
    }

    void list(std::vector<Entry>& entries) const {
        while (true) {
            errno = 0;
            const dirent* entry = ::readdir(m_current.get());
            if (entry == nullptr) {
                break;
            }
            const std::string_view name(entry->d_name);
            if (name != "." && name != "..") {
                entries.push_back({std::string(name), entry->d_type == DT_DIR});
            }
        }
        if (errno != 0) {
            fail(".");
        }
    }

    /// False for a directory.
    bool removeFile(const std::string& name) const {
        if (::unlinkat(current(), name.c_str(), 0) == 0 || errno == ENOENT) {
            return true;
        }
        if (errno != EISDIR) {
            fail(name);
        }
        return false;
    }

    void leave() {
        const std::string name = std::move(m_levels.back().name);
        m_levels.pop_back();
        Stream parent;
        if (!m_levels.empty()) {
            parent = openDirectory(current(), "..");
            if (!parent) {
                fail(".");
            }
            expectLevel(parent);
        }
        m_current = std::move(parent);
        if (::unlinkat(current(), name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
            fail(name);
        }
    }

    /// The directory must be the one that was left on the way down: what lies beside a directory
    /// that was moved is none of this removal's business.
    void expectLevel(const Stream& directory) const {
        struct stat status {};
        if (::fstat(::dirfd(directory.get()), &status) != 0) {
            fail(".");
        }
        if (status.st_dev != m_levels.back().device || status.st_ino != m_levels.back().inode) {
            errno = ESTALE;
            fail(".");
        }
    }

    [[noreturn]] void fail(const std::string& name) const {
        const std::error_code code(errno, std::generic_category());
        std::string path;
        for (const auto& level : m_levels) {
            path += level.name + "/";
        }
        throw fs::filesystem_error("cannot remove", path + name, code);
    }

    const std::string m_root;
    std::vector<Level> m_levels;
    Stream m_current;
};

}  // namespace

void removeTree(const fs::path& path) {
    // With a slash at its end the path of a link would stand for what the link leads to.
    Removal((path.has_filename() ? path : path.parent_path()).native()).run();
}

}  // namespace Hox::LinuxCppUtil
