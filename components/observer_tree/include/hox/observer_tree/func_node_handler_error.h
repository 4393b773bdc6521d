#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::ObserverTree {

/// No handler is registered where one was called.
class FuncNodeHandlerError : public Hox::Error {
public:
    /// Prepends "FuncNodeHandlerError: " to the message; throws std::bad_alloc only.
    FuncNodeHandlerError(const std::string& message, const char* file, int line)
        : Error("FuncNodeHandlerError: " + message, file, line) {}
};

}  // namespace Hox::ObserverTree
