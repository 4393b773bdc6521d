#pragma once

#include <cstdint>
#include <iterator>
#include <map>
#include <utility>
#include <vector>

namespace Hox::ObserverTree {

/// An ordered map that records every write in a pending change set.
///
/// Takes no lock: all access is under the data lock of the owning tree. ValueType is a pointer-like
/// type whose default value means "no value".
template <typename KeyType, typename ValueType>
class DataTreeMap {
public:
    /// One change of one key.
    struct ChangeSetMapVal {
        ValueType current;   ///< Null if the key was removed.
        ValueType previous;  ///< Null if there was no earlier value to report.
    };

    using Values = std::map<KeyType, ValueType>;
    using ChangeSet = std::map<KeyType, std::vector<ChangeSetMapVal>>;
    /// Read-only, because every write must be recorded.
    using iterator = typename Values::const_iterator;
    using const_iterator = typename Values::const_iterator;

    /// Elements in key order, for range-for. Valid as long as neither its first element nor the one
    /// after its last is erased.
    class Range {
    public:
        /// The elements in [first, last).
        Range(iterator first, iterator last) : m_first(first), m_last(last) {}

        /// The first element.
        iterator begin() const { return m_first; }
        /// After the last element.
        iterator end() const { return m_last; }
        /// Whether there is no element.
        bool empty() const { return m_first == m_last; }

    private:
        iterator m_first;
        iterator m_last;
    };

    /// `defaults` holds the values that erased keys fall back to.
    explicit DataTreeMap(Values defaults = {}) : m_defaults(std::move(defaults)) {
        m_spareChanges.reserve(maxSpareChanges);
    }
    virtual ~DataTreeMap() = default;
    DataTreeMap(const DataTreeMap&) = delete;
    DataTreeMap(DataTreeMap&&) = delete;
    DataTreeMap& operator=(const DataTreeMap&) = delete;
    DataTreeMap& operator=(DataTreeMap&&) = delete;

    /// Stores the value and records the change, even if old and new value are equal. The first
    /// overwrite in a batch determines the value that is reported as previous. Returns true for a
    /// new key.
    std::pair<iterator, bool> insert_or_assign(const KeyType& key, const ValueType& value) {
        return write(m_values.lower_bound(key), KeyType(key), ValueType(value));
    }

    /// The same, but takes over key and value.
    std::pair<iterator, bool> insert_or_assign(KeyType&& key, ValueType&& value) {
        const auto position = m_values.lower_bound(key);
        return write(position, std::move(key), std::move(value));
    }

    /// The same for a caller that knows the position of the key, or where it would be inserted:
    /// `hint` is an element of this map or its end. A wrong hint costs time only.
    std::pair<iterator, bool> insert_or_assign(iterator hint, KeyType&& key, ValueType&& value) {
        return write(hint, std::move(key), std::move(value));
    }

    /// Removes the key and records the change; a key with a default reappears with it. An absent
    /// key without a default is ignored.
    void erase(const KeyType& key) {
        const auto found = m_values.find(key);
        if (found != m_values.end()) {
            erase(found);
        } else {
            restoreDefault(m_defaults.find(key));
        }
    }

    /// The same for the key at a position of this map other than its end.
    void erase(iterator position) {
        // Looked up first: the key is destroyed with its element.
        const auto fallback = m_defaults.find(position->first);
        ++m_modifiedIndex;
        auto& change = pendingChange(position->first);
        if (!change.previous) {
            change.previous = position->second;
        }
        m_values.erase(position);
        restoreDefault(fallback);
    }

