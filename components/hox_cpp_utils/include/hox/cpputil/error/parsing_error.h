#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::CppUtil {

/// A text does not have the required form.
class ParsingError : public Hox::Error {
public:
    /// Prepends "Generic parsing Error: " to the message; throws std::bad_alloc only.
    ParsingError(const std::string& message, const char* file, int line)
        : Error("Generic parsing Error: " + message, file, line) {}
};

}  // namespace Hox::CppUtil
