#pragma once

#include <cstdint>
#include <string>

#include "hox/observer_tree/data_tree.h"
#include "state_monitoring.pb.h"

namespace Hox::Capability::StateMonitoring {

/// Below it lies the latest notification of every origin.
inline const std::string latestPrefix = "/state/notifications/latest/";

/// Below it lie the last notifications of all, by index.
inline const std::string archivePrefix = "/state/notifications/archive/";

/// The key of the latest notification of this origin. Malformed where service, type or source make
/// no key.
std::string latestKey(const Api::StateNotification& notification);

/// The key of the archived notification; the index, not negative, has ten digits there.
std::string archiveKey(int32_t index);

/// Whether the position is not past the end and its key begins with the prefix. Under the data lock
/// of the tree.
bool liesUnder(Hox::ObserverTree::DataTree::const_iterator position, const std::string& prefix,
               const Hox::ObserverTree::DataTree& tree);

}  // namespace Hox::Capability::StateMonitoring
