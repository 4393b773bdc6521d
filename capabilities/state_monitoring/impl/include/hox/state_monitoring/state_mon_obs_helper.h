#pragma once

#include <spdlog/logger.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "hox/observer_tree/observer_tree.h"
#include "hox/state_monitoring/system_state.h"
#include "state_monitoring.pb.h"

namespace Hox::Capability::StateMonitoring {

class TypeFilter;

/// The logic of the state monitor: keeps the latest notification of every origin and the last
/// notifications of all, as data of an observer tree, and derives the severity of the whole.
///
/// Outlives the use of the tree that its handlers are registered on. The handlers run under the
/// locks of that tree, which guard the members too.
class StateMonObsHelper {
public:
    /// The mutex is the capability's, the id that of this service; the archive holds at most
    /// archiveSize notifications. Asserts that this is above 0.
    StateMonObsHelper(std::shared_ptr<std::mutex> capabilityMutex, std::string serviceId,
                      bool isSystemMonitor, int32_t archiveSize);
    virtual ~StateMonObsHelper() = default;
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

    /// A latest key of the tree and the severity of what it holds.
    struct LatestEntry {
        DataTree::iterator position;
        Api::StateSeverity severity = Api::StateSeverity::OK;
    };

    /// An archive key of the tree and the notification that it holds.
    struct ArchiveEntry {
        DataTree::iterator position;
        const Api::StoredNotification* notification = nullptr;
    };

    void registerStateHandlers(Hox::ObserverTree::ObserverTree& tree);
    void registerConnectionHandlers(Hox::ObserverTree::ObserverTree& tree);

    Result<Api::CreateStateNotificationResp> createStateNotification(
        Api::CreateStateNotificationReq&& req, DataTree& tree);
    Result<Api::GetStateNotificationsResp> getStateNotifications(
        const Api::GetStateNotificationsReq& req) const;
    Result<Api::GetLatestStateNotificationsResp> getLatestStateNotifications(
        const Api::GetLatestStateNotificationsReq& req, const DataTree& tree) const;
    Result<Api::GetCurrentStateResp> getCurrentState() const;

    void storeNotification(std::unique_ptr<Api::StateNotification> notification, DataTree& tree);
    void archive(Hox::ObserverTree::DataTreeValPtr value, DataTree& tree);
    void countSeverity(Api::StateSeverity severity, int32_t difference);
    void selectByIndex(int32_t index, TypeFilter& filter,
                       Api::GetStateNotificationsResp& resp) const;
    void selectByTime(const google::protobuf::Timestamp& from, TypeFilter& filter,
                      Api::GetStateNotificationsResp& resp) const;

    std::shared_ptr<spdlog::logger> m_logger;
    int32_t m_nextIndex = 0;
    /// The latest keys, which are never removed, by their text in the tree.
    std::unordered_map<std::string_view, LatestEntry> m_latest;
    /// The archive keys, oldest first, for who need not look them up.
    std::deque<ArchiveEntry> m_archive;
    int32_t m_archiveSize;
    bool m_isSystemMonitor;
    std::string m_serviceId;
    /// A SystemState.
    std::atomic<int> m_systemState{static_cast<int>(SystemState::Unknown)};
    std::shared_ptr<std::mutex> m_capabilityMutex;
    /// How many of the latest notifications are of these severities.
    int32_t m_latestErrors = 0;
    int32_t m_latestWarnings = 0;
};

}  // namespace Hox::Capability::StateMonitoring
