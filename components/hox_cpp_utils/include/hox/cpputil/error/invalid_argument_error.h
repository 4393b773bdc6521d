#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::CppUtil {

/// An argument is outside its valid range.
class InvalidArgumentError : public Hox::Error {
public:
    /// Prepends "Invalid Argument Error: " to the message; throws std::bad_alloc only.
    InvalidArgumentError(const std::string& message, const char* file, int line)
        : Error("Invalid Argument Error: " + message, file, line) {}
};

}  // namespace Hox::CppUtil
