#pragma once

#include <memory>

#include "hox/cpputil/resource/resource_handle.h"
#include "hox/observer_tree/builders/async_grpc_server_obs_tree_builder.h"
#include "hox/observer_tree/grpc/async_grpc_server_handler.h"
#include "hox/observer_tree/grpc/grpc_server_observer_tree.h"
#include "hox/observer_tree/persistence/persistence_hndlr.h"
#include "hox/service_common/capability/icap_mngr.h"
#include "hox/state_monitoring/state_mon_obs_helper.h"

namespace Hox::Capability::StateMonitoring {

/// The capability manager of state monitoring: wires tree, handlers and gRPC. All logic is in
/// StateMonObsHelper.
class StateMonitorCapMngr : public Hox::Service::ICapMngr {
public:
    StateMonitorCapMngr() = default;

    /// Ends the connections to the central store and to other monitors and the watch on the
    /// machine.
    ~StateMonitorCapMngr() override;
    StateMonitorCapMngr(const StateMonitorCapMngr&) = delete;
    StateMonitorCapMngr(StateMonitorCapMngr&&) = delete;
    StateMonitorCapMngr& operator=(const StateMonitorCapMngr&) = delete;
    StateMonitorCapMngr& operator=(StateMonitorCapMngr&&) = delete;

    int id() const override;

    /// Adds the group "StateMonitoring".
    void addOptions(cxxopts::Options& options) override;

    /// Publishes the capability, builds the tree and binds the service to it. On a system monitor,
    /// sets the addresses of the external state monitors; throws InitializationError if one of them
    /// is that of this service.
    void initCapability(Hox::Service::LumServiceCtx& ctx) override;

    /// Starts serving. Asserts that initCapability() has run. Throws InitializationError if the
    /// central store of a system monitor is this service.
    void serverStarted(Hox::Service::LumServiceCtx& ctx) override;

    /// Loads the configuration of the traps, and waits for that of the central store; connects to
    /// the external state monitors and starts to watch the machine, depending on the role.
    void proxyObsTreesReady(Hox::Service::LumServiceCtx& ctx) override;

private:
    // Destroyed last: the handler's thread runs its operations.
    std::unique_ptr<StateMonObsHelper> m_stateMonObsHelper;
    // The tree's handlers refer to it. Only on a system monitor.
    std::unique_ptr<Hox::ObserverTree::PersistenceHndlr> m_persistenceHndlr;
    std::unique_ptr<Hox::ObserverTree::GrpcServerObserverTree> m_observerTree;
    std::shared_ptr<Hox::ObserverTree::AsyncGrpcServerHandler> m_asyncGrpcServerHandler;
    std::unique_ptr<Hox::ObserverTree::AsyncGRPCServerObsTreeBuilder> m_obsTreeBuilder;
    Hox::CppUtil::ResourceHandle<unsigned int> m_publication;
};

}  // namespace Hox::Capability::StateMonitoring
