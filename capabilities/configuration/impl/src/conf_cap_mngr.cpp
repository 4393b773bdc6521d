#include "hox/configuration/conf_cap_mngr.h"

#include "hox/service_common/capability/lum_capabilities.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "state_monitoring.grpc.pb.h"

namespace Hox::Capability::Configuration {

// The state monitor's thread reads from the network: its calls are many times more frequent, and a
// second reading thread would add a thread switch to each event.
ConfCapMngr::ConfCapMngr() : TreeCapMngr(Polling::DoesNotPoll) {}

ConfCapMngr::~ConfCapMngr() {
    endServing();
}

int ConfCapMngr::id() const {
    return static_cast<int>(Hox::Service::CapabilityType::Configuration);
}

void ConfCapMngr::registerHandlers(Hox::ObserverTree::ObserverTree& /*tree*/,
                                   Hox::Service::LumServiceCtx& /*ctx*/) {}

void ConfCapMngr::serverStarted(Hox::Service::LumServiceCtx& ctx) {
    m_stateTree =
        ctx.getProxyObsTreeHelper()
            .createProxyObsTree<StateMonitoring::Api::StateMonitoringService>(m_mutex, "inprocess");
}

void ConfCapMngr::proxyObsTreesReady(Hox::Service::LumServiceCtx& ctx) {
    const auto paths = ctx.getCapabilityPaths(Hox::Service::capabilityName(id()));
    m_confObstreeHandler = std::make_unique<ConfObstreeHandler>(
        tree(), ctx.getCapabilityLock(), m_mutex, paths.confPath, ctx.getIdentity().id);
    m_confObstreeHandler->setStateTree(m_stateTree);
    m_confObstreeHandler->registerObsTreeHandlers();
    m_confObstreeHandler->addObservers();
    startServing();
}

}  // namespace Hox::Capability::Configuration
