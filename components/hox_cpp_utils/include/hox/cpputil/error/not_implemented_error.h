#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::CppUtil {

/// An operation exists by name only.
class NotImplementedError : public Hox::Error {
public:
    /// Prepends "Not Implemented Error: " to the message; throws std::bad_alloc only.
    NotImplementedError(const std::string& message, const char* file, int line)
        : Error("Not Implemented Error: " + message, file, line) {}
};

}  // namespace Hox::CppUtil
