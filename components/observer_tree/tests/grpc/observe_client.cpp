#include "grpc/observe_client.h"

namespace Hox::ObserverTree::Test {

ObserveClient::ObserveClient(TestService::Stub& stub, const std::string& keyPattern) {
    ObserveReq request;
    request.set_key_pattern(keyPattern);
    reader = stub.observeItems(&context, request);
}

}  // namespace Hox::ObserverTree::Test
