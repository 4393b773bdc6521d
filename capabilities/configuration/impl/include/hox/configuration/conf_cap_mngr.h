#pragma once

#include <memory>

#include "configuration.grpc.pb.h"
#include "hox/configuration/conf_obstree_handler.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "hox/service_common/capability/tree_cap_mngr.h"

namespace Hox::Capability::Configuration {

/// The capability manager of configuration: wires tree, handler, proxy and gRPC. All logic is in
/// ConfObstreeHandler.
class ConfCapMngr : public Hox::Service::TreeCapMngr<Api::ConfigurationService> {
public:
    ConfCapMngr();

    /// Ends serving before what the handlers use is destroyed.
    ~ConfCapMngr() override;
    ConfCapMngr(const ConfCapMngr&) = delete;
    ConfCapMngr(ConfCapMngr&&) = delete;
    ConfCapMngr& operator=(const ConfCapMngr&) = delete;
    ConfCapMngr& operator=(ConfCapMngr&&) = delete;

    int id() const override;

    /// Opens the proxy to the state monitor of this process.
    void serverStarted(Hox::Service::LumServiceCtx& ctx) override;

    /// Loads the saved configuration and starts serving.
    void proxyObsTreesReady(Hox::Service::LumServiceCtx& ctx) override;

protected:
    /// Nothing yet: the handlers need the saved configuration.
    void registerHandlers(Hox::ObserverTree::ObserverTree& tree,
                          Hox::Service::LumServiceCtx& ctx) override;

private:
    // Destroyed last: the thread of the proxy runs its operations.
    std::unique_ptr<ConfObstreeHandler> m_confObstreeHandler;
    std::shared_ptr<Hox::ObserverTree::GrpcProxyObserverTree> m_stateTree;
};

}  // namespace Hox::Capability::Configuration
