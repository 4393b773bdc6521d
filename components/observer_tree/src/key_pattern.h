#pragma once

#include <string>

#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/path_manipulation.h"
#include "key_pattern_shape.h"

namespace Hox::ObserverTree {

/// A key pattern that is parsed once and tried on many keys.
class KeyPattern {
public:
    /// Throws PathError when the text is malformed.
    KeyPattern(const PathManipulation& path, const std::string& text);

    /// Where the pattern has literals.
    const KeyPatternShape& shape() const { return m_shape; }

    /// Whether the key is selected. Throws what the matcher throws, std::bad_variant_access for a
    /// pattern that cannot be matched.
    bool selects(const PathManipulation& path, const std::string& key) const;

    /// The selected elements of the tree, as new keys; for one where the matcher throws see
    /// addToSnapshot. Walks the stretch of keys that start with the pattern's first literals.
    ChangeSetType snapshotOf(const PathManipulation& path, const DataTree& tree) const;

private:
    /// What decides whether a key is selected.
    enum class Kind {
        Key,      ///< It is the prefix.
        Subtree,  ///< It is at or below the prefix.
        Pattern,  ///< It is at or below the prefix, and the components match.
    };

    Kind m_kind = Kind::Pattern;
    KeyPatternShape m_shape;
    std::string m_prefix;         // the literal components ahead of the first wildcard
    PathComponents m_components;  // of Kind::Pattern only, as they take twenty times their text
};

}  // namespace Hox::ObserverTree
