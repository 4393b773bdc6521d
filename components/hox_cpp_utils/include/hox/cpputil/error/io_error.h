#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::CppUtil {

/// Input or output failed. The spelling of the prefix is intended.
class IOError : public Hox::Error {
public:
    /// Prepends "IOErrorr: " to the message; throws std::bad_alloc only.
    IOError(const std::string& message, const char* file, int line)
        : Error("IOErrorr: " + message, file, line) {}
};

}  // namespace Hox::CppUtil
