#pragma once

#include <functional>
#include <string>
#include <vector>

#include "configuration.pb.h"
#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/path_manipulation.h"
#include "hox/observer_tree/status.h"

namespace Hox::Capability::Configuration {

/// What a request does to its slice, entry by entry in the order of the keys, so that the tree is
/// walked once from front to back.
class SliceUpdate {
public:
    /// Called ahead of each value that is written, with its key in the tree.
    using WriteHandler =
        std::function<void(const std::string& key, const google::protobuf::Any& value)>;

    /// Keeps references to the request. An entry without any pair ends the process.
    SliceUpdate(Api::UpdateCapConfReq& request, std::string root);

    /// Finds what the tree or the file store would refuse in the keys.
    Hox::ObserverTree::Status check() const;

    /// Carries the update out, once: the values are moved out of the request. Unless it is a patch,
    /// everything else whose key starts with the slice's root goes, with or without a slash behind
    /// the root.
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
