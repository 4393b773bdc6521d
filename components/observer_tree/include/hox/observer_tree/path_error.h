#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::ObserverTree {

/// A key, key pattern or function tree address is malformed.
class PathError : public Hox::Error {
public:
    /// Prepends "PathError: " to the message; throws std::bad_alloc only.
    PathError(const std::string& message, const char* file, int line)
        : Error("PathError: " + message, file, line) {}
};

}  // namespace Hox::ObserverTree
