#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <spdlog/logger.h>

#include <atomic>
#include <chrono>
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

/// Runs the client end of server-streaming calls on one completion queue with one thread.
///
/// Knows nothing of trees. Does not reconnect or retry: after the callback with a failed status the
/// call is gone. Lock order: the capability's mutex, then a call's mutex or m_mutex, never both.
class AsyncGrpcClientHandler : public std::enable_shared_from_this<AsyncGrpcClientHandler> {
public:
    /// Gets each message of a stream with an OK status, or null with a failed one. Runs on the
    /// handler's thread with the capability's mutex held; must not throw.
    using CallBackMethodType =
        std::function<void(std::unique_ptr<google::protobuf::Message>, const grpc::Status&)>;

    /// Keeps a call running. Once it has been dropped, on any thread, the callback is not called
    /// any more; it may be dropped inside the callback itself. Empty: no call was started.
    using CallMethodRaiiHandleType =
        std::unique_ptr<std::shared_ptr<grpc::ClientContext>,
                        std::function<void(std::shared_ptr<grpc::ClientContext>*)>>;

    /// A handler that is inProcess serves no channel that leaves the process: its thread never
    /// reads from the network.
    explicit AsyncGrpcClientHandler(std::shared_ptr<std::mutex> capabilityMutex,
                                    bool inProcess = false);

    /// Cancels what still runs and ends the thread. The caller does not hold the capability's
    /// mutex.
    virtual ~AsyncGrpcClientHandler();
    AsyncGrpcClientHandler(const AsyncGrpcClientHandler&) = delete;
    AsyncGrpcClientHandler(AsyncGrpcClientHandler&&) = delete;
    AsyncGrpcClientHandler& operator=(const AsyncGrpcClientHandler&) = delete;
    AsyncGrpcClientHandler& operator=(AsyncGrpcClientHandler&&) = delete;

    /// Starts the thread; asserts that it does not run yet.
    void startThread();

    /// Starts a call of a server-streaming method; asserts that it is one. Callable from any
    /// thread.
    CallMethodRaiiHandleType callMethodServerStreaming(
        const google::protobuf::Message& request,
        const google::protobuf::MethodDescriptor& methodDesc,
        std::shared_ptr<grpc::Channel> channel, bool inProcess, const CallBackMethodType& callback);

private:
    enum class ClientRequestState;
    struct CallData;

    const grpc::internal::RpcMethod& rpcMethodFor(const std::shared_ptr<grpc::Channel>& channel,
                                                  const google::protobuf::MethodDescriptor& method);
    CallMethodRaiiHandleType handleFor(const CallData& callData);
    void drop(const CallData* callData, std::mutex& callMutex,
              std::shared_ptr<grpc::ClientContext>* context);
    void startProcessingCompletionQueue();
    /// The call behind a tag of the queue, once the thread that starts it has let go of it.
    CallData& callOf(void* tag);
    void processOkEvent(CallData& callData);
    void processOkUnaryEvent(CallData& callData);
    void processNotOkEvent(CallData& callData);
    std::chrono::milliseconds waitingTime();
    void lookAgainAtEndedCalls();
    std::vector<std::unique_ptr<CallData>> takeJustEnded();
    static bool leaveAlone(CallData& callData);
    void tellLoss(CallData& callData);
    static bool mayBeLeftAlone(const CallData& callData);
    void readNext(CallData& callData);
    void callBackIfHeld(CallData& callData, std::unique_ptr<google::protobuf::Message> message,
                        const grpc::Status& status);
    void free(const CallData* callData);

    std::shared_ptr<spdlog::logger> m_logger;
    std::unique_ptr<grpc::CompletionQueue> m_completionQueue;
    std::shared_ptr<std::mutex> m_capabilityMutex;
    bool m_isShuttingDown = false;  // GUARDED_BY(m_mutex)
    std::unique_ptr<std::thread> m_thread;
    std::recursive_mutex m_mutex;
    /// Keeps the channels as well: another one at the same address must not find the methods of a
    /// channel that is gone. GUARDED_BY(m_mutex)
    std::map<std::pair<std::shared_ptr<grpc::Channel>, std::string>,
             std::unique_ptr<OwnedRpcMethod>>
        m_rpcMethods;
    std::map<const CallData*, std::unique_ptr<CallData>> m_calls;  // GUARDED_BY(m_mutex)
    /// Calls that ended while their channel did not look lost yet. GUARDED_BY(m_mutex)
    std::vector<const CallData*> m_justEnded;
    /// Until when they are looked at again; touched by the handler's thread alone.
    std::chrono::steady_clock::time_point m_lossDeadline;
    std::atomic<std::thread::id> m_threadId;
    const std::mutex* m_heldCallMutex = nullptr;  // touched by the handler's thread alone
};

}  // namespace Hox::ObserverTree
