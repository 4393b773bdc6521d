#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/status.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// An element of an observe stream, and its size on the wire in bytes.
struct StreamElement {
    std::shared_ptr<const ObsTreeObserveChangeSet> message;
    std::size_t size = 0;
};

/// Builds the elements of observe streams. The same selection of changes is built only once if
/// requests for it follow each other.
///
/// Values are immutable and kept alive here, so equal pointers mean equal values. Takes no lock.
class WireMessageMemo {
public:
    /// A selection with more keys is built each time and not kept.
    static constexpr std::size_t maxKeys = 64;

    /// The element for these changes and this status, whose text is cut to the maximum for clients.
    StreamElement element(const ChangeSetType& changes, const Status& status);

    /// Releases the values of the last element.
    void clear();

private:
    bool isLast(const ChangeSetType& changes, const Status& status) const;
    void remember(const ChangeSetType& changes);

    /// The changes of the last element, in a form whose memory is reused for the next one.
    std::vector<std::pair<std::string, std::vector<ChangeSetMapVal>>> m_changes;
    Status m_status;
    StreamElement m_element;
};

}  // namespace Hox::ObserverTree
