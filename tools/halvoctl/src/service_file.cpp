#include "service_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "ctl_error.h"
#include "hox/linutils/raii_filedescriptors.h"

namespace Hox::Ctl {

using LinuxCppUtil::OwnedFileDescriptor;

namespace {

[[noreturn]] void failToRead(const std::string& path, const std::string& reason) {
    throw CtlError(ExitCode::Usage, "cannot read " + path + ": " + reason);
}

/// Opens the path in the folder; how says where links may lead. Null if there is no such file.
OwnedFileDescriptor openIn(int folder, const std::string& path, int flags, unsigned how) {
    open_how options{};
    options.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    options.resolve = how | RESOLVE_NO_MAGICLINKS;
    const auto number = ::syscall(SYS_openat2, folder, path.c_str(), &options, sizeof(options));
    if (number < 0 && errno != ENOENT) {
        failToRead(path,
                   errno == ELOOP ? "there is a link" : std::generic_category().message(errno));
    }
    return LinuxCppUtil::ownFileDescriptor(static_cast<int>(number));
}

std::string contentOf(int file, const std::string& path) {
    struct stat status {};
    if (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
        failToRead(path, "it is no file");
    }
    constexpr std::size_t blockSize = 65536;
    std::array<char, blockSize> block;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    std::string content;
    for (;;) {
        const auto count = ::read(file, block.data(), block.size());
        if (count < 0 && errno != EINTR) {
            failToRead(path, std::generic_category().message(errno));
        }
        if (count == 0) {
            return content;
        }
        content.append(block.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
}

}  // namespace

std::optional<std::string> readServiceFile(const std::string& root, const std::string& folder,
                                           const std::string& name) {
    const auto top = LinuxCppUtil::ownFileDescriptor(
        ::open((root + "/").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!top) {
        failToRead(root + "/", std::generic_category().message(errno));
    }
    const auto opened = openIn(*top, folder, O_PATH | O_DIRECTORY, RESOLVE_IN_ROOT);
    if (!opened) {
        return std::nullopt;
    }
    const auto file = openIn(*opened, name, O_RDONLY | O_NONBLOCK | O_NOCTTY,
                             RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS);
    return file ? std::optional(contentOf(*file, folder + "/" + name)) : std::nullopt;
}

}  // namespace Hox::Ctl
