#include "hox/service_common/service_initializer/create_persistence_handler.h"

#include <utility>

#include "configuration.grpc.pb.h"
#include "hox/configuration/conf_node_data_hndlr.h"
#include "hox/cpputil/error/initialization_error.h"

namespace Hox::Service {

using Hox::Capability::Configuration::ConfNodeDataHndlr;
using Hox::ObserverTree::PersistenceHndlr;

namespace {

/// A store that calls itself would wait for itself.
void attachCentralStore(PersistenceHndlr& handler, const std::string& address, LumServiceCtx& ctx,
                        const std::shared_ptr<std::mutex>& mutex) {
    if (ctx.isThisService(address)) {
        throw CppUtil::InitializationError(
            "The central data store at " + address + " is this service itself", __FILE__, __LINE__);
    }
    const auto isEnding = [&ctx] { return ctx.isEnding(); };
    auto store = ctx.getProxyObsTreeHelper()
                     .createProxyObsTree<Hox::Capability::Configuration::Api::ConfigurationService>(
                         mutex, address);
    handler.setNodeDataHndlr(
        std::make_shared<ConfNodeDataHndlr>(std::move(store), address, isEnding), isEnding);
}

}  // namespace

std::unique_ptr<PersistenceHndlr> createPersistenceHandler(LumServiceCtx& ctx,
                                                           const std::shared_ptr<std::mutex>& mutex,
                                                           Hox::ObserverTree::ObserverTree& tree,
                                                           const std::string& capabilityName,
                                                           const std::string& keyRegex) {
    const auto& identity = ctx.getIdentity();
    auto handler =
        std::make_unique<PersistenceHndlr>(tree, ctx.getCapabilityLock(), identity.nodeType,
                                           identity.nodeId, capabilityName, keyRegex);
    const auto address = ctx.getCapabilityPaths(capabilityName).ccsAddress;
    if (!address.empty()) {
        attachCentralStore(*handler, address, ctx, mutex);
    }
    return handler;
}

}  // namespace Hox::Service
