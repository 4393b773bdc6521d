#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::CppUtil {

/// An object is used in the wrong phase of its life cycle.
class InitializationError : public Hox::Error {
public:
    /// Prepends "Initialization Error: " to the message; throws std::bad_alloc only.
    InitializationError(const std::string& message, const char* file, int line)
        : Error("Initialization Error: " + message, file, line) {}
};

}  // namespace Hox::CppUtil
