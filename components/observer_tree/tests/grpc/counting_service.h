#pragma once

#include <map>
#include <string>

#include "hox/observer_tree/grpc/grpc_wrapper_service.h"
#include "test_service.grpc.pb.h"

namespace Hox::ObserverTree::Test {

/// The real service, which also counts how often each method has been requested.
class CountingService : public GrpcWrapperService<TestService::Service> {
public:
    void requestUnary(int methodIndex, grpc::ServerContext* context,
                      google::protobuf::Message* request,
                      grpc::ServerAsyncResponseWriter<google::protobuf::Message>* responder,
                      grpc::ServerCompletionQueue* callQueue,
                      grpc::ServerCompletionQueue* notificationQueue, void* tag) override;
    void requestServerStreaming(int methodIndex, grpc::ServerContext* context,
                                google::protobuf::Message* request,
                                grpc::ServerAsyncWriter<google::protobuf::Message>* writer,
                                grpc::ServerCompletionQueue* callQueue,
                                grpc::ServerCompletionQueue* notificationQueue, void* tag) override;

    /// How often the method has been requested so far.
    int requests(const std::string& method) const;

private:
    std::map<int, int> m_requests;
};

}  // namespace Hox::ObserverTree::Test
