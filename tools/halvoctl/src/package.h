#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>

namespace Hox::Ctl {

/// The content of a configuration package, read in memory. A package is not trusted: nothing of it
/// reaches the disk, and one that unpacks to more than 64 MiB or 100,000 entries is not read.
class Package {
public:
    /// Reads the archive. Throws CtlError if it cannot be read.
    explicit Package(const std::string& archive);

    /// For which machine it was made, as in "QAM part 100001".
    std::string identity() const;

    /// The slices as nodeType/nodeId/capability.
    std::set<std::string> slices() const;

    /// How many keys it has, without state ids.
    std::size_t keyCount() const;

    /// Whether the other one has the same keys with the same values, state ids left out.
    bool hasSameValues(const Package& other) const;

private:
    std::map<std::string, std::string> values() const;

    std::map<std::string, std::string> m_files;
};

}  // namespace Hox::Ctl
