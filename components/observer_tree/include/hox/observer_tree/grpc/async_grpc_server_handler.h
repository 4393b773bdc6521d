#pragma once

#include <google/protobuf/descriptor.h>
#include <grpcpp/completion_queue.h>
#include <spdlog/fwd.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "hox/cpputil/log/logger_name.h"
#include "hox/observer_tree/grpc/async_method_desc.h"
#include "hox/observer_tree/grpc/standby_poller.h"
#include "hox/observer_tree/observer_tree.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

class WireMessageMemo;
struct StreamElement;

/// Serves all bound methods of one capability on one completion queue with one thread.
///
/// Every event runs with the capability's mutex held, so handlers must be short and must not wait
/// for anything that needs this thread or that mutex. Every thread that changes a tree served here
/// holds the capability's mutex.
///
/// Lock order: the capability's mutex, m_stateMutex, the locks of a tree, m_writeMutex.
class AsyncGrpcServerHandler {
public:
    /// The maximum size of a message on the wire, in bytes.
    static constexpr std::size_t largestMessage = 0x7FFFFFFF;

    /// Takes over the queue; no call is requested before the thread starts. The poller, which may
    /// be null, polls while the thread runs a handler; it is null for a queue that does not poll. A
    /// message larger than maxMessageSize, in bytes, is not sent: its call or stream ends with
    /// RESOURCE_EXHAUSTED.
    AsyncGrpcServerHandler(std::unique_ptr<grpc::ServerCompletionQueue> completionQueue,
                           std::shared_ptr<std::mutex> capabilityMutex,
                           std::shared_ptr<StandbyPoller> standbyPoller = nullptr,
                           std::size_t maxMessageSize = largestMessage);

    /// Shuts down the queue, ends the thread and frees all calls. The owner has shut down the
    /// server, but the server still exists: the events in its queue refer to it. The caller does
    /// not hold the capability's mutex, which the thread may need.
    virtual ~AsyncGrpcServerHandler();
    AsyncGrpcServerHandler(const AsyncGrpcServerHandler&) = delete;
    AsyncGrpcServerHandler(AsyncGrpcServerHandler&&) = delete;
    AsyncGrpcServerHandler& operator=(const AsyncGrpcServerHandler&) = delete;
    AsyncGrpcServerHandler& operator=(AsyncGrpcServerHandler&&) = delete;

    /// Binds a method, whose input and output types are generated ones, to the tree, which is not
    /// owned and outlives this object. Must be called before the thread starts.
    void addMethod(const google::protobuf::MethodDescriptor& method,
                   std::shared_ptr<IRequestWrapperService> wrapper, ObserverTree* tree);

    /// Keeps a registered service, even one without bound methods, alive as long as this object.
    /// Must be called before the thread starts.
    void addService(std::shared_ptr<IRequestWrapperService> service);

    /// Starts the thread; called once, while the server is running. Returns when a first call of
    /// each method has been requested, so the server may be shut down immediately afterwards. The
    /// caller may hold the capability's mutex.
    void startCompletionQueueThread();

    /// Requests a first call of each bound method. The thread does this itself; like processEvent,
    /// public for callers that drive the events by hand.
    void requestFirstCalls();

    /// Handles one outcome of the queue's AsyncNext with the capability's mutex held. Returns false
    /// if the loop must end. Throws what ObserverTree::observeCast throws.
    bool processEvent(grpc::CompletionQueue::NextStatus outcome, void* tag, bool ok);

    /// How long the thread waits for an event before it checks whether it must end.
    static constexpr std::chrono::milliseconds pollInterval{500};

private:
    struct CallData;
    struct ObserveStream;
    /// The object that a tag of the queue points to. On the heap, because gRPC holds its raw
    /// address.
    using CallDataTag = std::shared_ptr<CallData>;

