#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::LinuxCppUtil {

/// A file descriptor is missing or cannot be used.
class FileDescriptorError : public Hox::Error {
public:
    /// Prepends "File descriptor Error: " to the message; throws std::bad_alloc only.
    FileDescriptorError(const std::string& message, const char* file, int line)
        : Error("File descriptor Error: " + message, file, line) {}
};

}  // namespace Hox::LinuxCppUtil
