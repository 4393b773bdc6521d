#include "monitor_connections.h"

#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/error/error.h"
#include "hox/cpputil/log/logsystem.h"
#include "hox/cpputil/log/source_location.h"
#include "hox/observer_tree/data_tree_val_error.h"
#include "hox/observer_tree/utils.h"
#include "obstree.pb.h"
#include "state_monitoring_internals.pb.h"

namespace Hox::Capability::StateMonitoring {

using Hox::ObserverTree::ChangeSetMapVal;
using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::ObserverCallback;
using Hox::ObserverTree::ObserveReq;
using Hox::ObserverTree::ObserverTree;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;
using ConnectionStatus = Api::StateMonitorConnectionStatus;

namespace {

/// How often a thread that waits for a peer looks whether it must end.
constexpr std::chrono::milliseconds endInterval{200};

/// A connection that lasts longer is of use, even if the peer has nothing to send.
constexpr std::chrono::seconds usefulDuration{1};

/// From the loss of a connection that did not last as long to the next attempt.
constexpr std::chrono::milliseconds pauseAfterBriefConnection{500};

/// A text that contains data of a peer is cut in the log, to this number of bytes.
constexpr std::size_t longestText = 2000;

/// How many archives of notifications are known again when they come back.
constexpr std::size_t archivesInMind = 16;

Hox::ObserverTree::ObserveRaiiHandleType<ObserveReq> observeKeys(ObserverTree& tree,
                                                                 const std::string& address,
                                                                 const std::string& keyPattern,
                                                                 ObserverCallback callback) {
    ObserveReq request;
    request.set_key_pattern(keyPattern);
    return tree.observe<ObserveReq>(address, request, std::move(callback), 0);
}

void updateStatus(const Api::StateMonitorStatus& status, ObserverTree& tree) {
    UpdateStateMonitorStatusReq request;
    *request.mutable_monitorstatus() = status;
    tree.callApiOp<UnaryOps::UPDATE, UpdateStateMonitorStatusReq, UpdateStateMonitorStatusResp>(
        "/status", request);
}

/// The entry of an address in a status; null if there is none.
ConnectionStatus* entryOf(const std::string& url, Api::StateMonitorStatus& status) {
    auto& entries = *status.mutable_statemonitorconnectionstatus();
    const auto found = std::find_if(entries.begin(), entries.end(), [&](const auto& entry) {
        return entry.connectionurl() == url;
    });
    return found == entries.end() ? nullptr : &*found;
}

}  // namespace

MonitorConnections::MonitorConnections(std::shared_ptr<std::mutex> capabilityMutex,
                                       OpenProxy openProxy, int32_t archiveSize)
    : m_logger(Hox::Log::getLogsystem()->getLogger("StateMonObsHelper")),
      m_capabilityMutex(std::move(capabilityMutex)),
      m_openProxy(std::move(openProxy)),
      m_circleGuard(archivesInMind * static_cast<std::size_t>(archiveSize)) {}

MonitorConnections::~MonitorConnections() {
    end();
}

void MonitorConnections::end() {
    {
        const std::lock_guard<std::mutex> lock(m_startMutex);
        m_isEnding = true;
    }
    m_startCondition.notify_all();
    std::map<std::string, Connection> connections;
    {
        // From here on no callback of the tree can start a thread.
        const std::lock_guard<std::mutex> capability(*m_capabilityMutex);
        const std::lock_guard<std::mutex> lock(m_connectionsMutex);
        connections.swap(m_connections);
    }
    for (auto& [url, connection] : connections) {
        if (connection.thread.joinable()) {
            connection.thread.join();
        }
    }
    const std::lock_guard<std::mutex> capability(*m_capabilityMutex);
    for (auto& [url, connection] : connections) {
        connection.observeHandle.reset();
        connection.statusHandle.reset();
    }
    // The proxies are destroyed without the capability's mutex, which their threads need. Without
    // handles their watches expire together, not one after the other.
}

void MonitorConnections::onConfChanged(const ChangeSetType& changes, ObserverTree& tree) {
    if (changes.empty()) {
        return;
    }
    HOX_ASSERT(!changes.begin()->second.at(0).previous.get());
    Api::StateMonitorStatus status;
    Hox::ObserverTree::callTypedObserver<StateMonitorConf>(
        changes, [&](const StateMonitorConf& current, const StateMonitorConf& /*previous*/) {
            for (const auto& url : current.statemonitorconnecturls()) {
                if (entryOf(url, status) != nullptr) {
                    continue;  // listed twice: one connection is enough
                }
                auto& entry = *status.add_statemonitorconnectionstatus();
                entry.set_connectstatus(ConnectionStatus::NOT_CONNECTED);
                entry.set_connectionurl(url);
            }
        });
    updateStatus(status, tree);
}

void MonitorConnections::onStatusChanged(const ChangeSetType& changes, ObserverTree& tree) {
    if (changes.empty() || m_isEnding) {
        return;
    }
    Hox::ObserverTree::callTypedObserver<Api::StateMonitorStatus>(
        changes,
        [&](const Api::StateMonitorStatus& current, const Api::StateMonitorStatus& previous) {
            handleStatusChange(current, previous, tree);
        });
}

void MonitorConnections::release() {
    {
        const std::lock_guard<std::mutex> lock(m_startMutex);
        m_started = true;
    }
    m_startCondition.notify_all();
}

void MonitorConnections::created(const Api::StateNotification& notification) {
    if (m_hasPeers && !m_isForwarding) {
        m_circleGuard.count(CircleGuard::own, notification);
    }
}

void MonitorConnections::handleStatusChange(const Api::StateMonitorStatus& current,
                                            const Api::StateMonitorStatus& previous,
                                            ObserverTree& tree) {
    if (previous.statemonitorconnectionstatus().empty() &&
        !current.statemonitorconnectionstatus().empty()) {
        openProxies(current);
    }
    Api::StateMonitorStatus status = current;
    bool isChanged = false;
    for (auto& entry : *status.mutable_statemonitorconnectionstatus()) {
        if (entry.connectstatus() == ConnectionStatus::NOT_CONNECTED) {
            entry.set_connectstatus(ConnectionStatus::CONNECTING);
            connect(entry.connectionurl(), tree);
            isChanged = true;
        }
    }
    if (isChanged) {
        updateStatus(status, tree);
    }
}

void MonitorConnections::openProxies(const Api::StateMonitorStatus& status) {
    m_hasPeers = true;
    const std::lock_guard<std::mutex> lock(m_connectionsMutex);
    for (const auto& entry : status.statemonitorconnectionstatus()) {
        auto& connection = m_connections[entry.connectionurl()];
        connection.source = static_cast<CircleGuard::Source>(m_connections.size());
        connection.proxy = m_openProxy(entry.connectionurl());
    }
}

/// The thread is created once: after a loss there may be no room for another one. A peer that
/// closes each connection at once must not occupy a processor, so it has to wait, and not for its
/// turn.
void MonitorConnections::connect(const std::string& url, ObserverTree& tree) {
    const std::lock_guard<std::mutex> lock(m_connectionsMutex);
    auto& connection = m_connections.at(url);
    const auto now = std::chrono::steady_clock::now();
    const bool isBrief = now - connection.subscribedAt < usefulDuration;
    std::unique_lock<std::mutex> startLock(m_startMutex);
    auto& order = m_orders[url];
    ++order.number;
    order.due = isBrief ? now + pauseAfterBriefConnection : now;
    order.turn = isBrief ? 0 : ++m_lastTurn;
    startLock.unlock();
    m_startCondition.notify_all();
    if (!connection.thread.joinable()) {
        connection.thread = std::thread([this, &order, proxy = connection.proxy, &tree, url] {
            runConnection(order, proxy, tree, url);
        });
    }
}

void MonitorConnections::runConnection(Order& order, const std::shared_ptr<ProxyTree>& proxy,
                                       ObserverTree& tree, const std::string& url) {
    for (auto number = waitForTurn(order, 0); number != 0; number = waitForTurn(order, number)) {
        const auto watch = handleStateMonitorConnection(proxy, tree, url);
        giveTurn();
        if (watch) {
            watchConnection(order, number, *watch, tree, url);
        }
    }
}

/// Returns the number of the order after the former one, or 0 if the thread must end.
std::uint64_t MonitorConnections::waitForTurn(Order& order, std::uint64_t formerNumber) {
    std::unique_lock<std::mutex> lock(m_startMutex);
    m_startCondition.wait(
        lock, [&] { return m_isEnding || (m_started && order.number != formerNumber); });
    const auto due = order.due;
    m_startCondition.wait_until(lock, due, [this] { return m_isEnding.load(); });
    if (order.turn == 0) {
        order.turn = ++m_lastTurn;
    }
    m_startCondition.wait(lock, [&] { return m_isEnding || m_currentTurn == order.turn; });
    return m_isEnding ? 0 : order.number;
}

void MonitorConnections::giveTurn() {
    {
        const std::lock_guard<std::mutex> lock(m_startMutex);
        ++m_currentTurn;
    }
    m_startCondition.notify_all();
}

/// Null if the channel has no state to watch, or the thread must end.
std::unique_ptr<ChannelWatch> MonitorConnections::handleStateMonitorConnection(
    const std::shared_ptr<ProxyTree>& proxy, ObserverTree& tree, const std::string& url) {
    std::unique_ptr<ChannelWatch> watch;
    while (waitForPeer(*proxy)) {
        const std::lock_guard<std::mutex> capability(*m_capabilityMutex);
        if (m_isEnding) {
            break;
        }
        if (!proxy->inProcess()) {
            watch = std::make_unique<ChannelWatch>(proxy->channel());
        }
        // Checked again: the wait for the mutex may have been long.
        if (proxy->waitForConnected(std::chrono::system_clock::now())) {
            observeKeys(tree, "/", "/status",
                        [&](const ChangeSetType& changes, const Status& /*status*/) {
                            onConnectionStatus(changes, proxy, tree, url);
                        });
            return watch;
        }
    }
    return nullptr;
}

/// False if the thread must end.
bool MonitorConnections::waitForPeer(const ProxyTree& proxy) const {
    while (!m_isEnding && !proxy.waitForConnected(std::chrono::system_clock::now() + endInterval)) {
    }
    return !m_isEnding;
}

/// A stream does not always report the loss of its connection: it may already have ended, or may
/// have been started too late to get a connection.
void MonitorConnections::watchConnection(const Order& order, std::uint64_t number,
                                         ChannelWatch& watch, ObserverTree& tree,
                                         const std::string& url) {
    while (isCurrent(order, number)) {
        if (watch.waitForLoss()) {
            const std::lock_guard<std::mutex> capability(*m_capabilityMutex);
            if (isCurrent(order, number)) {
                lose(tree, url);
            }
            return;
        }
    }
}

/// Whether the connection of this order has not been lost.
bool MonitorConnections::isCurrent(const Order& order, std::uint64_t number) {
    const std::lock_guard<std::mutex> lock(m_startMutex);
    return !m_isEnding && order.number == number;
}

void MonitorConnections::onConnectionStatus(const ChangeSetType& changes,
                                            const std::shared_ptr<ProxyTree>& proxy,
                                            ObserverTree& tree, const std::string& url) {
    const auto& change = changes.begin()->second.at(0);
    auto status = Hox::ObserverTree::Detail::dereference(change.current, "current")
                      .get<Api::StateMonitorStatus>();
    auto* entry = entryOf(url, status);
    if (entry != nullptr && entry->connectstatus() != ConnectionStatus::CONNECTED) {
        entry->set_connectstatus(ConnectionStatus::CONNECTED);
        subscribe(proxy, tree, url);
    }
    const auto previous = change.previous ? change.previous->get<Api::StateMonitorStatus>()
                                          : Api::StateMonitorStatus();
    if (!google::protobuf::util::MessageDifferencer::Equivalent(previous, status)) {
        updateStatus(status, tree);
    }
}

void MonitorConnections::subscribe(const std::shared_ptr<ProxyTree>& proxy, ObserverTree& tree,
                                   const std::string& url) {
    std::any handle =
        observeKeys(*proxy, "/state", "/state/notifications/archive/*",
                    [this, &tree, url](const ChangeSetType& changes, const Status& status) {
                        handleProccessingExternalStateMonitorData(changes, status, tree, url);
                    });
    std::any statusHandle =
        observeKeys(*proxy, "/state", "/status",
                    [this, url](const ChangeSetType& changes, const Status& /*status*/) {
                        onPeerStatus(changes, url);
                    });
    const std::lock_guard<std::mutex> lock(m_connectionsMutex);
    auto& connection = m_connections[url];
    m_circleGuard.restart(connection.source);
    connection.hasPeers = false;
    connection.subscribedAt = std::chrono::steady_clock::now();
    connection.hasSent = false;
    connection.observeHandle = std::move(handle);
    connection.statusHandle = std::move(statusHandle);
}

/// Not under the locks of this monitor's tree, which the callback of a subscription takes.
void MonitorConnections::unsubscribe(const std::string& url) {
    std::any handle;
    std::any statusHandle;
    const std::lock_guard<std::mutex> lock(m_connectionsMutex);
    auto& connection = m_connections[url];
    handle.swap(connection.observeHandle);
    statusHandle.swap(connection.statusHandle);
}

/// A peer that observes nobody cannot be part of a circle.
void MonitorConnections::onPeerStatus(const ChangeSetType& changes, const std::string& url) {
    const auto found = changes.find("/status");
    if (found == changes.end() || found->second.empty() || !found->second.front().current) {
        return;
    }
    try {
        const auto& status = found->second.front().current->get<Api::StateMonitorStatus>();
        const std::lock_guard<std::mutex> lock(m_connectionsMutex);
        m_connections[url].hasPeers = !status.statemonitorconnectionstatus().empty();
    } catch (const Hox::Error& error) {
        logOnce(url, Fault::UnreadableStatus, error.what());
    }
}

bool MonitorConnections::isToBeStored(const Api::StateNotification& notification,
                                      const std::string& url) {
    const std::lock_guard<std::mutex> lock(m_connectionsMutex);
    const auto& connection = m_connections[url];
    if (connection.hasPeers) {
        return m_circleGuard.accepts(connection.source, notification);
    }
    m_circleGuard.count(connection.source, notification);
    return true;
}

void MonitorConnections::handleProccessingExternalStateMonitorData(const ChangeSetType& changes,
                                                                   const Status& status,
                                                                   ObserverTree& tree,
                                                                   const std::string& url) {
    if (m_isEnding) {
        return;
    }
    if (status.statusCode() == ProtoStatus::CANCELLED) {
        lose(tree, url);
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_connectionsMutex);
        m_connections[url].hasSent = true;
    }
    for (const auto& [key, keyChanges] : changes) {
        if (m_isEnding) {
            return;
        }
        forward(keyChanges, tree, url);
    }
}

