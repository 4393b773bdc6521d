#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::ObserverTree {

/// A service's descriptor cannot be bound to a tree.
class ObsTreeBuildError : public Hox::Error {
public:
    /// Prepends "ObsTree Build Error: " to the message; throws std::bad_alloc only.
    ObsTreeBuildError(const std::string& message, const char* file, int line)
        : Error("ObsTree Build Error: " + message, file, line) {}
};

}  // namespace Hox::ObserverTree
