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

/// The logic of the state monitor. A NotificationStore keeps the notifications as data of an
/// observer tree; this class binds them to the operations of the tree and derives the severity of
/// the whole.
///
/// Must outlive the use of the tree that its handlers are registered on. The handlers run under the
/// locks of that tree, which also guard the members.
class StateMonObsHelper {
public:
    /// The mutex is that of the capability, the id that of this service. The archive holds at most
    /// archiveSize notifications; asserts that this is above 0.
    StateMonObsHelper(std::shared_ptr<std::mutex> capabilityMutex, std::string serviceId,
                      bool isSystemMonitor, int32_t archiveSize);
    virtual ~StateMonObsHelper();
    StateMonObsHelper(const StateMonObsHelper&) = delete;
    StateMonObsHelper(StateMonObsHelper&&) = delete;
    StateMonObsHelper& operator=(const StateMonObsHelper&) = delete;
    StateMonObsHelper& operator=(StateMonObsHelper&&) = delete;

    /// Registers all handlers, once and on one tree: the object keeps positions in that tree.
    /// Throws like the registrations.
    void registerObsTreeHandlers(Hox::ObserverTree::ObserverTree& tree);

    /// Sets the state of the machine. While the machine is starting, the severity of the whole is
    /// BOOTING unless there is an ERROR. Callable from any thread, without a lock.
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
