#include "grpc/unary_call.h"

namespace Hox::ObserverTree::Test {

std::future<UnaryResult> startCall(TestService::Stub& stub, UnaryMethod method,
                                   const std::string& name) {
    return std::async(std::launch::async, [&stub, method, name] {
        UnaryResult result;
        grpc::ClientContext context;
        Item item;
        item.set_name(name);
        result.status = (stub.*method)(&context, item, &result.answer);
        return result;
    });
}

}  // namespace Hox::ObserverTree::Test
