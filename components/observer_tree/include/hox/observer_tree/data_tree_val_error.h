#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::ObserverTree {

/// A required value is missing or cannot be decoded.
class DataTreeValError : public Hox::Error {
public:
    /// Prepends "DataTreeValError Error: " to the message; throws std::bad_alloc only.
    DataTreeValError(const std::string& message, const char* file, int line)
        : Error("DataTreeValError Error: " + message, file, line) {}
};

}  // namespace Hox::ObserverTree
