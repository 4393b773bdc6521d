#include "grpc/counting_service.h"

namespace Hox::ObserverTree::Test {

void CountingService::requestUnary(
    int methodIndex, grpc::ServerContext* context, google::protobuf::Message* request,
    grpc::ServerAsyncResponseWriter<google::protobuf::Message>* responder,
    grpc::ServerCompletionQueue* callQueue, grpc::ServerCompletionQueue* notificationQueue,
    void* tag) {
    ++m_requests[methodIndex];
    GrpcWrapperService::requestUnary(methodIndex, context, request, responder, callQueue,
                                     notificationQueue, tag);
}

void CountingService::requestServerStreaming(
    int methodIndex, grpc::ServerContext* context, google::protobuf::Message* request,
    grpc::ServerAsyncWriter<google::protobuf::Message>* writer,
    grpc::ServerCompletionQueue* callQueue, grpc::ServerCompletionQueue* notificationQueue,
    void* tag) {
    ++m_requests[methodIndex];
    GrpcWrapperService::requestServerStreaming(methodIndex, context, request, writer, callQueue,
                                               notificationQueue, tag);
}

int CountingService::requests(const std::string& method) const {
    const auto* file = Item::descriptor()->file();
    const auto found =
        m_requests.find(file->FindServiceByName("TestService")->FindMethodByName(method)->index());
    return found == m_requests.end() ? 0 : found->second;
}

}  // namespace Hox::ObserverTree::Test
