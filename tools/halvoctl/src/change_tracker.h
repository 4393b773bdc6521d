#pragma once

#include <google/protobuf/any.pb.h>

#include <map>
#include <string>
#include <vector>

#include "changes.pb.h"
#include "obstree.pb.h"

namespace Hox::Ctl {

/// Keeps the values of the observed keys, and turns what an observation delivers into changes of
/// them, by key. A snapshot after the first one is what is there after a loss of the connection: it
/// becomes the differences from what was known before.
class ChangeTracker {
public:
    /// The changes of an element that is no snapshot.
    std::vector<Change> apply(const ObserverTree::ObsTreeObserveChangeSet& element);

    /// The changes that lead to this snapshot.
    std::vector<Change> applySnapshot(const ObserverTree::ObsTreeObserveChangeSet& element);

private:
    std::map<std::string, google::protobuf::Any> m_values;
};

}  // namespace Hox::Ctl