    // Reading has no side effects; iterators stay valid until their element is erased.
    /// The element of the key, or the end.
    iterator find(const KeyType& key) const { return m_values.find(key); }
    /// The first element whose key is not less than the key, or the end.
    iterator lower_bound(const KeyType& key) const { return m_values.lower_bound(key); }
    /// The elements whose key starts with the prefix, which need not end at a component boundary.
    Range withPrefix(const KeyType& prefix) const {
        // The lowest text above all texts with the prefix; there is none if the prefix consists of
        // 0xff.
        KeyType above = prefix;
        while (!above.empty() && static_cast<unsigned char>(above.back()) == 0xffU) {
            above.pop_back();
        }
        if (above.empty()) {
            return {lower_bound(prefix), end()};
        }
        above.back() = static_cast<char>(static_cast<unsigned char>(above.back()) + 1);
        return {lower_bound(prefix), lower_bound(above)};
    }
    /// The element with the lowest key.
    iterator begin() const { return m_values.begin(); }
    /// After the element with the highest key.
    iterator end() const { return m_values.end(); }
    /// Number of keys.
    std::size_t size() const { return m_values.size(); }
    /// Whether there is no key.
    bool empty() const { return m_values.empty(); }

    /// Takes out the pending change set and leaves an empty one. For the tree's delivery loop only.
    ChangeSet takeChangeSet() { return std::exchange(m_changeSet, ChangeSet()); }

    /// Releases the values of a delivered change set; some of its memory is reused for the next
    /// one. For the tree's delivery loop only.
    void recycle(ChangeSet&& used) noexcept {
        while (!used.empty() && m_spareChanges.size() < maxSpareChanges) {
            auto node = used.extract(used.begin());
            node.mapped().clear();
            m_spareChanges.push_back(std::move(node));
        }
        used.clear();
    }

    /// Number of effective writes so far. For diagnosis.
    uint64_t modifiedIndex() const { return m_modifiedIndex; }

    /// Number of keys created so far. For diagnosis.
    uint64_t createdIndex() const { return m_createdIndex; }

private:
    /// The number of keys that a short handler writes.
    static constexpr std::size_t maxSpareChanges = 8;

    ChangeSetMapVal& pendingChange(const KeyType& key) {
        // Many writes in the order of the keys are common.
        const bool isLast =
            m_changeSet.empty() || m_changeSet.key_comp()(m_changeSet.rbegin()->first, key);
        auto position = isLast ? m_changeSet.end() : m_changeSet.lower_bound(key);
        if (position == m_changeSet.end() || m_changeSet.key_comp()(key, position->first)) {
            position = insertChange(position, key);
        }
        auto& changes = position->second;
        if (changes.empty()) {
            changes.emplace_back();
        }
        return changes.back();
    }

    typename ChangeSet::iterator insertChange(typename ChangeSet::iterator position,
                                              const KeyType& key) {
        if (m_spareChanges.empty()) {
            return m_changeSet.try_emplace(position, key);
        }
        auto node = std::move(m_spareChanges.back());
        m_spareChanges.pop_back();
        node.key() = key;
        return m_changeSet.insert(position, std::move(node));
    }

    void restoreDefault(iterator fallback) {
        if (fallback != m_defaults.end()) {
            write(m_values.lower_bound(fallback->first), KeyType(fallback->first),
                  ValueType(fallback->second));
        }
    }

    std::pair<iterator, bool> write(iterator hint, KeyType&& key, ValueType&& value) {
        auto& change = pendingChange(key);
        const auto formerSize = m_values.size();
        const auto position = m_values.try_emplace(hint, std::move(key), value);
        const bool isNew = m_values.size() != formerSize;
        ++m_modifiedIndex;
        if (isNew) {
            ++m_createdIndex;
        } else {
            if (!change.previous) {
                change.previous = position->second;
            }
            position->second = value;
        }
        change.current = std::move(value);
        return {position, isNew};
    }

    Values m_values;
    Values m_defaults;
    ChangeSet m_changeSet;
    std::vector<typename ChangeSet::node_type> m_spareChanges;
    uint64_t m_modifiedIndex = 0;
    uint64_t m_createdIndex = 0;
};

}  // namespace Hox::ObserverTree
