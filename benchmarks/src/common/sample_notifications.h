#pragma once

#include <string>

#include "state_monitoring.pb.h"

namespace Hox::Benchmarks {

namespace Api = Hox::Capability::StateMonitoring::Api;

/// The size of the service's archive.
constexpr int archiveSize = 1000;

/// Selects all keys that a create changes.
constexpr auto watchAllPattern = "/state/notifications/**";

/// Selects the latest reports of the origins, not the markers.
constexpr auto snapshotPattern = "/state/notifications/latest/head-1/**";

/// A report of the origin with this number, with the size and shape of real reports.
Api::StateNotification sampleNotification(int origin);

/// A report of a separate origin that a silent observer watches; its snapshot shows that the
/// observer is registered.
Api::StateNotification markerNotification(int marker);

/// The key of the report in the latest table; also the pattern that selects only this key.
std::string latestKey(const Api::StateNotification& notification);

/// The key of the report with this number in the archive.
std::string archiveKey(int index);

}  // namespace Hox::Benchmarks
