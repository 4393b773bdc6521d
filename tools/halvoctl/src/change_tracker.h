#pragma once

#include <google/protobuf/any.pb.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "changes.pb.h"
#include "obstree.pb.h"

namespace Hox::Ctl {

/// Keeps the values of the observed keys, and turns what an observation delivers into changes of
/// them, by key. A snapshot after the first one is what is there after a loss of the connection: it
/// becomes the differences from what was known before.
class ChangeTracker {
public:
    /// Whether two values mean the same: the bytes of one message may differ, because the order of
    /// a map is random.
    using Comparison =
        std::function<bool(const google::protobuf::Any&, const google::protobuf::Any&)>;

    /// Values are compared by this.
    explicit ChangeTracker(Comparison areSame) : m_areSame(std::move(areSame)) {}

    /// The changes of an element that is no snapshot.
    std::vector<Change> apply(const ObserverTree::ObsTreeObserveChangeSet& element);

    /// The changes that lead to this snapshot.
    std::vector<Change> applySnapshot(const ObserverTree::ObsTreeObserveChangeSet& element);

private:
    Comparison m_areSame;
    std::map<std::string, google::protobuf::Any> m_values;
};

}  // namespace Hox::Ctl
