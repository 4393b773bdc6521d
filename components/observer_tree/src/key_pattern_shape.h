#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace Hox::ObserverTree {

/// Where a key pattern has literals: at its start, and once more after the stars that follow.
///
/// Patterns of one shape are told from each other by a hash of these literals, so that those that
/// may select a key are found without a look at the others.
struct KeyPatternShape {
    std::size_t prefixSize = 0;    ///< Of the literals ahead of the first wildcard, with slashes.
    std::size_t starCount = 0;     ///< How many components are skipped then.
    std::size_t literalsSize = 0;  ///< Of the literals that follow, with slashes.

    /// The hash of the text's literals at these places; nothing where it has none there. A pattern
    /// selects only keys that have the hash of its own text.
    std::optional<std::size_t> hashOf(std::string_view text) const;
};

/// Some order.
bool operator<(const KeyPatternShape& left, const KeyPatternShape& right);

}  // namespace Hox::ObserverTree
