#pragma once

#include <any>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hox/observer_tree/observer_tree.h"
#include "hox/service_common/service_initializer/proxy_obs_tree_helper.h"
#include "state_monitoring.pb.h"

namespace Hox::Capability::StateMonitoring {

class MonitorConnections;
class NotificationStore;
class SystemStateReports;
class SystemdWatcher;
class TrapForwarder;

/// The logic of the state monitor, which binds its parts to the operations of an observer tree: the
/// store of the notifications, the connections to other monitors, the watcher of the machine's
/// service manager and the forwarder of traps.
///
/// Must outlive the use of the tree that its handlers are registered on. The handlers run under the
/// locks of that tree, which also guard the members.
class StateMonObsHelper {
public:
    /// The helper opens the proxies of other monitors. The mutex is that of the capability, the id
    /// that of this service. The archive holds at most archiveSize notifications; asserts that this
    /// is above 0.
    StateMonObsHelper(const Hox::Service::ProxyObsTreeHelper& proxyHelper,
                      std::shared_ptr<std::mutex> capabilityMutex, std::string serviceId,
                      bool isSystemMonitor, int32_t archiveSize);

    /// Calls end().
    virtual ~StateMonObsHelper();
    StateMonObsHelper(const StateMonObsHelper&) = delete;
    StateMonObsHelper(StateMonObsHelper&&) = delete;
    StateMonObsHelper& operator=(const StateMonObsHelper&) = delete;
    StateMonObsHelper& operator=(StateMonObsHelper&&) = delete;

    /// Registers all handlers, once and on one tree: the object keeps positions in that tree.
    /// Throws like the registrations.
    void registerObsTreeHandlers(Hox::ObserverTree::ObserverTree& tree);

    /// Observes the keys of the tree that drive the connections and, on a system monitor, the
    /// traps. Under the capability's mutex, after registerObsTreeHandlers().
    void addObservers(Hox::ObserverTree::ObserverTree& tree);

    /// Lets the connections to other monitors begin. On any thread.
    void releaseConnectionThreads();

    /// Starts to watch the machine's service manager. Asserts that this has not been done yet.
    void startNodeMonitoring(Hox::ObserverTree::ObserverTree& tree);

    /// Takes in what the machine's service manager calls its state, and creates a notification if
    /// it has changed. While the machine is starting, the severity of the whole is BOOTING unless
    /// there is an ERROR. On one thread, which does not hold the capability's mutex.
    void checkSystemState(const std::string& managerState, Hox::ObserverTree::ObserverTree& tree);

    /// Creates a notification with the severity of all connections together if that has changed.
    /// Under the capability's mutex.
    void reportConnectState(const Api::StateSeverity& severity,
                            Hox::ObserverTree::ObserverTree& tree);

    /// Ends all threads and observations, within a second. The caller does not hold the
    /// capability's mutex; the tree still exists. A second call has no effect.
    void end();

private:
    using DataTree = Hox::ObserverTree::DataTree;
    template <typename Msg>
    using Result = Hox::ObserverTree::UnaryHandlerReturnType<Msg>;

    void registerStateHandlers(Hox::ObserverTree::ObserverTree& tree);
    void registerConnectionHandlers(Hox::ObserverTree::ObserverTree& tree);
    void registerSnmpHandlers(Hox::ObserverTree::ObserverTree& tree);
    void observe(Hox::ObserverTree::ObserverTree& tree, const std::string& keyPattern,
                 Hox::ObserverTree::ObserverCallback callback);
    void onSnmpChanged(const Hox::ObserverTree::ChangeSetType& changes,
                       Hox::ObserverTree::ObserverTree& tree);

    Result<Api::CreateStateNotificationResp> createStateNotification(
        Api::CreateStateNotificationReq&& req, DataTree& tree);
    Result<Api::GetStateNotificationsResp> getStateNotifications(
        const Api::GetStateNotificationsReq& req) const;
    Result<Api::GetLatestStateNotificationsResp> getLatestStateNotifications(
        const Api::GetLatestStateNotificationsReq& req, const DataTree& tree) const;
    Result<Api::GetCurrentStateResp> getCurrentState() const;
    Result<Api::SetSnmpConfResp> setSnmpConf(const Api::SetSnmpConfReq& req, DataTree& tree) const;

    std::unique_ptr<NotificationStore> m_store;
    bool m_isSystemMonitor;
    std::vector<std::any> m_observeHandles;
    Api::StateSeverity m_connectState = Api::StateSeverity::ERROR;
    std::string m_serviceId;
    std::shared_ptr<std::mutex> m_capabilityMutex;
    std::unique_ptr<TrapForwarder> m_trapForwarder;
    std::unique_ptr<SystemStateReports> m_systemStateReports;
    std::unique_ptr<MonitorConnections> m_connections;
    std::unique_ptr<SystemdWatcher> m_systemdWatcher;
};

}  // namespace Hox::Capability::StateMonitoring
