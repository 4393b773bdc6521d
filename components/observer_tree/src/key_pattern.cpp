#include "key_pattern.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <variant>

#include "hox/observer_tree/snapshot.h"

namespace Hox::ObserverTree {

namespace {

using Place = PathComponents::const_iterator;

/// The first component in the range that is not a literal.
Place endOfLiterals(Place first, Place last) {
    return std::find_if_not(first, last, [](const PathComponent& component) {
        return std::holds_alternative<std::string>(component);
    });
}

/// The literals, each with a leading slash.
std::string textOf(Place first, Place last) {
    std::string text;
    for (; first != last; ++first) {
        text.append("/").append(std::get<std::string>(*first));
    }
    return text;
}

}  // namespace

KeyPattern::KeyPattern(const PathManipulation& path, const std::string& text) {
    auto components = path.parsePath(PathType::KeyPattern, text);
    const auto last = components.cend();
    const auto firstWildCard = endOfLiterals(components.cbegin(), last);
    m_prefix = firstWildCard == last ? text : textOf(components.cbegin(), firstWildCard);
    m_shape.prefixSize = m_prefix.size();
    if (firstWildCard == last) {
        m_kind = Kind::Key;
        return;
    }
    const PathComponent star(WildCard::Star);
    const auto afterStars = std::find_if(
        firstWildCard, last, [&star](const auto& component) { return component != star; });
    if (afterStars == firstWildCard && std::next(afterStars) == last) {
        m_kind = Kind::Subtree;
        return;
    }
    m_shape.starCount = static_cast<std::size_t>(afterStars - firstWildCard);
    m_shape.literalsSize = textOf(afterStars, endOfLiterals(afterStars, last)).size();
    m_components = std::move(components);
}

bool KeyPattern::selects(const PathManipulation& path, const std::string& key) const {
    // Most keys and patterns already differ here, so the key need not be parsed.
    if (key.compare(0, m_prefix.size(), m_prefix) != 0) {
        return false;
    }
    if (key.size() == m_prefix.size()) {
        return m_kind != Kind::Pattern || path.keyMatches(key, m_components);
    }
    return m_kind != Kind::Key && key[m_prefix.size()] == '/' &&
           (m_kind == Kind::Subtree || path.keyMatches(key, m_components));
}

ChangeSetType KeyPattern::snapshotOf(const PathManipulation& path, const DataTree& tree) const {
    const auto isSelected = [this, &path](const std::string& key) { return selects(path, key); };
    ChangeSetType snapshot;
    // Not all keys with this prefix: the last component may be longer.
    const auto prefix = tree.find(m_prefix);
    if (prefix != tree.end()) {
        addToSnapshot(snapshot, DataTree::Range(prefix, std::next(prefix)), isSelected);
    }
    if (m_kind != Kind::Key) {
        addToSnapshot(snapshot, tree.withPrefix(m_prefix + "/"), isSelected);
    }
    return snapshot;
}

}  // namespace Hox::ObserverTree
