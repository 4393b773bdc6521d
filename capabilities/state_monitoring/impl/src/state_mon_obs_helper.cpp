#include "hox/state_monitoring/state_mon_obs_helper.h"

#include <utility>

#include "hox/observer_tree/path_error.h"
#include "monitor_connections.h"
#include "notification_store.h"
#include "state_monitoring.grpc.pb.h"
#include "state_monitoring_internals.pb.h"
#include "system_state_reports.h"
#include "systemd_watcher.h"
#include "trap_forwarder.h"

namespace Hox::Capability::StateMonitoring {

using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::PathError;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;

StateMonObsHelper::StateMonObsHelper(const Hox::Service::ProxyObsTreeHelper& proxyHelper,
                                     std::shared_ptr<std::mutex> capabilityMutex,
                                     std::string serviceId, bool isSystemMonitor,
                                     int32_t archiveSize)
    : m_store(std::make_unique<NotificationStore>(archiveSize)),
      m_isSystemMonitor(isSystemMonitor),
      m_serviceId(std::move(serviceId)),
      m_capabilityMutex(std::move(capabilityMutex)),
      m_trapForwarder(std::make_unique<TrapForwarder>()),
      m_systemStateReports(std::make_unique<SystemStateReports>(m_serviceId)),
      m_connections(std::make_unique<MonitorConnections>(
          m_capabilityMutex,
          [&proxyHelper, mutex = m_capabilityMutex](const std::string& url) {
              return proxyHelper.createProxyObsTree<Api::StateMonitoringService>(mutex, url);
          },
          archiveSize)) {}

StateMonObsHelper::~StateMonObsHelper() {
    end();
}

void StateMonObsHelper::end() {
    m_systemdWatcher.reset();
    m_connections->end();
    const std::lock_guard<std::mutex> capability(*m_capabilityMutex);
    m_observeHandles.clear();
}

void StateMonObsHelper::registerObsTreeHandlers(Hox::ObserverTree::ObserverTree& tree) {
    registerStateHandlers(tree);
    registerConnectionHandlers(tree);
}

void StateMonObsHelper::registerStateHandlers(Hox::ObserverTree::ObserverTree& tree) {
    tree.registerUnaryOpHandler<UnaryOps::CREATE, Api::CreateStateNotificationReq,
                                Api::CreateStateNotificationResp>(
        "/state/notifications", [this](Api::CreateStateNotificationReq&& req, DataTree& data) {
            return createStateNotification(std::move(req), data);
        });
    tree.registerUnaryOpHandler<UnaryOps::READ, Api::GetStateNotificationsReq,
                                Api::GetStateNotificationsResp>(
        "/state/notifications",
        [this](const auto& req, DataTree&) { return getStateNotifications(req); });
    tree.registerUnaryOpHandler<UnaryOps::READ, Api::GetLatestStateNotificationsReq,
                                Api::GetLatestStateNotificationsResp>(
        "/state/latest",
        [this](const auto& req, DataTree& data) { return getLatestStateNotifications(req, data); });
    tree.registerUnaryOpHandler<UnaryOps::READ, Api::GetCurrentStateReq, Api::GetCurrentStateResp>(
        "/state/current", [this](const auto&, DataTree&) { return getCurrentState(); });
}

void StateMonObsHelper::registerConnectionHandlers(Hox::ObserverTree::ObserverTree& tree) {
    tree.registerUnaryOpHandler<UnaryOps::READ, Api::GetStateMonitorStatusReq,
                                Api::GetStateMonitorStatusResp>(
        "/status", [](const auto&, DataTree& data) {
            auto resp = std::make_unique<Api::GetStateMonitorStatusResp>();
            auto& status = *resp->mutable_monitorstatus();
            const auto found = data.find("/status");
            if (found != data.end()) {
                status = found->second->get<Api::StateMonitorStatus>();
            }
            return Result<Api::GetStateMonitorStatusResp>{std::move(resp), Status()};
        });
    registerSnmpHandlers(tree);
    tree.registerDefaultObserveHandler("/state");
    tree.registerUnaryOpHandler<UnaryOps::UPDATE, UpdateStateMonitorConfReq,
                                UpdateStateMonitorConfResp>("/conf", [](const auto& req,
                                                                        DataTree& data) {
        data.insert_or_assign("/conf", std::make_shared<const DataTreeVal>(req.statemonitorconf()));
        return Result<UpdateStateMonitorConfResp>{std::make_unique<UpdateStateMonitorConfResp>(),
                                                  Status()};
    });
    tree.registerUnaryOpHandler<UnaryOps::UPDATE, UpdateStateMonitorStatusReq,
                                UpdateStateMonitorStatusResp>("/status", [](const auto& req,
                                                                            DataTree& data) {
        data.insert_or_assign("/status", std::make_shared<const DataTreeVal>(req.monitorstatus()));
        return Result<UpdateStateMonitorStatusResp>{
            std::make_unique<UpdateStateMonitorStatusResp>(), Status()};
    });
    tree.registerDefaultObserveHandler("/");
}

auto StateMonObsHelper::createStateNotification(Api::CreateStateNotificationReq&& req,
                                                DataTree& tree)
    -> Result<Api::CreateStateNotificationResp> {
    auto resp = std::make_unique<Api::CreateStateNotificationResp>();
    const auto& notification = *req.mutable_statenotification();  // an absent one is an empty one
    m_trapForwarder->forward(notification);
    m_connections->created(notification);
    try {
        m_store->store(std::unique_ptr<Api::StateNotification>(req.release_statenotification()),
                       tree);
        return {std::move(resp), Status()};
    } catch (const PathError& error) {
        return {std::move(resp), Status(ProtoStatus::FAILED_PRECONDITION, error.what())};
    }
}

}  // namespace Hox::Capability::StateMonitoring
