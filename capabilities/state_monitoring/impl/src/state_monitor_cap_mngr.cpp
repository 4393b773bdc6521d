#include "hox/state_monitoring/state_monitor_cap_mngr.h"

#include <cxxopts.hpp>
#include <string>
#include <vector>

#include "connect_urls.h"
#include "hox/cpputil/error/initialization_error.h"
#include "hox/service_common/capability/lum_capabilities.h"
#include "hox/service_common/service_initializer/create_persistence_handler.h"
#include "hox/service_common/service_initializer/lum_service_ctx.h"
#include "state_monitoring_internals.pb.h"

namespace Hox::Capability::StateMonitoring {

using Hox::ObserverTree::UnaryOps;

namespace {

constexpr int32_t archiveSize = 1000;

constexpr const char* sysMon = "sys_mon";
constexpr const char* nodeMon = "node_mon";
constexpr const char* statemonServices = "statemon_services";

bool isSystemMonitor(const Hox::Service::LumServiceCtx& ctx) {
    return ctx.optionCount(sysMon) > 0;
}

/// Throws InitializationError if one of them leads to this process, which would observe itself for
/// ever.
std::vector<std::string> connectUrls(const Hox::Service::LumServiceCtx& ctx) {
    if (!isSystemMonitor(ctx) || ctx.optionCount(statemonServices) == 0) {
        return {};
    }
    auto urls = parseConnectUrls(ctx.optionValue(statemonServices));
    for (const auto& url : urls) {
        if (ctx.isThisService(url)) {
            throw Hox::CppUtil::InitializationError(
                "The state monitor at " + url + " is this service itself", __FILE__, __LINE__);
        }
    }
    return urls;
}

void setConnectUrls(const std::vector<std::string>& urls, Hox::ObserverTree::ObserverTree& tree) {
    UpdateStateMonitorConfReq req;
    for (const auto& url : urls) {
        req.mutable_statemonitorconf()->add_statemonitorconnecturls(url);
    }
    tree.callApiOp<UnaryOps::UPDATE, UpdateStateMonitorConfReq, UpdateStateMonitorConfResp>("/conf",
                                                                                            req);
}

}  // namespace

StateMonitorCapMngr::~StateMonitorCapMngr() {
    if (m_persistenceHndlr) {
        m_persistenceHndlr->endCentralObserving();
    }
    if (m_stateMonObsHelper) {
        m_stateMonObsHelper->end();
    }
    endServing();
}

int StateMonitorCapMngr::id() const {
    return static_cast<int>(Hox::Service::CapabilityType::StateMonitoringUservice);
}

void StateMonitorCapMngr::addOptions(cxxopts::Options& options) {
    options.add_options("StateMonitoring")(
        sysMon,
        "If this option is set the state monitor will also mDNS publish itself as a system monitor",
        cxxopts::value<bool>())(
        nodeMon,
        "If this option is set the state monitor will also mDNS publish itself as a node monitor",
        cxxopts::value<bool>())(
        statemonServices,
        "Collection of services the system state monitor should subscribe to. The format is "
        "<ip>:port1,port2,port3",
        cxxopts::value<std::string>()->default_value(""));
}

int StateMonitorCapMngr::publishedType(const Hox::Service::LumServiceCtx& ctx) const {
    using Hox::Service::CapabilityType;
    // A node monitor is published as every other one.
    return static_cast<int>(isSystemMonitor(ctx) ? CapabilityType::StateMonitoringSystem
                                                 : CapabilityType::StateMonitoringUservice);
}

void StateMonitorCapMngr::initCapability(Hox::Service::LumServiceCtx& ctx) {
    m_connectUrls = connectUrls(ctx);
    TreeCapMngr::initCapability(ctx);
}

void StateMonitorCapMngr::registerHandlers(Hox::ObserverTree::ObserverTree& tree,
                                           Hox::Service::LumServiceCtx& ctx) {
    m_stateMonObsHelper = std::make_unique<StateMonObsHelper>(ctx.getProxyObsTreeHelper(), m_mutex,
                                                              ctx.getIdentity().id,
                                                              isSystemMonitor(ctx), archiveSize);
    m_stateMonObsHelper->registerObsTreeHandlers(tree);
    if (!m_connectUrls.empty()) {
        setConnectUrls(m_connectUrls, tree);
    }
}

void StateMonitorCapMngr::serverStarted(Hox::Service::LumServiceCtx& ctx) {
    if (m_stateMonObsHelper) {
        m_stateMonObsHelper->addObservers(tree());
    }
    startServing();
    if (isSystemMonitor(ctx)) {
        m_persistenceHndlr = Hox::Service::createPersistenceHandler(
            ctx, m_mutex, tree(), Hox::Service::capabilityName(id()), "/snmp");
    }
}

void StateMonitorCapMngr::proxyObsTreesReady(Hox::Service::LumServiceCtx& ctx) {
    if (isSystemMonitor(ctx)) {
        m_persistenceHndlr->init(
            true, ctx.getCapabilityPaths(Hox::Service::capabilityName(id())).confPath);
    }
    m_stateMonObsHelper->releaseConnectionThreads();
    if (ctx.optionCount(nodeMon) > 0) {
        m_stateMonObsHelper->startNodeMonitoring(tree());
    }
}

}  // namespace Hox::Capability::StateMonitoring
