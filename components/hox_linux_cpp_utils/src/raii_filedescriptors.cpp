#include "hox/linutils/raii_filedescriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/error/file_system_error.h"
#include "hox/linutils/error/file_descriptor_error.h"

namespace Hox::LinuxCppUtil {

namespace {

void closeAndFree(int* number) {
    const std::unique_ptr<int> owned(number);
    ::close(*owned);
}

}  // namespace

OwnedFileDescriptor openFileDescriptor(const std::string& path, int flags) {
    auto number =
        std::make_unique<int>();  // ahead of open: a failure here must not leak a descriptor
    const int fd = ::open(path.c_str(), flags);
    if (fd > 0) {
        HOX_ASSERT(fd >= 0);
        *number = fd;
        return {number.release(), closeAndFree};
    }
    throw CppUtil::FileSystemError(
        "Could not open file: \"" + path + "\" with flags: " + std::to_string(flags), __FILE__,
        __LINE__);
}

int fileDescriptorNumber(const OwnedFileDescriptor& fileDescriptor) {
    if (!fileDescriptor) {
        throw FileDescriptorError("No valid filedescriptor contained", __FILE__, __LINE__);
    }
    return *fileDescriptor;
}

}  // namespace Hox::LinuxCppUtil
