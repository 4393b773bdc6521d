#pragma once

#include "hox/observer_tree/grpc/irequest_wrapper_service.h"

namespace Hox::ObserverTree {

/// A generated service that gives the handler access to its protected functions for requesting
/// calls.
///
/// `ServiceType` is the generated nested class Service. Outlives the server it is registered with.
template <typename ServiceType>
class GrpcWrapperService : public ServiceType, public IRequestWrapperService {
public:
    void requestUnary(int methodIndex, grpc::ServerContext* context,
                      google::protobuf::Message* request,
                      grpc::ServerAsyncResponseWriter<google::protobuf::Message>* responder,
                      grpc::ServerCompletionQueue* callQueue,
                      grpc::ServerCompletionQueue* notificationQueue, void* tag) override {
        this->RequestAsyncUnary(methodIndex, context, request, responder, callQueue,
                                notificationQueue, tag);
    }

    void requestServerStreaming(int methodIndex, grpc::ServerContext* context,
                                google::protobuf::Message* request,
                                grpc::ServerAsyncWriter<google::protobuf::Message>* writer,
                                grpc::ServerCompletionQueue* callQueue,
                                grpc::ServerCompletionQueue* notificationQueue,
                                void* tag) override {
        this->RequestAsyncServerStreaming(methodIndex, context, request, writer, callQueue,
                                          notificationQueue, tag);
    }

    /// Excludes the method from the server's synchronous handling. Must be called before the
    /// service is registered.
    void markMethodAsynchronous(int methodIndex) { this->MarkMethodAsync(methodIndex); }
};

}  // namespace Hox::ObserverTree
