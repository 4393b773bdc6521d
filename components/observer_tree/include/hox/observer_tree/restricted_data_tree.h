#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <variant>

#include "hox/observer_tree/access_violation_error.h"
#include "hox/observer_tree/path_manipulation.h"

namespace Hox::ObserverTree {

/// A data tree in which a handler writes only the keys at or below its address; it may read all
/// keys.
template <typename TreeType>
class RestrictedDataTree : public TreeType {
public:
    using TreeType::TreeType;
    using KeyType = typename TreeType::Values::key_type;
    using ValueType = typename TreeType::Values::mapped_type;
    using iterator = typename TreeType::iterator;

    /// Limits writes to the address and everything below it, until the next call. Throws PathError
    /// if the address is malformed; the former limit stays in force then.
    void setKeyPattern(const std::string& address) {
        if (!address.empty() && address == m_address) {
            return;
        }
        auto pattern = m_path.parsePath(PathType::FunctionTreeAddress, address);
        const bool isLiteral = std::all_of(pattern.begin(), pattern.end(), [](const auto& part) {
            return std::holds_alternative<std::string>(part);
        });
        pattern.emplace_back(WildCard::DoubleStar);
        m_keyPattern = std::move(pattern);
        m_address = address;
        m_hasLiteralPrefix = isLiteral && address.size() > 1;
    }

    /// Throws PathError for a malformed key, AccessViolationError for a key outside the limit.
    void checkAccess(const KeyType& key) const {
        if (liesUnderLiteralPrefix(key) && m_path.isKey(key)) {
            return;
        }
        if (!m_path.keyMatches(key, m_keyPattern)) {
            throw AccessViolationError("Not allowed to access \"" + key + "\" with key pattern \"" +
                                           m_path.componentsToString(m_keyPattern) + "\" in effect",
                                       __FILE__, __LINE__);
        }
    }

    /// Like the base class, after checkAccess; a rejected write changes nothing.
    std::pair<iterator, bool> insert_or_assign(const KeyType& key, const ValueType& value) {
        checkAccess(key);
        return TreeType::insert_or_assign(key, value);
    }

    /// The same, but takes over key and value.
    std::pair<iterator, bool> insert_or_assign(KeyType&& key, ValueType&& value) {
        checkAccess(key);
        return TreeType::insert_or_assign(std::move(key), std::move(value));
    }

    /// The same with the position of the key.
    std::pair<iterator, bool> insert_or_assign(iterator hint, KeyType&& key, ValueType&& value) {
        if (hint != this->end() && hint->first == key) {
            checkAccessToStored(key);
        } else {
            checkAccess(key);
        }
        return TreeType::insert_or_assign(hint, std::move(key), std::move(value));
    }

    /// Like the base class, after checkAccess, which an absent key must pass as well.
    void erase(const KeyType& key) {
        checkAccess(key);
        TreeType::erase(key);
    }

    /// The same for the key at a position of this tree other than its end.
    void erase(iterator position) {
        checkAccessToStored(position->first);
        TreeType::erase(position);
    }

private:
    /// Like checkAccess, for a key that is in the tree and therefore well-formed.
    void checkAccessToStored(const KeyType& key) const {
        if (!liesUnderLiteralPrefix(key)) {
            checkAccess(key);
        }
    }

    /// If true, a well-formed key matches; false means nothing.
    bool liesUnderLiteralPrefix(const KeyType& key) const {
        return m_hasLiteralPrefix && key.size() > m_address.size() &&
               key[m_address.size()] == '/' && key.compare(0, m_address.size(), m_address) == 0;
    }

    PathManipulation m_path;
    bool m_hasLiteralPrefix = false;  // m_address has no wildcards
    std::string m_address;            // source of m_keyPattern
    PathComponents m_keyPattern;
};

}  // namespace Hox::ObserverTree
