#pragma once

#include <string>

#include "hox/cpputil/error/io_error.h"

namespace Hox::CppUtil {

/// A file system operation failed.
class FileSystemError : public IOError {
public:
    /// Prepends "Generic filesystem Error: " to the message; throws std::bad_alloc only.
    FileSystemError(const std::string& message, const char* file, int line)
        : IOError("Generic filesystem Error: " + message, file, line) {}
};

}  // namespace Hox::CppUtil
