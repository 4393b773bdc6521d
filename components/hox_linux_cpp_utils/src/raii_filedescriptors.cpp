#include "hox/linutils/raii_filedescriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <new>

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
    const int fd = ::open(path.c_str(), flags);
    if (fd > 0) {
        HOX_ASSERT(fd >= 0);
        return ownFileDescriptor(fd);
    }
    throw CppUtil::FileSystemError(
        "Could not open file: \"" + path + "\" with flags: " + std::to_string(flags), __FILE__,
        __LINE__);
}

OwnedFileDescriptor ownFileDescriptor(int number) {
    if (number < 0) {
        return nullptr;
    }
    try {
        return {new int(number), closeAndFree};
    } catch (const std::bad_alloc&) {
        ::close(number);
        throw;
    }
}

int fileDescriptorNumber(const OwnedFileDescriptor& fileDescriptor) {
    if (!fileDescriptor) {
        throw FileDescriptorError("No valid filedescriptor contained", __FILE__, __LINE__);
    }
    return *fileDescriptor;
}

}  // namespace Hox::LinuxCppUtil
