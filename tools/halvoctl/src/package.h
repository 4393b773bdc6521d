#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "package_entry.h"

namespace Hox::Ctl {

/// The content of a configuration package, read in memory. A package is not trusted: nothing of it
/// reaches the disk, and one that unpacks to more than 64 MiB or 100,000 entries is not read.
class Package {
public:
    /// Reads the archive. Throws CtlError if it cannot be read.
    explicit Package(const std::string& archive);

    /// Everything in the archive, in its order.
    const std::vector<PackageEntry>& entries() const { return m_entries; }

    /// The content of the file at this place, null if there is none.
    const std::string* file(const std::string& path) const;

    /// All folders that it makes, also those that have no entry of their own. One after a file of
    /// the same name is not made.
    std::set<std::string> folders() const;

    /// The saved values as text, by key, with state ids and with keys that are in no slice.
    const std::map<std::string, std::string>& values() const { return m_values; }

    /// The slices as nodeType/nodeId/capability.
    std::set<std::string> slices() const;

    /// How many keys it has, without state ids.
    std::size_t keyCount() const;

    /// Whether the other one has the same keys with the same values, state ids left out.
    bool hasSameValues(const Package& other) const;

private:
    std::map<std::string, std::string> valuesWithoutStateIds() const;

    std::vector<PackageEntry> m_entries;
    std::map<std::string, std::size_t> m_files;  // places in m_entries
    std::map<std::string, std::string> m_values;
};

/// The slice of a key, as nodeType/nodeId/capability; empty if it is in none.
std::string sliceOf(const std::string& key);

/// Whether the key has the state id of a slice, which differs after each change.
bool isStateId(const std::string& key);

}  // namespace Hox::Ctl
