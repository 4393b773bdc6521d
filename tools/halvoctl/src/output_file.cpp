#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "ctl_error.h"
#include "hox/linutils/raii_filedescriptors.h"
#include "write_all.h"

namespace Hox::Ctl {

using LinuxCppUtil::OwnedFileDescriptor;

namespace {

constexpr mode_t fileRights = 0640;

[[noreturn]] void fail(const std::string& path) {
    const int error = errno;
    throw CtlError(ExitCode::Usage,
                   "cannot write " + path + ": " + std::generic_category().message(error));
}

OwnedFileDescriptor openFile(const std::string& path, int flags) {
    auto file = LinuxCppUtil::ownFileDescriptor(::open(path.c_str(), flags, fileRights));
    if (!file) {
        fail(path);
    }
    return file;
}

/// Removes the file at the path, unless it has got its final name.
class PartFile {
public:
    explicit PartFile(std::string path) : m_path(std::move(path)) {}
    ~PartFile() {
        if (!m_isRenamed) {
            ::unlink(m_path.c_str());
        }
    }
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;

    void renameTo(const std::string& path) {
        if (std::rename(m_path.c_str(), path.c_str()) != 0) {
            fail(path);
        }
        m_isRenamed = true;
    }

private:
    std::string m_path;
    bool m_isRenamed = false;
};

/// Whether the path leads to something other than a file, which another file must not replace.
bool isWrittenItself(const std::string& path) {
    struct stat own {};
    struct stat target {};
    if (::lstat(path.c_str(), &own) != 0) {
        return false;
    }
    const bool isThere = ::stat(path.c_str(), &target) == 0;
    if (S_ISLNK(own.st_mode) && (!isThere || S_ISREG(target.st_mode))) {
        throw CtlError(ExitCode::Usage, "cannot write " + path + ": it is a link",
                       "name the file that it leads to");
    }
    return !S_ISREG(target.st_mode);
}

}  // namespace

void writeWholeFile(const std::string& path, const std::string& content) {
    if (isWrittenItself(path)) {
        const auto file = openFile(path, O_WRONLY | O_NOCTTY | O_CLOEXEC);
        if (!writeAll(*file, content)) {
            fail(path);
        }
        return;
    }
    const auto part = path + ".part";
    ::unlink(part.c_str());
    const auto file = openFile(part, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC);
    PartFile partFile(part);
    if (!writeAll(*file, content) || ::fsync(*file) != 0) {
        fail(part);
    }
    partFile.renameTo(path);
    const auto folder = std::filesystem::path(path).parent_path();
    flushFolder(folder.empty() ? "." : folder.string());
}

void flushFolder(const std::string& path) {
    const auto folder = openFile(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (::fsync(*folder) != 0) {
        fail(path);
    }
}

}  // namespace Hox::Ctl