void MonitorConnections::lose(ObserverTree& tree, const std::string& url) {
    unsubscribe(url);
    bool isDone = false;
    observeKeys(tree, "/", "/status", [&](const ChangeSetType& current, const Status& /*status*/) {
        onDisconnected(current, tree, url, isDone);
    });
}

/// A removal is ignored: this monitor limits its own archive.
void MonitorConnections::forward(const std::vector<ChangeSetMapVal>& changes, ObserverTree& tree,
                                 const std::string& url) {
    if (changes.empty()) {
        logOnce(url, Fault::NoValue, "without a value");
        return;
    }
    if (!changes.front().current) {
        return;
    }
    m_isForwarding = true;
    try {
        create(changes.front().current->get<Api::StoredNotification>().statenotification(), tree,
               url);
    } catch (const Hox::Error& error) {
        logOnce(url, Fault::UnreadableReport, error.what());
    }
    m_isForwarding = false;
}

void MonitorConnections::create(const Api::StateNotification& notification, ObserverTree& tree,
                                const std::string& url) {
    if (!isToBeStored(notification, url)) {
        logOnce(url, Fault::Circle, "that has come from here: the monitors are in a circle");
        return;
    }
    Api::CreateStateNotificationReq request;
    *request.mutable_statenotification() = notification;
    const auto result =
        tree.callApiOp<UnaryOps::CREATE, Api::CreateStateNotificationReq,
                       Api::CreateStateNotificationResp>("/state/notifications", request);
    if (!result.status.isOk()) {
        logOnce(url, Fault::RefusedReport, result.status.errorMessage());
    }
}

