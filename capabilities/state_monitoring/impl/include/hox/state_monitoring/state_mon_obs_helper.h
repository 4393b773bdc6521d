#pragma once

#include <spdlog/logger.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "hox/observer_tree/observer_tree.h"
#include "hox/state_monitoring/system_state.h"
#include "state_monitoring.pb.h"

namespace Hox::Capability::StateMonitoring {

class NotificationStore;

/// The logic of the state monitor: binds the notifications, which a NotificationStore keeps as data
/// of an observer tree, to the operations of that tree, and derives the severity of the whole.
///
/// Outlives the use of the tree that its handlers are registered on. The handlers run under the
/// locks of that tree, which guard the members too.
class StateMonObsHelper {
public:
    /// The mutex is the capability's, the id that of this service; the archive holds at most
    /// archiveSize notifications. Asserts that this is above 0.
    StateMonObsHelper(std::shared_ptr<std::mutex> capabilityMutex, std::string serviceId,
                      bool isSystemMonitor, int32_t archiveSize);
    virtual ~StateMonObsHelper();
    StateMonObsHelper(const StateMonObsHelper&) = delete;
    StateMonObsHelper(StateMonObsHelper&&) = delete;
    StateMonObsHelper& operator=(const StateMonObsHelper&) = delete;
    StateMonObsHelper& operator=(StateMonObsHelper&&) = delete;

    /// Registers all handlers, on one tree and once: the object keeps positions in that tree.
    /// Throws as the registrations do.
    void registerObsTreeHandlers(Hox::ObserverTree::ObserverTree& tree);

    /// Tells how far the machine is. While it is starting, the severity of the whole is BOOTING
    /// unless there is an ERROR. Any thread, no lock.
    void setSystemState(SystemState systemState) { m_systemState = static_cast<int>(systemState); }

private:
    using DataTree = Hox::ObserverTree::DataTree;
    template <typename Msg>
    using Result = Hox::ObserverTree::UnaryHandlerReturnType<Msg>;

    void registerStateHandlers(Hox::ObserverTree::ObserverTree& tree);
    void registerConnectionHandlers(Hox::ObserverTree::ObserverTree& tree);

    Result<Api::CreateStateNotificationResp> createStateNotification(
        Api::CreateStateNotificationReq&& req, DataTree& tree);
    Result<Api::GetStateNotificationsResp> getStateNotifications(
        const Api::GetStateNotificationsReq& req) const;
    Result<Api::GetLatestStateNotificationsResp> getLatestStateNotifications(
        const Api::GetLatestStateNotificationsReq& req, const DataTree& tree) const;
    Result<Api::GetCurrentStateResp> getCurrentState() const;

    std::shared_ptr<spdlog::logger> m_logger;
    std::unique_ptr<NotificationStore> m_store;
    bool m_isSystemMonitor;
    std::string m_serviceId;
    /// A SystemState.
    std::atomic<int> m_systemState{static_cast<int>(SystemState::Unknown)};
    std::shared_ptr<std::mutex> m_capabilityMutex;
};

}  // namespace Hox::Capability::StateMonitoring
