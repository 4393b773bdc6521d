#pragma once

#include <string>
#include <variant>
#include <vector>

namespace Hox::ObserverTree {

/// The kind of path that is parsed. The parser relies on the order of the values.
enum class PathType {
    FunctionTreeAddress = 0,
    Key = 1,
    KeyPattern = 2,
};

/// A component that stands for others.
enum class WildCard {
    Star = 0,        ///< Exactly one component, whatever it says.
    DoubleStar = 1,  ///< Any number of components, none included.
};

/// A literal without slashes, or a wildcard.
using PathComponent = std::variant<std::string, WildCard>;

/// A parsed path, in path order. The root path is empty.
using PathComponents = std::vector<PathComponent>;

}  // namespace Hox::ObserverTree
