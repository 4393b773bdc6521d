#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::ObserverTree {

/// A node already has a handler for the operation.
class DoubleRegistrationError : public Hox::Error {
public:
    /// Prepends "Only one registration is allowed: " to the message; throws std::bad_alloc only.
    DoubleRegistrationError(const std::string& message, const char* file, int line)
        : Error("Only one registration is allowed: " + message, file, line) {}
};

}  // namespace Hox::ObserverTree
