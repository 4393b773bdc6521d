#pragma once

#include <memory>

#include "hox/configuration/conf_obstree_handler.h"
#include "hox/cpputil/resource/resource_handle.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "hox/observer_tree/builders/async_grpc_server_obs_tree_builder.h"
#include "hox/observer_tree/grpc/async_grpc_server_handler.h"
#include "hox/observer_tree/grpc/grpc_server_observer_tree.h"
#include "hox/service_common/capability/icap_mngr.h"

namespace Hox::Capability::Configuration {

/// The capability manager of configuration: wires tree, handler, proxy and gRPC. All logic is in
/// ConfObstreeHandler.
class ConfCapMngr : public Hox::Service::ICapMngr {
public:
    int id() const override;

    /// Publishes the capability, builds the tree and binds the service to it.
    void initCapability(Hox::Service::LumServiceCtx& ctx) override;

    /// Opens the proxy to the state monitor of this process.
    void serverStarted(Hox::Service::LumServiceCtx& ctx) override;

    /// Loads the saved configuration and starts serving.
    void proxyObsTreesReady(Hox::Service::LumServiceCtx& ctx) override;

private:
    // Destroyed last: the threads of the members below run its operations.
    std::unique_ptr<ConfObstreeHandler> m_confObstreeHandler;
    std::shared_ptr<Hox::ObserverTree::GrpcProxyObserverTree> m_stateTree;
    std::unique_ptr<Hox::ObserverTree::GrpcServerObserverTree> m_observerTree;
    std::shared_ptr<Hox::ObserverTree::AsyncGrpcServerHandler> m_asyncGrpcServerHandler;
    std::unique_ptr<Hox::ObserverTree::AsyncGRPCServerObsTreeBuilder> m_obsTreeBuilder;
    Hox::CppUtil::ResourceHandle<unsigned int> m_publication;
};

}  // namespace Hox::Capability::Configuration
