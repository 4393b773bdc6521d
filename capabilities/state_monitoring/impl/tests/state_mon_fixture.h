#pragma once

#include <google/protobuf/timestamp.pb.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hox/observer_tree/observer_tree.h"
#include "hox/state_monitoring/state_mon_obs_helper.h"
#include "state_monitoring.pb.h"

namespace Hox::Capability::StateMonitoring::Fixture {

using Hox::ObserverTree::UnaryHandlerReturnType;
using Hox::ObserverTree::UnaryOps;

/// A notification with these parts and no others.
Api::StateNotification notification(const std::string& serviceId, const std::string& type,
                                    const std::string& source,
                                    Api::StateSeverity severity = Api::StateSeverity::OK);

google::protobuf::Timestamp timeStamp(int64_t seconds, int32_t nanos = 0);

/// A change as received by an observer.
struct ObservedChange {
    std::string key;
    bool hasCurrent = false;
    bool hasPrevious = false;
    std::string currentMsg;
    int32_t currentIndex = -1;
};

bool operator==(const ObservedChange& left, const ObservedChange& right);
std::ostream& operator<<(std::ostream& out, const ObservedChange& change);

/// A state monitor on its own tree, called through the tree's operations.
class StateMon {
public:
    explicit StateMon(int32_t archiveSize = 1000, bool isSystemMonitor = false);

    UnaryHandlerReturnType<Api::CreateStateNotificationResp> create(
        const Api::StateNotification& notification);
    UnaryHandlerReturnType<Api::GetStateNotificationsResp> get(
        const Api::GetStateNotificationsReq& req);
    UnaryHandlerReturnType<Api::GetLatestStateNotificationsResp> latest(
        const Api::GetLatestStateNotificationsReq& req = {});
    Api::StateSeverity currentState();

    /// The indices of the answer, in order.
    std::vector<int32_t> indices(const Api::GetStateNotificationsReq& req);
    std::vector<int32_t> indicesFrom(int32_t index, const std::string& typeRegEx = "");
    std::vector<int32_t> indicesSince(const google::protobuf::Timestamp& time,
                                      const std::string& typeRegEx = "");

    /// All change sets of an observer at the address, from its first call on.
    std::shared_ptr<std::vector<std::vector<ObservedChange>>> observe(const std::string& address,
                                                                      const std::string& pattern);

    /// The keys of the tree, in order.
    std::vector<std::string> keys();

    /// Has the machine's service manager say this.
    void machineIs(const std::string& managerState) {
        m_helper.checkSystemState(managerState, m_tree);
    }

    StateMonObsHelper& helper() { return m_helper; }
    Hox::ObserverTree::ObserverTree& tree() { return m_tree; }

private:
    const std::unique_ptr<grpc::Server> m_noServer;
    const Hox::Service::ProxyObsTreeHelper m_proxyHelper{nullptr, m_noServer};
    Hox::ObserverTree::ObserverTree m_tree;
    StateMonObsHelper m_helper;
    std::vector<std::any> m_observers;
};

}  // namespace Hox::Capability::StateMonitoring::Fixture
