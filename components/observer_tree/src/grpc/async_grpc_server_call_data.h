#pragma once

#include <google/protobuf/message.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/server_context.h>
#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/async_unary_call.h>

#include <any>
#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>

#include "hox/observer_tree/grpc/async_grpc_server_handler.h"

namespace Hox::ObserverTree {

/// The meaning of the next event of a call.
enum class CallDataState {
    WAITING_FOR_REQUEST = 0,         ///< The arrival of a requested call.
    STREAMING_TO_CLIENT = 1,         ///< The end of a write on a running stream.
    FINISHED_STREAMING_CLEANUP = 2,  ///< gRPC's notification that a streaming call is done.
    FINISHED = 3,                    ///< The end of a unary call's answer.
};

/// The additional state of a streaming call.
struct AsyncGrpcServerHandler::ObserveStream {
    explicit ObserveStream(grpc::ServerContext* context) : writer(context) {}

    grpc::ServerAsyncWriter<google::protobuf::Message> writer;
    /// Writes in flight plus writes queued. Wide enough for any queue that fits into memory.
    std::atomic<uint32_t> pendingWrites{0};
    /// A list, because an empty one takes no memory. GUARDED_BY(handler's m_writeMutex)
    std::list<std::function<void()>> delayedWrites;
    /// Nothing is written any more. GUARDED_BY(handler's m_writeMutex)
    bool isFinishing = false;
    /// gRPC has reported that the call is done.
    bool isDone = false;
    /// Keeps the observation running. Emptied under the capability's mutex.
    std::any observeHandle;
};

/// One call, or the object that receives the notification of a streaming call's end.
struct AsyncGrpcServerHandler::CallData {
    /// A call that is about to be requested.
    explicit CallData(std::shared_ptr<const AsyncMethodDesc> method)
        : request(method->requestPrototype->New()),
          options(method->options),
          state(CallDataState::WAITING_FOR_REQUEST),
          context(std::make_unique<grpc::ServerContext>()),
          asyncMethodDesc(std::move(method)),
          tree(asyncMethodDesc->tree) {}

    /// The cleanup object of a streaming call.
    explicit CallData(CallDataTag* streamingCallTag)
        : options(ObsTreeOptions::default_instance()),
          state(CallDataState::FINISHED_STREAMING_CLEANUP),
          peer(*streamingCallTag),
          peerTag(streamingCallTag) {}

    std::unique_ptr<google::protobuf::Message> request;
    const ObsTreeOptions& options;  // kept alive by asyncMethodDesc
    CallDataState state;
    std::unique_ptr<grpc::ServerContext> context;  // declared before the members that refer to it
    std::unique_ptr<grpc::ServerAsyncResponseWriter<google::protobuf::Message>> responder;
    std::unique_ptr<ObserveStream> stream;
    std::shared_ptr<const AsyncMethodDesc> asyncMethodDesc;
    /// From a streaming call to its cleanup object and back.
    std::weak_ptr<CallData> peer;
    CallDataTag* peerTag = nullptr;  // of a cleanup object; valid as long as the peer
    ObserverTree* tree = nullptr;
};

}  // namespace Hox::ObserverTree
