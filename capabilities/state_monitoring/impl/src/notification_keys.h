#pragma once

#include <cstdint>
#include <string>

#include "hox/observer_tree/data_tree.h"
#include "state_monitoring.pb.h"

namespace Hox::Capability::StateMonitoring {

/// The prefix of the latest notification of every origin.
inline const std::string latestPrefix = "/state/notifications/latest/";

/// The prefix of the last notifications of all origins, by index.
inline const std::string archivePrefix = "/state/notifications/archive/";

/// The key of the latest notification of this origin. Malformed if service, type or source do not
/// form a valid key.
std::string latestKey(const Api::StateNotification& notification);

/// The key of the archived notification; the index, which is not negative, has ten digits in it.
std::string archiveKey(int32_t index);

/// Whether the position is not past the end and its key begins with the prefix. Runs under the data
/// lock of the tree.
bool liesUnder(Hox::ObserverTree::DataTree::const_iterator position, const std::string& prefix,
               const Hox::ObserverTree::DataTree& tree);

}  // namespace Hox::Capability::StateMonitoring
