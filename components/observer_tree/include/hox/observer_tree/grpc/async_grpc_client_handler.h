#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <spdlog/fwd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hox/observer_tree/grpc/owned_rpc_method.h"

namespace Hox::ObserverTree {

class ConnectionWatch;

/// Runs the client end of server-streaming calls on one completion queue with one thread.
///
/// Knows nothing of trees. A call starts as soon as its channel is connected and the connection is
/// watched, so that no loss of it is missed. The handler does not reconnect or retry: after the
/// callback with a failed status the call is over. The handler owns the records of all calls; its
/// thread frees each, with the callback, soon after the call has ended and its handle is dropped.
/// Lock order: the capability's mutex, a call's mutex, locks that a callback takes, m_mutex.
class AsyncGrpcClientHandler {
public:
    /// Gets each message of a stream with an OK status, or null with a failed one. Runs on the
    /// handler's thread with the capability's mutex held; must not throw.
    using CallBackMethodType =
        std::function<void(std::unique_ptr<google::protobuf::Message>, const grpc::Status&)>;

    /// Keeps a call running. It may be dropped on any thread; dropping it waits for a running
    /// callback, and afterwards the callback is not called again. It may be dropped inside the
    /// callback itself, and it may outlive the handler. Empty if no call was started.
    using CallMethodRaiiHandleType =
        std::unique_ptr<std::shared_ptr<grpc::ClientContext>,
                        std::function<void(std::shared_ptr<grpc::ClientContext>*)>>;

    /// With inProcess the handler serves only channels inside the process: its thread never reads
    /// from the network.
    explicit AsyncGrpcClientHandler(std::shared_ptr<std::mutex> capabilityMutex,
                                    bool inProcess = false);

    /// Calls stop() if that has not been done.
    virtual ~AsyncGrpcClientHandler();
    AsyncGrpcClientHandler(const AsyncGrpcClientHandler&) = delete;
    AsyncGrpcClientHandler(AsyncGrpcClientHandler&&) = delete;
    AsyncGrpcClientHandler& operator=(const AsyncGrpcClientHandler&) = delete;
    AsyncGrpcClientHandler& operator=(AsyncGrpcClientHandler&&) = delete;

    /// Starts the thread; asserts that it is not running yet and has not been stopped.
    void startThread();

    /// Cancels running calls, ends the thread and frees all calls; no call can start afterwards.
    /// May take 0.4 s, as gRPC does not end its watches on channels earlier. The caller does not
    /// hold the capability's mutex and is not the handler's thread. The captures of the callbacks
    /// of calls that were still running are freed here, without that mutex.
    void stop();

    /// Starts a call of a server-streaming method; asserts that it is one. With inProcess the
    /// channel is one inside the process, and only then. Callable from any thread.
    CallMethodRaiiHandleType callMethodServerStreaming(
        const google::protobuf::Message& request,
        const google::protobuf::MethodDescriptor& methodDesc,
        std::shared_ptr<grpc::Channel> channel, bool inProcess, const CallBackMethodType& callback);

private:
    enum class ClientRequestState;
    struct CallData;

    // REQUIRES(m_mutex)
    const grpc::internal::RpcMethod& rpcMethodFor(const std::shared_ptr<grpc::Channel>& channel,
                                                  const google::protobuf::MethodDescriptor& method);
    CallMethodRaiiHandleType handleFor(const CallData& callData) const;
    // REQUIRES(m_mutex)
    std::shared_ptr<ConnectionWatch> watchFor(const std::shared_ptr<grpc::Channel>& channel);
    void startOrWait(CallData& call);  // REQUIRES(m_mutex)
    /// Renews the watch, and starts the calls that waited for it. REQUIRES(m_mutex)
    void watchOn(ConnectionWatch& watch);
    /// Returns false if the event belongs to a call.
    bool takeAsWatchEvent(const void* tag, bool isChanged);
    void startProcessingCompletionQueue();
    bool isShuttingDown();
    /// The call that belongs to a tag of the queue; waits until the thread that starts the call has
    /// released it.
    CallData& callOf(void* tag);
    /// Takes over a call that gets no further event.
    std::unique_ptr<CallData> takeOut(const CallData& callData);
    void processOkEvent(CallData& callData);           // REQUIRES(*m_capabilityMutex)
    void processOkUnaryEvent(CallData& callData);      // REQUIRES(*m_capabilityMutex)
    void processNotOkEvent(const CallData& callData);  // REQUIRES(*m_capabilityMutex)
    bool isConnectionLost(const CallData& call);
    void unwatch(CallData& call);
    void leaveAloneOrTellLoss(std::unique_ptr<CallData> call);  // REQUIRES(*m_capabilityMutex)
    std::uint64_t eventsOfWatch(const CallData& call);
    void afterWatchEvent(bool isChanged);
    void removeDroppedCalls();  // REQUIRES(*m_capabilityMutex)
    void readNext(CallData& callData);
    /// Used by stop() after the thread has ended.
    void freeCalls();

    // Constant, or self-synchronised.
    const std::shared_ptr<spdlog::logger> m_logger;
    const std::unique_ptr<grpc::CompletionQueue> m_completionQueue;
    const std::shared_ptr<std::mutex> m_capabilityMutex;

    // Used by the owner only.
    std::unique_ptr<std::thread> m_thread;

    // Guarded.
    std::recursive_mutex m_mutex;
    bool m_isShuttingDown = false;  // GUARDED_BY(m_mutex)
    /// Also keeps the channels alive: a new channel at the same memory address must not find the
    /// methods of a destroyed channel. GUARDED_BY(m_mutex)
    std::map<std::pair<std::shared_ptr<grpc::Channel>, std::string>,
             std::unique_ptr<OwnedRpcMethod>>
        m_rpcMethods;
    /// Calls that wait for an event. GUARDED_BY(m_mutex)
    std::map<const CallData*, std::unique_ptr<CallData>> m_calls;
    /// Calls that start as soon as their connection is watched. GUARDED_BY(m_mutex)
    std::vector<CallData*> m_waiting;
    /// Shared with the calls that need it. GUARDED_BY(m_mutex)
    std::map<const grpc::Channel*, std::shared_ptr<ConnectionWatch>> m_watches;

    // Used by the handler's thread only, and by stop() after that thread has ended.
    /// Calls that ended while the loss of their connection was not known; looked at again with the
    /// next events of the watch.
    std::vector<std::unique_ptr<CallData>> m_justEnded;
    /// Calls that have ended and whose handle still exists.
    std::vector<std::unique_ptr<CallData>> m_leftAlone;
};

}  // namespace Hox::ObserverTree
