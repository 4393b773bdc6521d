#pragma once

#include <chrono>

#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "store_wait.h"

/// The way to the central store.
namespace Hox::Capability::Configuration::StoreConnection {

/// Where the store's slices are updated and observed.
constexpr const char* functionAddress = "/sys/conf";

/// A store that a service needs, and one that it can do without.
constexpr std::chrono::steady_clock::duration neededWithin = std::chrono::hours(1);
constexpr auto noLimit = std::chrono::steady_clock::duration::max();

/// Waits until the store is connected; false if the wait must end before. Asserts that it is
/// connected within the limit. Blocks.
bool await(const Hox::ObserverTree::GrpcProxyObserverTree& store, StoreWait& wait,
           std::chrono::steady_clock::duration limit);

}  // namespace Hox::Capability::Configuration::StoreConnection
