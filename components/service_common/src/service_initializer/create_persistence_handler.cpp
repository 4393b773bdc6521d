#include "hox/service_common/service_initializer/create_persistence_handler.h"

namespace Hox::Service {

std::unique_ptr<Hox::ObserverTree::PersistenceHndlr> createPersistenceHandler(
    LumServiceCtx& ctx, Hox::ObserverTree::ObserverTree& tree, const std::string& capabilityName,
    const std::string& keyRegex) {
    const auto& identity = ctx.getIdentity();
    return std::make_unique<Hox::ObserverTree::PersistenceHndlr>(tree, ctx.getCapabilityLock(),
                                                                 identity.nodeType, identity.nodeId,
                                                                 capabilityName, keyRegex);
}

}  // namespace Hox::Service
