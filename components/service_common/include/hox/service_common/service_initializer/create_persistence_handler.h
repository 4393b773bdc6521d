#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "hox/observer_tree/observer_tree.h"
#include "hox/observer_tree/persistence/persistence_hndlr.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"

namespace Hox::Service {

/// Creates the persistence handler of a capability: it persists the keys of the tree that match the
/// expression, also in the central store if there is one. It refers to the context, which must
/// outlive it. Called under the capability's mutex, which is passed; with a central store not
/// before serverStarted(). Throws what PersistenceHndlr's constructor throws, and
/// InitializationError if the central store is this service itself.
std::unique_ptr<Hox::ObserverTree::PersistenceHndlr> createPersistenceHandler(
    LumServiceCtx& ctx, const std::shared_ptr<std::mutex>& mutex,
    Hox::ObserverTree::ObserverTree& tree, const std::string& capabilityName,
    const std::string& keyRegex);

}  // namespace Hox::Service
