#pragma once

#include <string>

#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/path_manipulation.h"
#include "key_pattern_shape.h"

namespace Hox::ObserverTree {

/// A key pattern that is parsed once and matched against many keys.
class KeyPattern {
public:
    /// Throws PathError if the text is malformed.
    KeyPattern(const PathManipulation& path, const std::string& text);

    /// The positions of the literals of the pattern.
    const KeyPatternShape& shape() const { return m_shape; }

    /// Whether the key is selected. Throws what the matcher throws, std::bad_variant_access for a
    /// pattern that can never match.
    bool selects(const PathManipulation& path, const std::string& key) const;

    /// The selected elements of the tree, as new keys; see addToSnapshot for an element on which
    /// the matcher throws. Walks only the range of keys that start with the pattern's first
    /// literals.
    ChangeSetType snapshotOf(const PathManipulation& path, const DataTree& tree) const;

private:
    /// The condition for a key to be selected.
    enum class Kind {
        Key,      ///< The key equals the prefix.
        Subtree,  ///< The key is at or below the prefix.
        Pattern,  ///< The key is at or below the prefix, and its components match.
    };

    Kind m_kind = Kind::Pattern;
    KeyPatternShape m_shape;
    std::string m_prefix;         // the literal components before the first wildcard
    PathComponents m_components;  // only for Kind::Pattern: twenty times as large as the text
};

}  // namespace Hox::ObserverTree
