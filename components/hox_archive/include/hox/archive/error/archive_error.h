#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::Archive {

/// An archive cannot be written or read.
class ArchiveError : public Hox::Error {
public:
    /// Prepends "Archiving error: " to the message; throws std::bad_alloc only.
    ArchiveError(const std::string& message, const char* file, int line)
        : Error("Archiving error: " + message, file, line) {}
};

}  // namespace Hox::Archive
