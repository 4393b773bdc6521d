#pragma once

#include <filesystem>
#include <set>
#include <string>

#include "hox/observer_tree/tree_types.h"

namespace Hox::ObserverTree {

/// The keys whose last change is only here, and not in the central store. Survives the process in a
/// file beside the folder of the values, so that a restart does not make the two stores differ for
/// good.
///
/// Not thread-safe. Throws std::filesystem::filesystem_error on an error of the file system.
class UnstoredKeys {
public:
    /// Keeps the keys beside this directory from now on, in a file with its name and ".unstored",
    /// and adds those that an earlier process has left there. With an empty name they end with the
    /// process.
    void open(const std::filesystem::path& directory);

    bool empty() const { return m_keys.empty(); }

    /// Adds the keys of the changes, except the given one.
    void add(const ChangeSetType& changes, const std::string& exception);

    /// Takes the keys of changes that have been stored out.
    void remove(const ChangeSetType& changes);

    /// Nothing is only here any more.
    void clear();

    /// A removal of each key that is not in the picture.
    ChangeSetType removedFrom(const ChangeSetType& picture) const;

private:
    void write() const;

    std::set<std::string> m_keys;
    std::filesystem::path m_file;
};

}  // namespace Hox::ObserverTree
