#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace Hox::ObserverTree {

/// Where a key pattern has literals: at its start, and once more after the stars that follow.
///
/// Patterns of one shape are distinguished by a hash of these literals, so the patterns that may
/// select a key are found without looking at the others.
struct KeyPatternShape {
    std::size_t prefixSize = 0;    ///< Literals before the first wildcard, with slashes.
    std::size_t starCount = 0;     ///< The number of components that are skipped after them.
    std::size_t literalsSize = 0;  ///< Literals after the skipped components, with slashes.

    /// The hash of the text's literals at these positions; nothing if these positions are not
    /// component boundaries of the text. A pattern selects only keys that have the hash of its own
    /// text.
    std::optional<std::size_t> hashOf(std::string_view text) const;
};

/// An arbitrary strict order.
bool operator<(const KeyPatternShape& left, const KeyPatternShape& right);

}  // namespace Hox::ObserverTree
