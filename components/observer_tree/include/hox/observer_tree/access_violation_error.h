#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::ObserverTree {

/// A handler wrote outside the keys of its address.
class AccessViolationError : public Hox::Error {
public:
    /// Prepends "AccessViolationError: " to the message; throws std::bad_alloc only.
    AccessViolationError(const std::string& message, const char* file, int line)
        : Error("AccessViolationError: " + message, file, line) {}
};

}  // namespace Hox::ObserverTree
