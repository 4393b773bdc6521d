#pragma once

#include <string>

#include "state_monitoring.pb.h"

namespace Hox::Benchmarks {

namespace Api = Hox::Capability::StateMonitoring::Api;

/// The size of the service's archive.
constexpr int archiveSize = 1000;

/// Selects everything that a create changes.
constexpr auto watchAllPattern = "/state/notifications/**";

/// Selects the latest reports of the origins, not the markers.
constexpr auto snapshotPattern = "/state/notifications/latest/head-1/**";

/// A report of the numbered origin, of the size and shape that services send.
Api::StateNotification sampleNotification(int origin);

/// A report of an origin of its own that a silent observer watches; its snapshot tells the observer
/// that it is registered.
Api::StateNotification markerNotification(int marker);

/// The key of the report in the latest table, also the pattern that selects it alone.
std::string latestKey(const Api::StateNotification& notification);

/// The key of the numbered report in the archive.
std::string archiveKey(int index);

}  // namespace Hox::Benchmarks