void MonitorConnections::onDisconnected(const ChangeSetType& changes, ObserverTree& tree,
                                        const std::string& url, bool& isDone) {
    if (isDone) {
        return;
    }
    Hox::ObserverTree::callTypedObserver<Api::StateMonitorStatus>(
        changes, [&](Api::StateMonitorStatus status, const auto& /*previous*/) {
            auto* entry = entryOf(url, status);
            // A peer may report its loss several times; the thread has already been started then.
            if (entry == nullptr || entry->connectstatus() != ConnectionStatus::CONNECTED) {
                return;
            }
            entry->set_connectstatus(ConnectionStatus::NOT_CONNECTED);
            if (isLossNews(url)) {
                m_logger->log(Hox::Log::here(), spdlog::level::err, "Service {} was disconnected",
                              url);
            }
            updateStatus(status, tree);
        });
    isDone = true;
}

/// If a peer is lost repeatedly before it has sent anything, only the first loss is news.
bool MonitorConnections::isLossNews(const std::string& url) {
    const std::lock_guard<std::mutex> lock(m_connectionsMutex);
    auto& connection = m_connections[url];
    const auto duration = std::chrono::steady_clock::now() - connection.subscribedAt;
    const bool isUseless = !connection.hasSent && duration < usefulDuration;
    return !std::exchange(connection.isUselessLossLogged, isUseless) || !isUseless;
}

void MonitorConnections::logOnce(const std::string& url, Fault fault, const std::string& text) {
    if (m_logged.emplace(url, fault).second) {
        m_logger->log(Hox::Log::here(), spdlog::level::err, "Service {} has sent a report {}", url,
                      text.substr(0, longestText));
    }
}

}  // namespace Hox::Capability::StateMonitoring
