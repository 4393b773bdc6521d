#pragma once

#include <spdlog/logger.h>

#include <any>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "channel_watch.h"
#include "circle_guard.h"
#include "hox/observer_tree/builders/async_grpc_proxy_obs_tree_builder.h"
#include "hox/observer_tree/observer_tree.h"
#include "state_monitoring.pb.h"

namespace Hox::Capability::StateMonitoring {

/// The connections of a system monitor to other state monitors, whose notifications it creates in
/// its own tree as they arrive.
///
/// The state of each connection is data of the tree, and changes of that data drive the
/// connections: each address has a thread, which waits for the peer and then watches the connection
/// until it is lost. Peers are connected one at a time, in the order in which their connections
/// were lost. Lock order: the capability's mutex, the locks of the tree,
/// m_connectionsMutex, m_startMutex.
class MonitorConnections {
public:
    using ProxyTree = Hox::ObserverTree::GrpcProxyObserverTree;

    /// Creates the proxy of the state monitor at an address.
    using OpenProxy = std::function<std::shared_ptr<ProxyTree>(const std::string& url)>;

    /// The mutex is that of the capability, and the archive has archiveSize notifications.
    MonitorConnections(std::shared_ptr<std::mutex> capabilityMutex, OpenProxy openProxy,
                       int32_t archiveSize);

    /// Calls end().
    ~MonitorConnections();
    MonitorConnections(const MonitorConnections&) = delete;
    MonitorConnections(MonitorConnections&&) = delete;
    MonitorConnections& operator=(const MonitorConnections&) = delete;
    MonitorConnections& operator=(MonitorConnections&&) = delete;

    /// For the observer of /conf: lists every address as not connected, once. Asserts that there
    /// was no configuration before.
    void onConfChanged(const Hox::ObserverTree::ChangeSetType& changes,
                       Hox::ObserverTree::ObserverTree& tree);

    /// For the observer of /status: has every address that is not connected connected by its
    /// thread. Throws std::out_of_range for an address that is not in the first status, and
    /// std::system_error if the first status has an address for which no thread can be created.
    void onStatusChanged(const Hox::ObserverTree::ChangeSetType& changes,
                         Hox::ObserverTree::ObserverTree& tree);

    /// Lets the threads begin. On any thread.
    void release();

    /// Remembers a notification that is being created, to recognise it if a peer sends it back.
    /// Under the capability's mutex.
    void created(const Api::StateNotification& notification);

    /// Ends all threads and subscriptions within a second, regardless of the peers. The caller does
    /// not hold the capability's mutex; the tree still exists. A second call has no effect.
    void end();

private:
    /// Destroyed from last to first.
    struct Connection {
        CircleGuard::Source source = CircleGuard::own;
        std::shared_ptr<ProxyTree> proxy;
        std::any observeHandle;
        std::any statusHandle;  // of the observation of the peer's own connections
        bool hasPeers = false;  // the peer observes others, maybe in a circle
        std::thread thread;
        std::chrono::steady_clock::time_point subscribedAt;
        bool hasSent = false;  // since then
        bool isUselessLossLogged = false;
    };

    /// What a thread has to do. A new turn is given to it by the first status, and after each loss.
    struct Order {
        std::uint64_t number = 0;                   // how many orders there were
        std::uint64_t turn = 0;                     // among all connections; 0 until it is due
        std::chrono::steady_clock::time_point due;  // not tried before
    };

    /// What a peer can do wrong. Each fault is logged once per peer.
    enum class Fault { NoValue, UnreadableReport, UnreadableStatus, RefusedReport, Circle };

    // All but the body of the thread REQUIRE the capability's mutex.
    void handleStatusChange(const Api::StateMonitorStatus& current,
                            const Api::StateMonitorStatus& previous,
                            Hox::ObserverTree::ObserverTree& tree);
    void openProxies(const Api::StateMonitorStatus& status);
    void connect(const std::string& url, Hox::ObserverTree::ObserverTree& tree);
    void runConnection(Order& order, const std::shared_ptr<ProxyTree>& proxy,
                       Hox::ObserverTree::ObserverTree& tree, const std::string& url);
    std::unique_ptr<ChannelWatch> handleStateMonitorConnection(
        const std::shared_ptr<ProxyTree>& proxy, Hox::ObserverTree::ObserverTree& tree,
        const std::string& url);
    bool waitForPeer(const ProxyTree& proxy) const;
    void watchConnection(const Order& order, std::uint64_t number, ChannelWatch& watch,
                         Hox::ObserverTree::ObserverTree& tree, const std::string& url);
    bool isCurrent(const Order& order, std::uint64_t number);
    void lose(Hox::ObserverTree::ObserverTree& tree, const std::string& url);
    void onConnectionStatus(const Hox::ObserverTree::ChangeSetType& changes,
                            const std::shared_ptr<ProxyTree>& proxy,
                            Hox::ObserverTree::ObserverTree& tree, const std::string& url);
    void subscribe(const std::shared_ptr<ProxyTree>& proxy, Hox::ObserverTree::ObserverTree& tree,
                   const std::string& url);
    void handleProccessingExternalStateMonitorData(const Hox::ObserverTree::ChangeSetType& changes,
                                                   const Hox::ObserverTree::Status& status,
                                                   Hox::ObserverTree::ObserverTree& tree,
                                                   const std::string& url);
    void forward(const std::vector<Hox::ObserverTree::ChangeSetMapVal>& changes,
                 Hox::ObserverTree::ObserverTree& tree, const std::string& url);
    void create(const Api::StateNotification& notification, Hox::ObserverTree::ObserverTree& tree,
                const std::string& url);
    bool isToBeStored(const Api::StateNotification& notification, const std::string& url);
    void unsubscribe(const std::string& url);
    void onPeerStatus(const Hox::ObserverTree::ChangeSetType& changes, const std::string& url);
    void onDisconnected(const Hox::ObserverTree::ChangeSetType& changes,
                        Hox::ObserverTree::ObserverTree& tree, const std::string& url,
                        bool& isDone);
    bool isLossNews(const std::string& url);
    std::uint64_t waitForTurn(Order& order, std::uint64_t formerNumber);
    void giveTurn();
    void logOnce(const std::string& url, Fault fault, const std::string& text);

    const std::shared_ptr<spdlog::logger> m_logger;
    const std::shared_ptr<std::mutex> m_capabilityMutex;
    const OpenProxy m_openProxy;
    std::atomic<bool> m_isEnding{false};

    // GUARDED_BY(*m_capabilityMutex)
    CircleGuard m_circleGuard;
    bool m_hasPeers = false;
    bool m_isForwarding = false;  // the notification that is being created is that of a peer
    std::set<std::pair<std::string, Fault>> m_logged;

    std::mutex m_connectionsMutex;
    std::map<std::string, Connection> m_connections;  // GUARDED_BY(m_connectionsMutex)

    std::mutex m_startMutex;
    std::condition_variable m_startCondition;
    bool m_started = false;                 // GUARDED_BY(m_startMutex)
    std::map<std::string, Order> m_orders;  // of each address. GUARDED_BY(m_startMutex)
    std::uint64_t m_lastTurn = 0;           // GUARDED_BY(m_startMutex)
    std::uint64_t m_currentTurn = 1;        // GUARDED_BY(m_startMutex)
};

}  // namespace Hox::Capability::StateMonitoring
