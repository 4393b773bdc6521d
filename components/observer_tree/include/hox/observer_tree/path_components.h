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

/// A wildcard component.
enum class WildCard {
    Star = 0,        ///< Matches exactly one arbitrary component.
    DoubleStar = 1,  ///< Matches any number of components, including none.
};

/// A literal without slashes, or a wildcard.
using PathComponent = std::variant<std::string, WildCard>;

/// A parsed path, in path order. The root path is empty.
using PathComponents = std::vector<PathComponent>;

}  // namespace Hox::ObserverTree