    void startProcessingCompletionQueue(std::promise<void> requested);
    /// Handles events until processEvent returns false; returns the outcome of that event.
    grpc::CompletionQueue::NextStatus processEvents();
    grpc::CompletionQueue::NextStatus nextEvent(void** tag, bool* ok);
    void createCallData(const std::shared_ptr<const AsyncMethodDesc>& asyncMethodDesc);
    void requestUnaryCall(CallDataTag* tag);      // REQUIRES(m_stateMutex)
    void requestStreamingCall(CallDataTag* tag);  // REQUIRES(m_stateMutex)

    void processOkEvent(CallDataTag* tag);         // REQUIRES(*m_capabilityMutex, m_stateMutex)
    void processNotOkEvent(CallDataTag* tag);      // REQUIRES(*m_capabilityMutex, m_stateMutex)
    void processRequest(CallDataTag* tag);         // REQUIRES(*m_capabilityMutex, m_stateMutex)
    void processObserveRequest(CallDataTag* tag);  // REQUIRES(*m_capabilityMutex, m_stateMutex)
    void processFinishedWrite(CallDataTag* tag);   // REQUIRES(*m_capabilityMutex, m_stateMutex)
    void processEndOfStream(CallDataTag* tag);     // REQUIRES(*m_capabilityMutex, m_stateMutex)

    template <UnaryOps OpId>
    void processUnaryRequest(CallDataTag* tag);  // REQUIRES(*m_capabilityMutex, m_stateMutex)
    template <UnaryOps OpId>
    void tryCallUnaryOpCast(CallDataTag& callData);  // REQUIRES(*m_capabilityMutex)

    // REQUIRES(*m_capabilityMutex)
    void answer(CallDataTag& callData, const google::protobuf::Message& response);
    void writeChangeSet(CallDataTag* tag, StreamElement element);  // REQUIRES(*m_capabilityMutex)
    void finishStream(CallDataTag* tag, std::size_t size);         // REQUIRES(m_writeMutex)

    void endStream(const CallData& cleanup);  // REQUIRES(*m_capabilityMutex, m_stateMutex)
    void markShuttingDown();                  // REQUIRES(m_stateMutex)
    /// REQUIRES(m_stateMutex), except in the destructor: the thread has ended then.
    void freeTag(CallDataTag* tag);
    /// REQUIRES(*m_capabilityMutex), except in the destructor.
    void freeAllTags();
    /// Used by the destructor after the thread has ended.
    void drainQueue();

    std::function<std::string()> _HALVOMACRO_loggerName = [] {
        return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__);
    };
    // Constant, or self-synchronised.
    const std::shared_ptr<spdlog::logger> m_logger;
    const std::unique_ptr<grpc::ServerCompletionQueue> m_completionQueue;
    const std::shared_ptr<std::mutex> m_capabilityMutex;
    const std::shared_ptr<StandbyPoller> m_standbyPoller;
    const std::size_t m_maxMessageSize;

    // Used by the owner only until the thread starts, constant from then on.
    std::vector<std::shared_ptr<const AsyncMethodDesc>> m_methods;
    std::vector<std::shared_ptr<IRequestWrapperService>> m_services;
    std::unique_ptr<std::thread> m_completionQueueThread;

    // Guarded.
    /// Also guards the creation of calls. Recursive, because events create calls while it is held.
    std::recursive_mutex m_stateMutex;
    /// Guards the delayed writes of every stream. Taken inside the locks of a tree.
    std::mutex m_writeMutex;
    std::set<CallDataTag*> m_callDataTags;  // GUARDED_BY(m_stateMutex): tags that no event frees
    bool m_isServerShuttingDown = false;    // GUARDED_BY(m_stateMutex)
    bool m_isShuttingDown = false;  // GUARDED_BY(m_stateMutex and m_writeMutex; read under either)
    std::unique_ptr<WireMessageMemo> m_wireMessageMemo;  // GUARDED_BY(*m_capabilityMutex)
};

}  // namespace Hox::ObserverTree
