#pragma once

#include <memory>
#include <string>
#include <vector>

#include "hox/observer_tree/persistence/persistence_hndlr.h"
#include "hox/service_common/capability/tree_cap_mngr.h"
#include "hox/state_monitoring/state_mon_obs_helper.h"
#include "state_monitoring.grpc.pb.h"

namespace Hox::Capability::StateMonitoring {

/// The capability manager of state monitoring: wires tree, handlers and gRPC. All logic is in
/// StateMonObsHelper.
class StateMonitorCapMngr : public Hox::Service::TreeCapMngr<Api::StateMonitoringService> {
public:
    StateMonitorCapMngr() = default;

    /// Ends the connections to the central store and to other monitors and the watch on the
    /// machine, then serving.
    ~StateMonitorCapMngr() override;
    StateMonitorCapMngr(const StateMonitorCapMngr&) = delete;
    StateMonitorCapMngr(StateMonitorCapMngr&&) = delete;
    StateMonitorCapMngr& operator=(const StateMonitorCapMngr&) = delete;
    StateMonitorCapMngr& operator=(StateMonitorCapMngr&&) = delete;

    int id() const override;

    /// Adds the group "StateMonitoring".
    void addOptions(cxxopts::Options& options) override;

    /// On a system monitor, throws InitializationError if one of the external state monitors is
    /// this service, before anything is published.
    void initCapability(Hox::Service::LumServiceCtx& ctx) override;

    /// Starts serving. Asserts that initCapability() has run. Throws InitializationError if the
    /// central store of a system monitor is this service.
    void serverStarted(Hox::Service::LumServiceCtx& ctx) override;

    /// Loads the configuration of the traps, and waits for that of the central store; connects to
    /// the external state monitors and starts to watch the machine, depending on the role.
    void proxyObsTreesReady(Hox::Service::LumServiceCtx& ctx) override;

protected:
    /// On a system monitor, also sets the addresses of the external state monitors.
    void registerHandlers(Hox::ObserverTree::ObserverTree& tree,
                          Hox::Service::LumServiceCtx& ctx) override;

    int publishedType(const Hox::Service::LumServiceCtx& ctx) const override;

private:
    std::vector<std::string> m_connectUrls;  // of the external monitors
    std::unique_ptr<StateMonObsHelper> m_stateMonObsHelper;
    // The tree's handlers refer to it. Only on a system monitor.
    std::unique_ptr<Hox::ObserverTree::PersistenceHndlr> m_persistenceHndlr;
};

}  // namespace Hox::Capability::StateMonitoring
