#pragma once

#include <google/protobuf/message.h>
#include <grpcpp/channel.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/observer_tree/grpc/in_process_gate.h"
#include "hox/observer_tree/grpc/owned_rpc_method.h"
#include "hox/observer_tree/grpc/unary_caller.h"
#include "hox/observer_tree/observer_tree.h"

namespace Hox::ObserverTree {

/// A tree in another service, or in this process: observed like any tree, and called by blocking
/// gRPC calls.
///
/// Stores no remote values and evaluates no pattern: one local observer is one gRPC stream, whose
/// change sets are passed directly to the callback on the client handler's thread. A stream whose
/// peer is lost ends with one call with the status CANCELLED; to observe again, drop the handle and
/// call observe again. An OK element that carries a text is passed on without it, and one
/// of another type is left out; each is logged once. The owner destroys the
/// proxy without holding the capability's mutex, which the client handler's thread may need.
template <typename ClientHandler>
class ProxyObserverTree : public ObserverTree {
    using Handle = typename ClientHandler::CallMethodRaiiHandleType;

public:
    /// Created by the builder, which binds the methods afterwards. The gate is that of the
    /// process's own server, or null for a tree in another service.
    ProxyObserverTree(std::shared_ptr<grpc::Channel> channel,
                      std::shared_ptr<ClientHandler> clientHandler,
                      std::shared_ptr<InProcessGate> gate)
        : m_channel(std::move(channel)),
          m_clientHandler(std::move(clientHandler)),
          m_gate(std::move(gate)),
          m_unaryCaller(m_channel, m_gate) {}

    /// Cancels all running observations, then ends the client handler. Callbacks that run meanwhile
    /// may still use the tree; no other code may drop a handle of it during the destruction.
    ~ProxyObserverTree() override {
        endObservations();
        m_clientHandler->stop();
    }
    ProxyObserverTree(const ProxyObserverTree&) = delete;
    ProxyObserverTree(ProxyObserverTree&&) = delete;
    ProxyObserverTree& operator=(const ProxyObserverTree&) = delete;
    ProxyObserverTree& operator=(ProxyObserverTree&&) = delete;

    /// Makes the channel connect and waits until it is ready; returns immediately for the same
    /// process. False if the deadline has passed.
    bool waitForConnected(std::chrono::system_clock::time_point deadline) const {
        if (inProcess()) {
            return true;
        }
        for (;;) {
            const auto state = m_channel->GetState(true);
            if (state == GRPC_CHANNEL_READY) {
                return true;
            }
            if (!m_channel->WaitForStateChange(state, deadline)) {
                return false;
            }
        }
    }

    /// Calls a remote operation and waits for its answer without a deadline. Runs on the caller's
    /// thread, which may hold its capability's mutex but not one that the serving side needs.
    /// UNAVAILABLE if the process's own server has been shut down, and a failed status if it is
    /// shut down meanwhile. Throws std::out_of_range if the service has no such operation.
    Status callUnary(const std::string& key, UnaryOps operation,
                     const google::protobuf::Message& request,
                     google::protobuf::Message& response) {
        return statusOf(
            m_unaryCaller.call(*m_unaryMethods.at({key, operation}), request, response));
    }

    /// The same for a tree in another service, and cancels the call if `mustEnd` is true before the
    /// answer arrives; asks several times a second, on the caller's thread. CANCELLED then.
    Status callUnary(const std::string& key, UnaryOps operation,
                     const google::protobuf::Message& request, google::protobuf::Message& response,
                     const std::function<bool()>& mustEnd) {
        return statusOf(
            m_unaryCaller.call(*m_unaryMethods.at({key, operation}), request, response, mustEnd));
    }

    /// Whether the tree is served by this process.
    bool inProcess() const { return m_gate != nullptr; }

    /// Must be held while a call is started. It owns nothing for a tree in another service, or if
    /// the process's own server has been shut down and no call may be started.
    std::shared_lock<std::shared_mutex> passGate() const {
        return m_gate ? m_gate->pass() : std::shared_lock<std::shared_mutex>();
    }

    /// The connection, to wait for it in steps.
    const std::shared_ptr<grpc::Channel>& channel() const { return m_channel; }

    /// Stores the method of an operation; replaces an earlier one. For the builder.
    void setUnaryMethod(const std::string& key, UnaryOps operation,
                        std::unique_ptr<OwnedRpcMethod> method) {
        m_unaryMethods[{key, operation}] = std::move(method);
    }

    /// Stores the observe method of an address; replaces an earlier one. For the builder.
    void setObserveMethod(const std::string& key, std::unique_ptr<OwnedRpcMethod> method) {
        m_observeMethods[key] = std::move(method);
    }

    /// The observe method of an address, for a caller that reads the stream itself; valid as
    /// long as this object. Throws std::out_of_range if the service has none.
    const OwnedRpcMethod& observeMethod(const std::string& key) const {
        return *m_observeMethods.at(key);
    }

    /// Keeps the stream of an observer, identified by its request. For the builder's hooks.
    void addRemoteObservation(const google::protobuf::Message& inMsg, Handle handle) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_observerMap.insert_or_assign(&inMsg, std::move(handle));
    }

    /// Cancels the stream of an observer; asserts that there is one. For the builder's hooks.
    void removeRemoteObservation(const google::protobuf::Message* inMsg) {
        decltype(m_observerMap.extract(inMsg)) observation;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            observation = m_observerMap.extract(inMsg);
        }
        Hox::CppUtil::getAssertion().assertTrue(!observation.empty(), "m_observerMap.erase(inMsg)",
                                                __FILE__, __LINE__);
    }

private:
    static Status statusOf(const grpc::Status& status) {
        return status.ok() ? Status()
                           : Status(static_cast<ProtoStatus::StatusCode>(status.error_code()),
                                    status.error_message());
    }

    void endObservations() {
        std::vector<Handle> handles;
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& observation : m_observerMap) {
            // The entry stays: the observer may leave in a callback that is running now.
            handles.push_back(std::move(observation.second));
        }
    }

    std::shared_ptr<grpc::Channel> m_channel;
    std::shared_ptr<ClientHandler> m_clientHandler;
    /// Running streams, keyed by the observer's own copy of its request. GUARDED_BY(m_mutex)
    std::map<const google::protobuf::Message*, Handle> m_observerMap;
    /// Held for access to the map only, not while a call ends.
    std::mutex m_mutex;
    std::shared_ptr<InProcessGate> m_gate;
    UnaryCaller m_unaryCaller;
    std::map<std::pair<std::string, UnaryOps>, std::unique_ptr<OwnedRpcMethod>> m_unaryMethods;
    std::map<std::string, std::unique_ptr<OwnedRpcMethod>> m_observeMethods;
};

}  // namespace Hox::ObserverTree
