#pragma once

#include <functional>
#include <string>
#include <vector>

#include "configuration.pb.h"
#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/path_manipulation.h"
#include "hox/observer_tree/status.h"

namespace Hox::Capability::Configuration {

/// The effect of a request on its slice, entry by entry in key order, so that the tree is walked
/// once from front to back.
class SliceUpdate {
public:
    /// Called before each value is written, with its key in the tree.
    using WriteHandler =
        std::function<void(const std::string& key, const google::protobuf::Any& value)>;

    /// Keeps references to the request. An entry without any pair ends the process.
    SliceUpdate(Api::UpdateCapConfReq& request, std::string root);

    /// Finds keys that the tree or the file store would refuse.
    Hox::ObserverTree::Status check() const;

    /// Applies the update; can be called once, because the values are moved out of the request.
    /// Unless it is a patch, all other keys that start with the slice's root are removed, with or
    /// without a slash after the root.
    void apply(Hox::ObserverTree::DataTree& tree, const WriteHandler& onWrite) const;

private:
    struct Entry {
        const std::string* key;
        Hox::ObserverTree::ObsTreeDataNodePair* pair;
    };

    Hox::ObserverTree::Status checkKey(const std::string& key, bool isRootValid) const;
    std::string whyMalformed(const std::string& key, bool isRootValid) const;
    void removeOthers(Hox::ObserverTree::DataTree& tree) const;
    void writeEntries(Hox::ObserverTree::DataTree& tree, const WriteHandler& onWrite) const;

    const std::string m_root;
    const bool m_isPatch;
    const Hox::ObserverTree::PathManipulation m_path;
    std::vector<Entry> m_entries;  // sorted by key
};

}  // namespace Hox::Capability::Configuration
