#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::CppUtil {

/// A value does not have the requested type.
class BadCast : public Hox::Error {
public:
    /// Prepends "Bad Cast Error: " to the message; throws std::bad_alloc only.
    BadCast(const std::string& message, const char* file, int line)
        : Error("Bad Cast Error: " + message, file, line) {}
};

}  // namespace Hox::CppUtil
