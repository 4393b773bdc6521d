#pragma once

#include <memory>
#include <string>

#include "hox/observer_tree/observer_tree.h"
#include "hox/observer_tree/persistence/persistence_hndlr.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"

namespace Hox::Service {

/// Creates the persistence handler of a capability: it persists the keys of the tree that match the
/// expression. It refers to the context's lock slot, so the context must outlive it. Called under
/// the capability's mutex; throws what PersistenceHndlr's constructor throws.
std::unique_ptr<Hox::ObserverTree::PersistenceHndlr> createPersistenceHandler(
    LumServiceCtx& ctx, Hox::ObserverTree::ObserverTree& tree, const std::string& capabilityName,
    const std::string& keyRegex);

}  // namespace Hox::Service
