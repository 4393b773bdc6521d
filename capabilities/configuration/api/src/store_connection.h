#pragma once

#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "store_wait.h"

/// The way to the central store.
namespace Hox::Capability::Configuration::StoreConnection {

/// Where the store's slices are updated and observed.
constexpr const char* functionAddress = "/sys/conf";

/// Waits until the store is connected; false if the wait must end before. Asserts that it is
/// connected within an hour. Blocks.
bool await(const Hox::ObserverTree::GrpcProxyObserverTree& store, StoreWait& wait);

/// The same without a limit.
bool awaitForEver(const Hox::ObserverTree::GrpcProxyObserverTree& store, StoreWait& wait);

}  // namespace Hox::Capability::Configuration::StoreConnection
