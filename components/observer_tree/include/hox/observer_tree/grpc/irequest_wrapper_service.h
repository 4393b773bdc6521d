#pragma once

#include <google/protobuf/message.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/server_context.h>
#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/async_unary_call.h>

namespace Hox::ObserverTree {

/// Requests the next call of a method, whatever service the method belongs to.
///
/// The arguments must live until the tag comes back from the notification queue. Both queues belong
/// to the server; neither may be shut down yet.
class IRequestWrapperService {
public:
    IRequestWrapperService() = default;
    virtual ~IRequestWrapperService() = default;
    IRequestWrapperService(const IRequestWrapperService&) = delete;
    IRequestWrapperService(IRequestWrapperService&&) = delete;
    IRequestWrapperService& operator=(const IRequestWrapperService&) = delete;
    IRequestWrapperService& operator=(IRequestWrapperService&&) = delete;

    /// For a method with a single answer. The index is that of the method's descriptor.
    virtual void requestUnary(int methodIndex, grpc::ServerContext* context,
                              google::protobuf::Message* request,
                              grpc::ServerAsyncResponseWriter<google::protobuf::Message>* responder,
                              grpc::ServerCompletionQueue* callQueue,
                              grpc::ServerCompletionQueue* notificationQueue, void* tag) = 0;

    /// For a server-streaming method.
    virtual void requestServerStreaming(int methodIndex, grpc::ServerContext* context,
                                        google::protobuf::Message* request,
                                        grpc::ServerAsyncWriter<google::protobuf::Message>* writer,
                                        grpc::ServerCompletionQueue* callQueue,
                                        grpc::ServerCompletionQueue* notificationQueue,
                                        void* tag) = 0;
};

}  // namespace Hox::ObserverTree
