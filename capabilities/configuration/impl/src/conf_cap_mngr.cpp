#include "hox/configuration/conf_cap_mngr.h"

#include "configuration.grpc.pb.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/service_common/capability/lum_capabilities.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "hox/service_common/service_initializer/service_kind.h"
#include "hox/service_common/service_initializer/service_visibility.h"
#include "state_monitoring.grpc.pb.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::AsyncGRPCServerObsTreeBuilder;
using Hox::ObserverTree::GrpcServerObserverTree;

int ConfCapMngr::id() const {
    return static_cast<int>(Hox::Service::CapabilityType::Configuration);
}

void ConfCapMngr::initCapability(Hox::Service::LumServiceCtx& ctx) {
    m_publication = ctx.getServiceHelper().publishCapability(
        id(), static_cast<int>(Hox::Service::ServiceKind::Grpc),
        static_cast<int>(Hox::Service::ServiceVisibility::Private),
        Api::ConfigurationService::service_full_name(), {}, "lo");
    // The state monitor's thread reads from the network: its calls are many times more frequent,
    // and a second reading thread would add a thread switch to each event.
    m_obsTreeBuilder = std::make_unique<AsyncGRPCServerObsTreeBuilder>(
        &ctx.getServerBuilder(), m_mutex, AsyncGRPCServerObsTreeBuilder::Polling::DoesNotPoll);
    m_observerTree =
        std::make_unique<GrpcServerObserverTree>(m_obsTreeBuilder->asyncGrpcServerHandler());
    m_obsTreeBuilder->buildServerObsTree<Api::ConfigurationService>(*m_observerTree);
}

void ConfCapMngr::serverStarted(Hox::Service::LumServiceCtx& ctx) {
    m_stateTree =
        ctx.getProxyObsTreeHelper()
            .createProxyObsTree<StateMonitoring::Api::StateMonitoringService>(m_mutex, "inprocess");
}

void ConfCapMngr::proxyObsTreesReady(Hox::Service::LumServiceCtx& ctx) {
    const auto paths = ctx.getCapabilityPaths(Hox::Service::capabilityName(id()));
    m_confObstreeHandler = std::make_unique<ConfObstreeHandler>(
        *m_observerTree, ctx.getCapabilityLock(), m_mutex, paths.confPath, ctx.getIdentity().id);
    m_confObstreeHandler->setStateTree(m_stateTree);
    m_confObstreeHandler->registerObsTreeHandlers();
    m_confObstreeHandler->addObservers();
    m_asyncGrpcServerHandler = m_obsTreeBuilder->asyncGrpcServerHandler();
    HOX_ASSERT(m_asyncGrpcServerHandler.get());
    m_asyncGrpcServerHandler->startCompletionQueueThread();
}

}  // namespace Hox::Capability::Configuration
